#include "Help.h"

#include <algorithm>
#include <vector>

#include "Commands.h"

using namespace Qt::StringLiterals;

namespace Morvane::Qel::App {

namespace {

constexpr qsizetype pageWidth = 80;

/// Breaks a text into lines, each but the first with an indent.
QString wrapped(const QString& text, qsizetype indent)
{
    QString result;
    qsizetype column = indent;
    for (const QString& word : text.split(u' ')) {
        if (column > indent && column + 1 + word.size() > pageWidth) {
            result += u'\n' + QString(indent, u' ');
            column = indent;
        } else if (column > indent) {
            result += u' ';
            ++column;
        }
        result += word;
        column += word.size();
    }
    return result;
}

struct Entry
{
    QString term;
    QString meaning;
};

/// Two columns; a term that is too long for its column has a line of its own.
QString list(const std::vector<Entry>& entries)
{
    constexpr qsizetype widest = 26;
    qsizetype width = 0;
    for (const Entry& entry : entries) {
        width = std::max(width, std::min(entry.term.size(), widest));
    }
    const qsizetype indent = width + 4;
    QString text;
    for (const Entry& entry : entries) {
        text += u"  "_s + entry.term.leftJustified(width);
        text += entry.term.size() > width ? u'\n' + QString(indent, u' ') : u"  "_s;
        text += wrapped(entry.meaning, indent) + u'\n';
    }
    return text;
}

} // namespace

QString synopsis(const Arguments& arguments)
{
    QString text = u"qel %1 [OPTION]..."_s.arg(arguments.command());
    for (const PositionalSyntax& positional : arguments.positionals()) {
        text += u' ' + positional.syntax();
    }
    return text;
}

QString helpText(const Arguments& arguments)
{
    QString text = u"Usage: %1\n\n"_s.arg(synopsis(arguments));
    for (const QString& paragraph : arguments.description()) {
        text += wrapped(paragraph, 0) + u"\n\n"_s;
    }
    std::vector<Entry> entries;
    for (const PositionalSyntax& positional : arguments.positionals()) {
        entries.push_back({positional.syntax(), positional.meaning});
    }
    for (const OptionSyntax& option : arguments.options()) {
        entries.push_back({option.syntax(), option.meaning});
    }
    text += list(entries);
    for (const Example& example : arguments.examples()) {
        text += u"\n%1:\n  %2\n"_s.arg(example.meaning, example.commandLine);
    }
    return text;
}

QString helpText()
{
    std::vector<Entry> entries;
    for (const Command& command : commands()) {
        entries.push_back({QLatin1StringView(command.name), QLatin1StringView(command.summary)});
    }
    QString text = u"Usage: qel COMMAND [OPTION]... [ARGUMENT]...\n\n"_s + wrapped(programDescription(), 0) +
                   u"\n\n"_s + list(entries) +
                   u"\nqel COMMAND --help prints the arguments of a command.\n\n"_s;
    entries.clear();
    for (const OptionSyntax& option : programOptions()) {
        entries.push_back({option.syntax(), option.meaning});
    }
    text += list(entries) + u"\nExit codes:\n"_s;
    entries.clear();
    for (const ExitCode code : allExitCodes()) {
        entries.push_back({QString::number(static_cast<int>(code)), meaningOf(code)});
    }
    return text + list(entries) + u'\n' + wrapped(signalText(), 0) + u'\n';
}

QString programDescription()
{
    return u"Renders images with graphs of OpenGL passes. Needs no display."_s;
}

QString meaningOf(ExitCode code)
{
    switch (code) {
    case ExitCode::Done:
        return u"success"_s;
    case ExitCode::CheckFailed:
        return u"the images differ, or a check found mistakes"_s;
    case ExitCode::WrongUse:
        return u"wrong arguments, or a graph or a file that cannot be used"_s;
    case ExitCode::NoGL:
        return u"no usable OpenGL"_s;
    }
    return {};
}

QString signalText()
{
    return u"SIGHUP, SIGINT, SIGTERM and SIGXFSZ remove unfinished files and then end the program as they do "
           "by default; a shell reports 128 plus the number of the signal."_s;
}

const std::vector<OptionSyntax>& programOptions()
{
    static const std::vector<OptionSyntax> options{
        {u"help"_s, {}, u"prints this help"_s},
        {u"version"_s, {}, u"prints the version"_s},
        {u"share"_s, u"DIR"_s,
         u"writes the manual pages and the completions for bash, zsh and fish, in the folders that they "
         "have below /usr/share"_s,
         ValueKind::Folder},
    };
    return options;
}

std::set<ExitCode> allExitCodes()
{
    std::set<ExitCode> codes;
    for (const Command& command : commands()) {
        const Arguments table = command.arguments();
        codes.insert(table.exitCodes().begin(), table.exitCodes().end());
    }
    return codes;
}

} // namespace Morvane::Qel::App
