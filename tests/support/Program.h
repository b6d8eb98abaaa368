#pragma once

#include <QProcess>
#include <QStringList>

namespace Morvane::Qel::Test {

/// What a run of the program `qel` came to. A crash gives exit code -1.
struct ProgramResult
{
    int exitCode = -1;
    QString output;
    QString errors;

    /// Whether standard error holds just one line, "qel: " and a text with this part.
    bool isOneError(const QString& part) const;
};

/// Runs the program that was just built and waits for its end. `variables` ("NAME=value") are added to the
/// environment; `input` is what the program reads from standard input.
ProgramResult runProgram(const QStringList& arguments, const QStringList& variables = {},
                         const QString& input = {});

} // namespace Morvane::Qel::Test
