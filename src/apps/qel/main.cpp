#include <QCoreApplication>
#include <QImageReader>
#include <QLoggingCategory>

#include <csignal>
#include <new>

#include <Qel/graph/OutputFile.h>
#include <Qel/graph/support/Names.h>

#include "Commands.h"
#include "Console.h"
#include "Help.h"
#include "Share.h"

using namespace Qt::StringLiterals;

namespace Morvane::Qel::App {

namespace {

void endBySignal(int number)
{
    OutputFile::removeUnfinished();
    std::signal(number, SIG_DFL);
    std::raise(number);
}

void installSignalHandlers()
{
    for (const int number : {SIGHUP, SIGINT, SIGTERM, SIGXFSZ}) {
        // What the caller ignores stays ignored, such as SIGINT in the background.
        if (std::signal(number, endBySignal) == SIG_IGN) {
            std::signal(number, SIG_IGN);
        }
    }
}

ExitCode run(const QStringList& arguments)
{
    const QString name = arguments.value(0);
    if (name == QLatin1StringView("--help")) {
        print(helpText());
        return ExitCode::Done;
    }
    if (name == QLatin1StringView("--version")) {
        print(u"qel " QEL_VERSION "\n"_s);
        return ExitCode::Done;
    }
    if (name == QLatin1StringView("--share")) {
        if (arguments.size() != 2) {
            fail(u"--share needs the folder to write to; see \"qel --help\""_s);
        }
        writeShare(arguments[1]);
        return ExitCode::Done;
    }
    QStringList names;
    for (const Command& command : commands()) {
        names << QString::fromLatin1(command.name);
        if (name == names.last()) {
            Arguments table = command.arguments();
            return table.parse(arguments.sliced(1)) ? command.run(table) : ExitCode::Done;
        }
    }
    const QString cause = name.isEmpty() ? u"no command given"_s
                                         : u"unknown command \"%1\"%2"_s.arg(name, suggestion(name, names));
    throw Failure{ExitCode::WrongUse, {withPointer(cause, u"qel --help"_s)}};
}

} // namespace

} // namespace Morvane::Qel::App

int main(int argc, char* argv[])
{
    using namespace Morvane::Qel::App;
    const QCoreApplication application(argc, argv);
    installSignalHandlers();
    installMessageHandler(Verbosity::Normal);
    // These messages about image files do not name the file.
    QLoggingCategory::setFilterRules(u"qt.gui.imageio.*=false"_s);
    // Images may be as large as the driver's largest texture.
    QImageReader::setAllocationLimit(0);
    try {
        const ExitCode exitCode = run(QCoreApplication::arguments().sliced(1));
        if (const QString error = flushOutput(); !error.isEmpty()) {
            throw Failure{ExitCode::WrongUse, {u"cannot write to standard output: "_s + error}};
        }
        return static_cast<int>(exitCode);
    } catch (const Failure& failure) {
        flushOutput();
        for (const QString& line : failure.lines) {
            printError(line);
        }
        return static_cast<int>(failure.exitCode);
    } catch (const std::bad_alloc&) {
        printError(u"not enough memory; choose a smaller size"_s);
        return static_cast<int>(ExitCode::WrongUse);
    }
}
