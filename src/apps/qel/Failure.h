#pragma once

#include <QStringList>

namespace Morvane::Qel::App {

enum class ExitCode : int
{
    Done = 0,
    ComparisonFailed = 1,
    /// Wrong arguments, a wrong graph, or a file that cannot be read or written.
    WrongUse = 2,
    NoGL = 3,
};

/// Thrown to end the program: each line goes to standard error.
struct Failure
{
    ExitCode exitCode;
    QStringList lines;
};

} // namespace Morvane::Qel::App
