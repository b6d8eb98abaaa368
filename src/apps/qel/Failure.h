#pragma once

#include <QStringList>

namespace Morvane::Qel::App {

enum class ExitCode : int
{
    Done = 0,
    /// Images differ, or a check found mistakes.
    CheckFailed = 1,
    /// Invalid arguments, an invalid graph, or a file that cannot be read or written.
    WrongUse = 2,
    NoGL = 3,
};

/// An exception that ends the program, after each line is printed to standard error.
struct Failure
{
    ExitCode exitCode;
    QStringList lines;
};

/// Ends the program with one line about wrong use or a file.
[[noreturn]] inline void fail(const QString& line)
{
    throw Failure{ExitCode::WrongUse, {line}};
}

} // namespace Morvane::Qel::App
