#include <Qel/graph/OutputFile.h>

#include <QFile>

#include <array>
#include <atomic>
#include <filesystem>

#include <unistd.h>

#include <Qel/graph/support/ImageErrors.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

/// The name of a temporary file, in memory that a signal handler can read.
struct TemporaryName
{
    std::atomic<bool> isTaken = false;
    /// Whether `path` is complete.
    std::atomic<bool> isSet = false;
    std::array<char, 4096> path{};
};

/// More files than these are not open at once; any others would stay behind after a signal.
std::array<TemporaryName, 8> temporaryNames;

/// Returns the index of the name; -1 if there is no free one.
int keepName(int descriptor)
{
    const QByteArray link = "/proc/self/fd/" + QByteArray::number(descriptor);
    for (size_t i = 0; i < temporaryNames.size(); ++i) {
        TemporaryName& name = temporaryNames[i];
        if (name.isTaken.exchange(true)) {
            continue;
        }
        const ssize_t length = ::readlink(link.constData(), name.path.data(), name.path.size() - 1);
        if (length < 0) {
            name.isTaken = false;
            return -1;
        }
        name.path[static_cast<size_t>(length)] = '\0';
        name.isSet = true;
        return static_cast<int>(i);
    }
    return -1;
}

std::filesystem::path nativePath(const QString& path)
{
    return QFile::encodeName(path).toStdString();
}

/// The file behind a symbolic link, which need not exist; any other path as it is.
QString resolved(const QString& path)
{
    std::error_code error;
    if (!std::filesystem::is_symlink(nativePath(path), error)) {
        return path;
    }
    const std::filesystem::path target = std::filesystem::weakly_canonical(nativePath(path), error);
    return error ? path : QFile::decodeName(target.c_str());
}

/// What exists at a path that must not be replaced; null for a regular file and for nothing.
const char* obstacleAt(const QString& path)
{
    std::error_code error;
    switch (std::filesystem::status(nativePath(path), error).type()) {
    case std::filesystem::file_type::directory:
        return "a folder";
    case std::filesystem::file_type::block:
    case std::filesystem::file_type::character:
        return "a device";
    case std::filesystem::file_type::fifo:
        return "a named pipe";
    case std::filesystem::file_type::socket:
        return "a socket";
    default:
        return nullptr;
    }
}

} // namespace

OutputFile::OutputFile(const QString& path)
    : QSaveFile(resolved(path))
    , m_path(path)
{
}

OutputFile::~OutputFile()
{
    if (m_slot >= 0) {
        TemporaryName& name = temporaryNames[static_cast<size_t>(m_slot)];
        name.isSet = false;
        name.isTaken = false;
    }
}

bool OutputFile::open(QString* error)
{
    if (const char* obstacle = obstacleAt(m_path)) {
        return writeError(error, m_path, u"it is %1"_s.arg(QLatin1StringView(obstacle)),
                          u"choose a regular file or a new name"_s);
    }
    // Unbuffered, because a buffered write that fails does not say why.
    if (!QSaveFile::open(QIODevice::WriteOnly | QIODevice::Unbuffered)) {
        return writeError(error, m_path, errorString(),
                          u"choose an existing folder with write permission and free space"_s);
    }
    m_slot = keepName(handle());
    return true;
}

bool OutputFile::writeAll(QByteArrayView bytes)
{
    while (!bytes.isEmpty()) {
        const qint64 written = write(bytes.data(), bytes.size());
        if (written <= 0) {
            return false;
        }
        bytes = bytes.sliced(written);
    }
    return true;
}

bool OutputFile::commit(QString* error)
{
    return QSaveFile::commit() || writeError(error, m_path, errorString());
}

void OutputFile::removeUnfinished()
{
    for (const TemporaryName& name : temporaryNames) {
        if (name.isSet) {
            ::unlink(name.path.data());
        }
    }
}

} // namespace Morvane::Qel
