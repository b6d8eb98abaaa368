#include <QCoreApplication>
#include <QImageReader>
#include <QLoggingCategory>

#include <algorithm>
#include <array>
#include <new>

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
    Command{"render", "renders a graph and writes its picture", render},
    Command{"passes", "lists the passes that graphs are made of, with their ports", passes},
    Command{"graph", "checks a graph, prints its passes in running order or draws it", graph},
    Command{"compare", "compares two pictures", compare},
    Command{"info", "tells what the GL driver offers", info},
};

QString help()
{
    QString text = u"Usage: qel COMMAND [OPTION]... [ARGUMENT]...\n\n"
                   "Renders pictures with graphs of OpenGL passes, without a display.\n\n"_s;
    for (const Command& command : commands) {
        text +=
            u"  %1  %2\n"_s.arg(QLatin1StringView(command.name), -8).arg(QLatin1StringView(command.summary));
    }
    return text + u"\nqel COMMAND --help tells more; qel --version prints the version.\n"
                  "Ends with 0 when all is done, 1 when a comparison failed, 2 for wrong use or a\n"
                  "wrong graph, 3 when there is no usable GL.\n"_s;
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
    installMessageHandler(false);
    // Remarks about pictures, without the name of the file.
    QLoggingCategory::setFilterRules(u"qt.gui.imageio.*=false"_s);
    // Pictures may be as large as the driver's largest texture.
    QImageReader::setAllocationLimit(0);
    try {
        const ExitCode exitCode = run(QCoreApplication::arguments().sliced(1));
        if (!flushOutput()) {
            throw Failure{ExitCode::WrongUse, {u"standard output cannot be written to"_s}};
        }
        return static_cast<int>(exitCode);
    } catch (const Failure& failure) {
        flushOutput();
        for (const QString& line : failure.lines) {
            printNote(line);
        }
        return static_cast<int>(failure.exitCode);
    } catch (const std::bad_alloc&) {
        printNote(u"not enough memory; ask for a smaller size"_s);
        return static_cast<int>(ExitCode::WrongUse);
    }
}
