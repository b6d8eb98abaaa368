#include <QCoreApplication>
#include <QImageReader>
#include <QLoggingCategory>

#include <algorithm>
#include <array>
#include <csignal>
#include <new>

#include <Qel/graph/OutputFile.h>

#include "Commands.h"
#include "Console.h"

using namespace Qt::StringLiterals;

namespace Morvane::Qel::App {

namespace {

struct Command
{
    const char* name;
    const char* summary;
    ExitCode (*run)(const QStringList& arguments);
};

constexpr std::array commands = {
    Command{"render", "renders a graph and writes its image", render},
    Command{"passes", "lists the passes with their ports", passes},
    Command{"graph", "checks a graph and prints its passes in execution order, or draws it", graph},
    Command{"compare", "compares two images, or the images of two folders", compare},
    Command{"info", "prints the GL driver, its limits and extensions", info},
};

QString help()
{
    QString text = u"Usage: qel COMMAND [OPTION]... [ARGUMENT]...\n\n"
                   "Renders images with graphs of OpenGL passes. Needs no display.\n\n"_s;
    for (const Command& command : commands) {
        text +=
            u"  %1  %2\n"_s.arg(QLatin1StringView(command.name), -8).arg(QLatin1StringView(command.summary));
    }
    return text + u"\nqel COMMAND --help prints the options; qel --version prints the version.\n"
                  "Exit codes: 0 success, 1 images differ or a check found something, 2 invalid\n"
                  "arguments, graph or file, 3 no usable OpenGL. SIGHUP, SIGINT, SIGTERM and SIGXFSZ remove "
                  "unfinished files and then\n"
                  "end the program as they do by default; a shell reports 128 plus the number of the\n"
                  "signal.\n"_s;
}

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
        print(help());
        return ExitCode::Done;
    }
    if (name == QLatin1StringView("--version")) {
        print(u"qel " QEL_VERSION "\n"_s);
        return ExitCode::Done;
    }
    const auto* command = std::find_if(commands.begin(), commands.end(), [&](const Command& candidate) {
        return name == QLatin1StringView(candidate.name);
    });
    if (command == commands.end()) {
        throw Failure{ExitCode::WrongUse,
                      {name.isEmpty() ? u"no command given; see \"qel --help\""_s
                                      : u"unknown command \"%1\"; see \"qel --help\""_s.arg(name)}};
    }
    return command->run(arguments.sliced(1));
}

} // namespace

} // namespace Morvane::Qel::App

int main(int argc, char* argv[])
{
    using namespace Morvane::Qel::App;
    const QCoreApplication application(argc, argv);
    installSignalHandlers();
    installMessageHandler(false);
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
            printNote(line);
        }
        return static_cast<int>(failure.exitCode);
    } catch (const std::bad_alloc&) {
        printNote(u"not enough memory; choose a smaller size"_s);
        return static_cast<int>(ExitCode::WrongUse);
    }
}
