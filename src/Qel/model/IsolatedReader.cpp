#include <QFile>
#include <QFileInfo>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <Qel/model/ImportedScene.h>
#include <Qel/model/ScenePipe.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

/// Returns the deadline extended in proportion to the file's size, by ten times what the slowest format
/// takes.
std::chrono::milliseconds timeLimit(const QString& path, std::chrono::milliseconds deadline)
{
    using namespace std::chrono_literals;
    constexpr std::chrono::milliseconds longest = 24h;
    const auto share = std::min<std::chrono::milliseconds>(5s * (QFileInfo(path).size() >> 20), longest);
    return std::clamp<std::chrono::milliseconds>(deadline, 0ms, longest) + share;
}

/// Limits this process to half of the machine's memory in addition to what it uses now.
void limitMemory()
{
    QFile statistics(u"/proc/self/statm"_s);
    if (!statistics.open(QIODevice::ReadOnly)) {
        return;
    }
    const auto pages = statistics.readAll().split(' ').first().toULongLong() +
                       static_cast<unsigned long long>(sysconf(_SC_PHYS_PAGES)) / 2;
    const rlimit memory{pages * static_cast<rlim_t>(sysconf(_SC_PAGESIZE)), RLIM_INFINITY};
    setrlimit(RLIMIT_AS, &memory);
}

/// Prepares the child for a crash: no handlers, no core dump, no output, limited memory, and death with the
/// parent, which enforces the deadline.
void confine()
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    for (const int signal : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT}) {
        std::signal(signal, SIG_DFL);
    }
    const rlimit noCore{0, 0};
    setrlimit(RLIMIT_CORE, &noCore);
    limitMemory();
    const int nowhere = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (nowhere >= 0) {
        ::dup2(nowhere, STDOUT_FILENO);
        ::dup2(nowhere, STDERR_FILENO);
    }
}

void waitFor(pid_t child)
{
    while (::waitpid(child, nullptr, 0) < 0 && errno == EINTR) {
    }
}

ImportedScene failure(const QString& error)
{
    ImportedScene scene;
    scene.error = error;
    return scene;
}

} // namespace

ImportedScene readSceneIsolated(const QString& path, std::chrono::milliseconds deadline)
{
    const std::chrono::milliseconds limit = timeLimit(path, deadline);
    const auto end = ScenePipe::Clock::now() + limit;
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) {
        return failure(u"cannot create a pipe: %1"_s.arg(QString::fromLocal8Bit(std::strerror(errno))));
    }
    const pid_t child = ::fork();
    if (child == 0) {
        ::close(ends[0]);
        confine();
        ImportedScene scene = readScene(path);
        ScenePipe(ends[1], ScenePipe::Mode::Write).pass(scene);
        ::_exit(0);
    }
    const int forkError = errno;
    ::close(ends[1]);
    ScenePipe pipe(ends[0], ScenePipe::Mode::Read, end);
    if (child < 0) {
        return failure(
            u"cannot create a child process: %1"_s.arg(QString::fromLocal8Bit(std::strerror(forkError))));
    }
    ImportedScene scene;
    pipe.pass(scene);
    if (pipe.isLate()) {
        ::kill(child, SIGKILL);
    }
    waitFor(child);
    if (pipe.isLate()) {
        return failure(u"not read within %1 s; the file may be damaged"_s.arg(
            static_cast<double>(limit.count()) / 1000.0));
    }
    if (!pipe.isComplete()) {
        return failure(u"the file is damaged and crashes its reader"_s);
    }
    return scene;
}

} // namespace Morvane::Qel
