#include "Arguments.h"

#include <QCommandLineParser>

#include <Qel/graph/support/Names.h>

#include "Console.h"
#include "Help.h"

using namespace Qt::StringLiterals;

namespace Morvane::Qel::App {

QString PositionalSyntax::syntax() const
{
    return isOptional ? u"[%1]"_s.arg(name) : name;
}

QString OptionSyntax::syntax() const
{
    return u"--%1 %2"_s.arg(name, valueName).trimmed();
}

QStringList OptionSyntax::choices() const
{
    return kind == ValueKind::Choice ? valueName.split(u'|') : QStringList();
}

Arguments::Arguments(QString command, QString summary)
    : m_command(std::move(command))
    , m_summary(std::move(summary))
{
}

void Arguments::addPositional(const QString& name, const QString& meaning, bool optional, ValueKind kind)
{
    m_positionals.push_back({name, meaning, kind, optional});
}

void Arguments::addOption(const QString& name, const QString& valueName, const QString& meaning,
                          ValueKind kind)
{
    m_options.push_back({name, valueName, meaning, valueName.contains(u'|') ? ValueKind::Choice : kind});
}

void Arguments::addCommonOptions()
{
    addOption(u"help"_s, {}, u"prints this help"_s);
    addOption(u"quiet"_s, {}, u"prints no notices, no warnings and no progress on standard error"_s);
    addOption(u"verbose"_s, {}, u"also prints debug messages, source locations and shader sources"_s);
}

void Arguments::addExample(const QString& commandLine, const QString& meaning)
{
    m_examples.push_back({commandLine, meaning});
}

bool Arguments::parse(const QStringList& arguments)
{
    QCommandLineParser parser;
    parser.setSingleDashWordOptionMode(QCommandLineParser::ParseAsLongOptions);
    QStringList names;
    for (const OptionSyntax& option : m_options) {
        parser.addOption(QCommandLineOption(option.name, option.meaning, option.valueName));
        names << u"--"_s + option.name;
    }
    const bool understood = parser.parse(QStringList(m_command) + arguments);
    if (parser.isSet(u"help"_s)) {
        print(helpText(*this));
        return false;
    }
    if (const QStringList unknown = parser.unknownOptionNames(); !unknown.isEmpty()) {
        const QString name = u"--"_s + unknown[0];
        fail(u"unknown option \"%1\"%2"_s.arg(name, suggestion(name, names)));
    }
    if (!understood) {
        QString cause = parser.errorText();
        cause[0] = cause[0].toLower();
        if (cause.endsWith(u'.')) {
            cause.chop(1);
        }
        fail(cause);
    }
    for (const OptionSyntax& option : m_options) {
        if (parser.isSet(option.name)) {
            m_given[option.name] = parser.values(option.name);
        }
    }
    m_givenPositionals = parser.positionalArguments();
    checkChoices();
    for (size_t i = static_cast<size_t>(m_givenPositionals.size()); i < m_positionals.size(); ++i) {
        if (!m_positionals[i].isOptional) {
            fail(u"%1 is missing"_s.arg(m_positionals[i].name));
        }
    }
    if (const auto most = static_cast<qsizetype>(m_positionals.size()); m_givenPositionals.size() > most) {
        fail(u"unexpected argument \"%1\""_s.arg(m_givenPositionals[most]));
    }
    if (isSet(u"quiet"_s) && isSet(u"verbose"_s)) {
        fail(u"--quiet and --verbose cannot be combined"_s);
    }
    installMessageHandler(isSet(u"quiet"_s)     ? Verbosity::Quiet
                          : isSet(u"verbose"_s) ? Verbosity::Verbose
                                                : Verbosity::Normal);
    return true;
}

void Arguments::checkChoices() const
{
    for (const OptionSyntax& option : m_options) {
        for (const QString& value : values(option.name)) {
            if (option.kind == ValueKind::Choice && !option.choices().contains(value)) {
                fail(u"unknown --%1 \"%2\"%3"_s.arg(option.name, value, suggestion(value, option.choices())));
            }
        }
    }
}

void Arguments::fail(const QString& line) const
{
    throw Failure{ExitCode::WrongUse,
                  {u"%1: %2"_s.arg(m_command, withPointer(line, u"qel %1 --help"_s.arg(m_command)))}};
}

} // namespace Morvane::Qel::App
