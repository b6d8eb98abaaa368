#include "Console.h"

#include <QRegularExpression>
#include <QStringList>

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <utility>

#include <fcntl.h>
#include <unistd.h>

#include <Qel/core/Diagnostics.h>
#include <Qel/core/Text.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel::App {

namespace {

Verbosity messageVerbosity = Verbosity::Normal;
bool progressShown = false;
QStringList keptReports;
/// Why the first write to standard output failed.
QString outputError;

void keepOutputError()
{
    if (outputError.isEmpty()) {
        outputError = QString::fromLocal8Bit(std::strerror(errno));
    }
}

void eraseProgress()
{
    if (progressShown) {
        std::fputs("\r\033[K", stderr);
        progressShown = false;
    }
}

void writeError(const QString& text)
{
    eraseProgress();
    std::fprintf(stderr, "qel: %s\n", qUtf8Printable(text));
}

/// Writes a message, which may have several lines.
void writeMessage(const QString& text)
{
    QStringList lines = text.split(u'\n');
    for (QString& line : lines) {
        line = printable(line);
    }
    writeError(lines.join(u'\n'));
}

void handleMessage(QtMsgType type, const QMessageLogContext& /*context*/, const QString& text)
{
    static const QRegularExpression location(u"^\\[[^\\]\\n]+:\\d+\\] "_s);
    const QString message = QString(text).remove(location);
    const bool explainsFrame =
        type == QtCriticalMsg && (message.startsWith(QLatin1StringView("OpenGL")) || message.contains(u'\n'));
    if (explainsFrame) {
        keptReports.append(message);
    }
    const QString place = messagePlace().isEmpty() ? QString() : messagePlace() + u": "_s;
    const bool isError = type == QtCriticalMsg || type == QtFatalMsg;
    if (messageVerbosity == Verbosity::Verbose) {
        writeMessage(place + text);
    } else if (!explainsFrame && (messageVerbosity == Verbosity::Quiet ? isError : type != QtDebugMsg)) {
        writeMessage(place + message);
    }
}

} // namespace

void installMessageHandler(Verbosity verbosity)
{
    messageVerbosity = verbosity;
    qInstallMessageHandler(handleMessage);
}

QString takeReport()
{
    const QStringList lines = std::exchange(keptReports, {}).value(0).split(u'\n');
    if (lines.size() == 1) {
        return lines[0];
    }
    // Line 1 names what failed, line 2 where and why; the rest is the source.
    return messageVerbosity == Verbosity::Verbose ? lines[1]
                                                  : u"%1; --verbose shows the source"_s.arg(lines[1]);
}

void print(const QString& text)
{
    if (std::fputs(qUtf8Printable(text), stdout) < 0) {
        keepOutputError();
    }
}

void printNote(const QString& line)
{
    if (messageVerbosity != Verbosity::Quiet) {
        writeError(printable(line));
    }
}

void printError(const QString& line)
{
    writeError(printable(line));
}

QString flushOutput()
{
    if (std::fflush(stdout) != 0) {
        keepOutputError();
    }
    return outputError;
}

QuietErrors::QuietErrors()
    : m_errors(dup(STDERR_FILENO))
{
    const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
    dup2(nowhere, STDERR_FILENO);
    close(nowhere);
}

QuietErrors::~QuietErrors()
{
    dup2(m_errors, STDERR_FILENO);
    close(m_errors);
}

Progress::Progress(QString unit, int total)
    : m_unit(std::move(unit))
    , m_total(total)
    , m_onTerminal(isatty(STDERR_FILENO) == 1 && messageVerbosity != Verbosity::Quiet)
    , m_begin(Clock::now())
    , m_nextUpdate(m_begin + std::chrono::seconds(1))
{
}

Progress::~Progress()
{
    eraseProgress();
}

void Progress::update(int done)
{
    const auto now = Clock::now();
    if (!m_onTerminal || now < m_nextUpdate) {
        return;
    }
    m_nextUpdate = now + std::chrono::milliseconds(200);
    const double perSecond = done / std::chrono::duration<double>(now - m_begin).count();
    const int secondsLeft = static_cast<int>(std::ceil((m_total - done) / perSecond));
    std::fprintf(stderr, "\r%s %d of %d, %.*f per second, %d min %d s left\033[K", qUtf8Printable(m_unit),
                 done, m_total, perSecond < 10.0 ? 1 : 0, perSecond, secondsLeft / 60, secondsLeft % 60);
    std::fflush(stderr);
    progressShown = true;
}

} // namespace Morvane::Qel::App
