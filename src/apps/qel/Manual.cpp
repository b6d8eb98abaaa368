#include "Manual.h"

#include <QDate>
#include <QDateTime>

#include "Commands.h"
#include "Help.h"

using namespace Qt::StringLiterals;

namespace Morvane::Qel::App {

namespace {

/// Escapes what roff would interpret, and hyphens, which it would print as typographic ones.
QString roff(QString text)
{
    text.replace(u'\\', u"\\e"_s).replace(u'-', u"\\-"_s).replace(u'\'', u"\\(aq"_s);
    text.replace(u'^', u"\\(ha"_s).replace(u'~', u"\\(ti"_s).replace(u'`', u"\\(ga"_s);
    return text.startsWith(u'.') ? u"\\&"_s + text : text;
}

QString bold(const QString& text)
{
    return u"\\fB"_s + roff(text) + u"\\fR"_s;
}

QString italic(const QString& text)
{
    return u"\\fI"_s + roff(text) + u"\\fR"_s;
}

/// The day of the build, or of SOURCE_DATE_EPOCH for reproducible ones.
QString date()
{
    bool isSet = false;
    const qint64 seconds = qEnvironmentVariable("SOURCE_DATE_EPOCH").toLongLong(&isSet);
    return (isSet ? QDateTime::fromSecsSinceEpoch(seconds, Qt::UTC).date() : QDate::currentDate())
        .toString(Qt::ISODate);
}

QString header(const QString& name, const QString& summary)
{
    return u".TH %1 1 \"%2\" \"qel %3\" \"User Commands\"\n.nh\n.SH NAME\n%4 \\- %5\n"_s.arg(
        roff(name.toUpper()), date(), QStringLiteral(QEL_VERSION), roff(name), roff(summary));
}

QString section(const QString& title)
{
    return u".SH %1\n"_s.arg(title);
}

/// An entry of a list; `term` is roff.
QString entry(const QString& term, const QString& meaning)
{
    return u".TP\n%1\n%2%3.\n"_s.arg(term, meaning.first(1).toUpper(), roff(meaning.sliced(1)));
}

QString optionEntry(const OptionSyntax& option)
{
    const QString name = bold(u"--"_s + option.name);
    return entry(option.valueName.isEmpty() ? name : name + u' ' + italic(option.valueName), option.meaning);
}

QString exitStatus(const std::set<ExitCode>& codes)
{
    QString text = section(u"EXIT STATUS"_s);
    for (const ExitCode code : codes) {
        text += entry(bold(QString::number(static_cast<int>(code))), meaningOf(code));
    }
    return text + u".PP\n%1\n"_s.arg(roff(signalText()));
}

QString seeAlso(const QStringList& pages)
{
    QStringList references;
    for (const QString& page : pages) {
        references << u".BR %1 (1)"_s.arg(roff(page));
    }
    return section(u"SEE ALSO"_s) + references.join(u" ,\n"_s) + u'\n';
}

} // namespace

QString manualPage(const Arguments& arguments)
{
    QString text = header(u"qel-"_s + arguments.command(), arguments.summary()) + section(u"SYNOPSIS"_s) +
                   bold(u"qel "_s + arguments.command()) + u" ["_s + italic(u"OPTION"_s) + u"]..."_s;
    for (const PositionalSyntax& positional : arguments.positionals()) {
        const QString name = italic(positional.name);
        text += u' ' + (positional.isOptional ? u'[' + name + u']' : name);
    }
    text += u'\n' + section(u"DESCRIPTION"_s);
    QStringList paragraphs;
    for (const QString& paragraph : arguments.description()) {
        paragraphs << roff(paragraph) + u'\n';
    }
    text += paragraphs.join(u".PP\n"_s);
    for (const PositionalSyntax& positional : arguments.positionals()) {
        text += entry(italic(positional.name), positional.meaning);
    }
    text += section(u"OPTIONS"_s);
    for (const OptionSyntax& option : arguments.options()) {
        text += optionEntry(option);
    }
    text += exitStatus(arguments.exitCodes());
    if (!arguments.examples().empty()) {
        QStringList examples;
        for (const Example& example : arguments.examples()) {
            examples << u"%1:\n.PP\n.RS\n.nf\n%2\n.fi\n.RE\n"_s.arg(roff(example.meaning),
                                                                    bold(example.commandLine));
        }
        text += section(u"EXAMPLES"_s) + examples.join(u".PP\n"_s);
    }
    return text + seeAlso({u"qel"_s});
}

QString manualPage()
{
    QString text = header(u"qel"_s, u"renders images with graphs of OpenGL passes"_s) +
                   section(u"SYNOPSIS"_s) + bold(u"qel"_s) + u' ' + italic(u"COMMAND"_s) + u" ["_s +
                   italic(u"OPTION"_s) + u"]... ["_s + italic(u"ARGUMENT"_s) + u"]...\n"_s +
                   section(u"DESCRIPTION"_s) + roff(programDescription()) + u'\n' + section(u"COMMANDS"_s);
    QStringList pages;
    for (const Command& command : commands()) {
        const QString name = QString::fromLatin1(command.name);
        text += entry(bold(name), QString::fromLatin1(command.summary));
        pages << u"qel-"_s + name;
    }
    text += section(u"OPTIONS"_s);
    for (const OptionSyntax& option : programOptions()) {
        text += optionEntry(option);
    }
    return text + exitStatus(allExitCodes()) + seeAlso(pages);
}

} // namespace Morvane::Qel::App
