#include <Qel/model/ImportedScene.h>

#include <QFile>
#include <QFileInfo>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <type_traits>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

/// One end of a pipe between a process and its fork. Values cross it as they lie in memory, for both run the
/// same code; the same calls in the same order write them on one end and read them on the other.
class Pipe
{
public:
    enum class Mode
    {
        Read,
        Write,
    };
    Pipe(int descriptor, Mode mode)
        : m_descriptor(descriptor)
        , m_mode(mode)
    {
    }
    ~Pipe() { ::close(m_descriptor); }
    Pipe(const Pipe&) = delete;
    Pipe& operator=(const Pipe&) = delete;

    /// Whether everything came through so far.
    bool isComplete() const { return m_isComplete; }

    template<typename T>
    requires std::is_trivially_copyable_v<T>
    void pass(T& value) { passBytes(&value, sizeof(T)); }

    void pass(QString& text) { passBlock(text); }
    void pass(QByteArray& bytes) { passBlock(bytes); }
    template<typename T>
    requires std::is_trivially_copyable_v<T>
    void pass(std::vector<T>& values) { passBlock(values); }

    template<typename Container>
    void passEach(Container& values)
    {
        resize(values);
        for (auto& value : values) {
            pass(value);
        }
    }

    void pass(MeshData& mesh)
    {
        pass(mesh.name);
        pass(mesh.positions);
        pass(mesh.normals);
        pass(mesh.texCoords);
        pass(mesh.indices);
        pass(mesh.material);
    }

    void pass(ImageReference& reference)
    {
        pass(reference.text);
        pass(reference.embedded);
    }

    void pass(ImportedMaterial& material)
    {
        pass(material.data.name);
        pass(material.data.kd);
        pass(material.data.ks);
        pass(material.data.ns);
        pass(material.data.d);
        pass(material.data.doubleSided);
        pass(material.mapKd);
        pass(material.mapKs);
        pass(material.isOpaque);
    }

    void pass(EmbeddedImage& image)
    {
        pass(image.bytes);
        pass(image.size);
    }

    void pass(ImportedScene& scene)
    {
        pass(scene.error);
        passEach(scene.warnings);
        passEach(scene.meshes);
        pass(scene.instances);
        passEach(scene.materials);
        passEach(scene.embeddedImages);
    }

private:
    template<typename Container>
    void resize(Container& values)
    {
        auto size = values.size();
        pass(size);
        if (m_mode == Mode::Read) {
            values.resize(m_isComplete ? size : 0);
        }
    }

    template<typename Container>
    void passBlock(Container& values)
    {
        resize(values);
        passBytes(values.data(), static_cast<size_t>(values.size()) * sizeof(*values.data()));
    }

    void passBytes(void* bytes, size_t size)
    {
        auto* position = static_cast<char*>(bytes);
        while (size > 0 && m_isComplete) {
            const ssize_t count = m_mode == Mode::Read ? ::read(m_descriptor, position, size)
                                                       : ::write(m_descriptor, position, size);
            if (count > 0) {
                position += count;
                size -= static_cast<size_t>(count);
            } else if (count == 0 || errno != EINTR) {
                m_isComplete = false;
            }
        }
    }

    int m_descriptor;
    Mode m_mode;
    bool m_isComplete = true;
};

/// Processor time that reading a file may take, in seconds: ten times what the slowest format needs.
rlim_t timeLimit(const QString& path)
{
    return static_cast<rlim_t>(20 + 5 * (QFileInfo(path).size() >> 20));
}

/// Limits this process's memory to what it has now and half of the machine's more.
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

/// Makes this process one that dies quietly, and in time.
void confine(const QString& path)
{
    for (const int signal : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT, SIGXCPU}) {
        std::signal(signal, SIG_DFL);
    }
    const rlimit noCore{0, 0};
    setrlimit(RLIMIT_CORE, &noCore);
    const rlimit time{timeLimit(path), timeLimit(path) + 1};
    setrlimit(RLIMIT_CPU, &time);
    limitMemory();
    const int nowhere = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (nowhere >= 0) {
        ::dup2(nowhere, STDOUT_FILENO);
        ::dup2(nowhere, STDERR_FILENO);
    }
}

QString reasonOfDeath(pid_t child, const QString& path)
{
    int status = 0;
    pid_t ended = 0;
    do {
        ended = ::waitpid(child, &status, 0);
    } while (ended < 0 && errno == EINTR);
    if (ended == child && WIFSIGNALED(status) && WTERMSIG(status) == SIGXCPU) {
        return u"reading it took over %1 seconds; the file is damaged"_s.arg(timeLimit(path));
    }
    return u"the file is damaged in a way that crashes its reader"_s;
}

} // namespace

ImportedScene readSceneIsolated(const QString& path)
{
    ImportedScene scene;
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) {
        scene.error =
            u"no pipe to a process that reads it: %1"_s.arg(QString::fromUtf8(std::strerror(errno)));
        return scene;
    }
    const pid_t child = ::fork();
    if (child == 0) {
        ::close(ends[0]);
        confine(path);
        scene = readScene(path);
        Pipe(ends[1], Pipe::Mode::Write).pass(scene);
        ::_exit(0);
    }
    ::close(ends[1]);
    Pipe pipe(ends[0], Pipe::Mode::Read);
    if (child < 0) {
        scene.error = u"no process to read it: %1"_s.arg(QString::fromUtf8(std::strerror(errno)));
        return scene;
    }
    pipe.pass(scene);
    const QString death = reasonOfDeath(child, path);
    if (!pipe.isComplete()) {
        scene = ImportedScene();
        scene.error = death;
    }
    return scene;
}

} // namespace Morvane::Qel
