#include "support/Program.h"

#include <QProcessEnvironment>

#include <gtest/gtest.h>

#include "support/Paths.h"

namespace Morvane::Qel::Test {

bool ProgramResult::isOneError(const QString& part) const
{
    return errors.startsWith(QLatin1StringView("qel: ")) && errors.count(u'\n') == 1 &&
           errors.endsWith(u'\n') && errors.contains(part);
}

ProgramResult runProgram(const QStringList& arguments, const QStringList& variables, const QString& input)
{
    QProcess process;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    for (const QString& variable : variables) {
        environment.insert(variable.section(u'=', 0, 0), variable.section(u'=', 1));
    }
    process.setProcessEnvironment(environment);
    process.start(programPath(), arguments);
    process.write(input.toUtf8());
    process.closeWriteChannel();
    EXPECT_TRUE(process.waitForFinished(120000)) << qPrintable(process.errorString());
    ProgramResult result;
    result.exitCode = process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
    result.output = QString::fromUtf8(process.readAllStandardOutput());
    result.errors = QString::fromUtf8(process.readAllStandardError());
    return result;
}

} // namespace Morvane::Qel::Test
