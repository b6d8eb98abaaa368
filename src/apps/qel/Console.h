#pragma once

#include <QString>

#include <chrono>

/// Output of the program: results to standard output, everything else to standard error.
namespace Morvane::Qel::App {

/// What goes to standard error.
enum class Verbosity
{
    /// Errors only.
    Quiet,
    Normal,
    /// Also debug messages and source locations.
    Verbose
};

/// Prints Qt's messages to standard error, prefixed with the program's name, as far as the verbosity goes.
///
/// GL errors and shader build reports are kept: takeReport returns the first of them as the one line for a
/// failed frame. They are printed at once only with Verbosity::Verbose.
void installMessageHandler(Verbosity verbosity);
/// Returns the first kept error as one line, empty if there is none, and forgets all of them.
QString takeReport();

/// Writes text to standard output unchanged.
void print(const QString& text);
/// Writes a notice to standard error, prefixed with "qel: ", unless the program is quiet.
void printNote(const QString& line);
/// Writes an error to standard error, prefixed with "qel: ".
void printError(const QString& line);
/// Flushes standard output. Returns why some of the output was lost, or nothing if all was written.
QString flushOutput();

/// Discards standard error for its lifetime, because image libraries print there what they also return as an
/// error.
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

/// A progress line such as "frame 12 of 500, 3.1 per second, 2 min 37 s left", shown on a terminal after one
/// second and erased at the end; never if the program is quiet.
class Progress
{
public:
    Progress(QString unit, int total);
    ~Progress();
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    /// Updates the line to this number of finished units.
    void update(int done);

private:
    using Clock = std::chrono::steady_clock;
    QString m_unit;
    int m_total;
    bool m_onTerminal;
    Clock::time_point m_begin;
    Clock::time_point m_nextUpdate;
};

} // namespace Morvane::Qel::App
