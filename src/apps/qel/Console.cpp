#include "Console.h"

#include <QRegularExpression>

#include <cstdio>

#include <unistd.h>

namespace Morvane::Qel::App {

namespace {

bool verboseMessages = false;
bool progressShown = false;

void eraseProgress()
{
    if (progressShown) {
        std::fputs("\r\033[K", stderr);
        progressShown = false;
    }
}

void handleMessage(QtMsgType type, const QMessageLogContext& /*context*/, const QString& text)
{
    if (verboseMessages) {
        printNote(text);
    } else if (type != QtDebugMsg) {
        static const QRegularExpression location(QStringLiteral("^\\[[^\\]\\n]+:\\d+\\] "));
        printNote(QString(text).remove(location));
    }
}

} // namespace

void installMessageHandler(bool verbose)
{
    verboseMessages = verbose;
    qInstallMessageHandler(handleMessage);
}

void print(const QString& text)
{
    std::fputs(qUtf8Printable(text), stdout);
}

void printNote(const QString& line)
{
    eraseProgress();
    std::fprintf(stderr, "qel: %s\n", qUtf8Printable(line));
}

bool flushOutput()
{
    return std::fflush(stdout) == 0 && std::ferror(stdout) == 0;
}

Progress::Progress(QString unit, int total)
    : m_unit(std::move(unit))
    , m_total(total)
    , m_onTerminal(isatty(STDERR_FILENO) == 1)
    , m_nextUpdate(Clock::now() + std::chrono::seconds(1))
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
    std::fprintf(stderr, "\r%s %d of %d\033[K", qUtf8Printable(m_unit), done, m_total);
    std::fflush(stderr);
    progressShown = true;
}

} // namespace Morvane::Qel::App
