#include <Qel/graph/VideoFile.h>

#include <QFileInfo>
#include <QStandardPaths>
#include <QStringList>
#include <QTemporaryFile>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <vector>

#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <Qel/graph/FrameReader.h>
#include <Qel/graph/OutputFile.h>
#include <Qel/graph/support/ImageErrors.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

QString extensionOf(const QString& path)
{
    return QFileInfo(path).suffix().toLower();
}

/// The arguments of ffmpeg that choose the format. Frames are RGB with the transfer function of sRGB; video
/// is YCbCr with the matrix of BT.709, whose size must be even.
QStringList formatArguments(const QString& extension)
{
    const QString toVideo = u"pad=ceil(iw/2)*2:ceil(ih/2)*2,"
                            "scale=out_color_matrix=bt709:out_range=tv,format=yuv420p"_s;
    const QStringList colors{u"-colorspace"_s, u"bt709"_s,        u"-color_primaries"_s, u"bt709"_s,
                             u"-color_trc"_s,  u"iec61966-2-1"_s, u"-color_range"_s,     u"tv"_s};
    if (extension == u"mp4") {
        return QStringList{u"-vf"_s,  toVideo, u"-c:v"_s,      u"libx264"_s,
                           u"-crf"_s, u"17"_s, u"-movflags"_s, u"+faststart"_s} +
               colors + QStringList{u"-f"_s, u"mp4"_s};
    }
    if (extension == u"webm") {
        return QStringList{u"-vf"_s, toVideo,   u"-c:v"_s, u"libvpx-vp9"_s, u"-crf"_s,
                           u"24"_s,  u"-b:v"_s, u"0"_s,    u"-row-mt"_s,    u"1"_s} +
               colors + QStringList{u"-f"_s, u"webm"_s};
    }
    return {u"-vf"_s, u"split[a][b];[a]palettegen[palette];[b][palette]paletteuse"_s, u"-f"_s, u"gif"_s};
}

/// The first line of ffmpeg's errors, without the address of the object that reports it.
QString firstLine(const QByteArray& errors)
{
    const QString line = QString::fromLocal8Bit(errors).trimmed().section(u'\n', 0, 0);
    const bool hasPlace = line.startsWith(u'[') && line.contains(u"] ");
    return hasPlace ? line.sliced(line.indexOf(u"] ") + 2) : line;
}

} // namespace

struct VideoFile::Private
{
    Private(const QString& filePath, float framesPerSecond)
        : path(filePath)
        , fps(framesPerSecond)
        , file(filePath)
    {
    }
    ~Private() { end(); }

    bool start(const QSize& frameSize, QString* error);
    bool send(const QByteArray& bytes) const;
    /// Waits for ffmpeg to end; returns whether it succeeded.
    bool end();
    /// Reports why ffmpeg failed, after it ended.
    bool fail(QString* error);

    QString path;
    float fps;
    QSize size;
    OutputFile file;
    QTemporaryFile messages;
    pid_t process = 0;
    /// A socket rather than a pipe, because writing to it can be kept from raising SIGPIPE.
    int socket = -1;
};

bool VideoFile::Private::start(const QSize& frameSize, QString* error)
{
    size = frameSize;
    if (!file.openForWriting(error)) {
        return false;
    }
    std::array<int, 2> ends{};
    if (!messages.open() || socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0) {
        return writeError(error, path, QString::fromLocal8Bit(std::strerror(errno)));
    }
    socket = ends[0];
    // ffmpeg opens the temporary file, which has no name that it could guess a format from.
    const QStringList arguments =
        QStringList{u"ffmpeg"_s,       u"-nostdin"_s,
                    u"-hide_banner"_s, u"-loglevel"_s,
                    u"error"_s,        u"-y"_s,
                    u"-f"_s,           u"rawvideo"_s,
                    u"-pix_fmt"_s,     u"rgb24"_s,
                    u"-s"_s,           u"%1x%2"_s.arg(size.width()).arg(size.height()),
                    u"-r"_s,           QString::number(static_cast<double>(fps)),
                    u"-i"_s,           u"pipe:0"_s} +
        formatArguments(extensionOf(path)) +
        QStringList{u"/proc/%1/fd/%2"_s.arg(getpid()).arg(file.handle())};
    std::vector<QByteArray> texts;
    std::vector<char*> pointers;
    texts.reserve(static_cast<size_t>(arguments.size()));
    pointers.reserve(static_cast<size_t>(arguments.size()) + 1);
    for (const QString& argument : arguments) {
        texts.push_back(argument.toLocal8Bit());
    }
    for (QByteArray& text : texts) {
        pointers.push_back(text.data());
    }
    pointers.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, ends[1], STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, messages.handle(), STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, messages.handle(), STDERR_FILENO);
    // In a group of its own, ffmpeg does not get the interrupt of the terminal and can complete the file.
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP);
    const int result = posix_spawnp(&process, pointers[0], &actions, &attributes, pointers.data(), environ);
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&actions);
    close(ends[1]);
    if (result != 0) {
        process = 0;
        return writeError(error, path, QString::fromLocal8Bit(std::strerror(result)),
                          u"install the Debian package ffmpeg"_s);
    }
    return true;
}

bool VideoFile::Private::send(const QByteArray& bytes) const
{
    for (qsizetype sent = 0; sent < bytes.size();) {
        const ssize_t number =
            ::send(socket, bytes.constData() + sent, static_cast<size_t>(bytes.size() - sent), MSG_NOSIGNAL);
        if (number < 0 && errno != EINTR) {
            return false;
        }
        sent += std::max<ssize_t>(number, 0);
    }
    return true;
}

bool VideoFile::Private::end()
{
    if (socket >= 0) {
        close(socket);
        socket = -1;
    }
    int status = -1;
    if (process != 0) {
        while (waitpid(process, &status, 0) < 0 && errno == EINTR) {
        }
        process = 0;
    }
    return status == 0;
}

bool VideoFile::Private::fail(QString* error)
{
    end();
    messages.seek(0);
    const QString line = firstLine(messages.readAll());
    return writeError(error, path, u"ffmpeg: "_s + (line.isEmpty() ? u"it ended unexpectedly"_s : line));
}

bool VideoFile::isVideo(const QString& path)
{
    static const QStringList extensions{u"mp4"_s, u"webm"_s, u"gif"_s};
    return extensions.contains(extensionOf(path));
}

bool VideoFile::check(const QString& path, QString* error)
{
    if (QStandardPaths::findExecutable(u"ffmpeg"_s).isEmpty()) {
        return writeError(error, path, u"there is no program ffmpeg, which encodes videos"_s,
                          u"install the Debian package ffmpeg, or write numbered images such as "
                          "frame%04d.png"_s);
    }
    OutputFile file(path);
    const bool usable = file.openForWriting(error);
    file.cancelWriting();
    return usable;
}

VideoFile::VideoFile(const QString& path, float framesPerSecond)
    : d(std::make_unique<Private>(path, framesPerSecond))
{
}

VideoFile::~VideoFile() = default;

bool VideoFile::add(const FramePixels& frame, QString* error)
{
    if (d->process == 0 && !d->start(frame.size(), error)) {
        return false;
    }
    if (frame.size() != d->size) {
        return writeError(error, d->path, u"the frames have different sizes"_s, u"render them in one size"_s);
    }
    return d->send(frame.toRgb8()) || d->fail(error);
}

bool VideoFile::finish(QString* error)
{
    if (d->process == 0) {
        return true;
    }
    if (!d->end()) {
        return d->fail(error);
    }
    return d->file.commit(error);
}

} // namespace Morvane::Qel
