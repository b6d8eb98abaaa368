#pragma once

#include <QString>

#include <chrono>

/// What the program says: results on standard output, everything else on standard error.
namespace Morvane::Qel::App {

/// Sends Qt's messages to standard error, with the program's name in front. Without `verbose` the debug
/// channel is silent, and messages lose the source location with which passes start them.
///
/// Errors of GL and reports on shader programs that do not build are kept for takeReport, and shown at once
/// only with `verbose`: for a frame without a picture they are the cause that its one line names.
void installMessageHandler(bool verbose);
/// The first of the kept errors in one line; empty when there is none. Forgets all of them.
QString takeReport();

/// Writes text to standard output as it is.
void print(const QString& text);
/// Writes "qel: " and a line to standard error.
void printNote(const QString& line);
/// Whether everything that was printed has reached standard output.
bool flushOutput();

/// While one lives, nothing reaches standard error: image libraries write there what they then also return as
/// an error.
class QuietErrors
{
public:
    QuietErrors();
    ~QuietErrors();
    QuietErrors(const QuietErrors&) = delete;
    QuietErrors& operator=(const QuietErrors&) = delete;

private:
    int m_errors;
};

/// A line such as "frame 12 of 500" that shows up on a terminal when work takes longer than a second, and is
/// erased at the end.
class Progress
{
public:
    Progress(QString unit, int total);
    ~Progress();
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    /// Says how many units are done.
    void update(int done);

private:
    using Clock = std::chrono::steady_clock;
    QString m_unit;
    int m_total;
    bool m_onTerminal;
    Clock::time_point m_nextUpdate;
};

} // namespace Morvane::Qel::App
