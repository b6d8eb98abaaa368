#include "Arguments.h"

#include <algorithm>

#include "Console.h"
#include "Failure.h"

using namespace Qt::StringLiterals;

namespace Morvane::Qel::App {

Arguments::Arguments(QString command, QString summary)
    : m_command(std::move(command))
    , m_summary(std::move(summary))
{
    m_parser.setSingleDashWordOptionMode(QCommandLineParser::ParseAsLongOptions);
    addOption(u"help"_s, {}, u"prints this help"_s);
    addOption(u"verbose"_s, {}, u"also prints debug messages, source locations and shader sources"_s);
}

void Arguments::addPositional(const QString& name, const QString& meaning, bool optional)
{
    m_positionals.push_back({optional ? u"[%1]"_s.arg(name) : name, meaning});
    m_numRequired += optional ? 0 : 1;
}

void Arguments::addOption(const QString& name, const QString& valueName, const QString& meaning)
{
    m_parser.addOption(QCommandLineOption(name, meaning, valueName));
    m_options.push_back({u"--%1 %2"_s.arg(name, valueName).trimmed(), meaning});
}

bool Arguments::parse(const QStringList& arguments)
{
    const bool understood = m_parser.parse(QStringList(m_command) + arguments);
    if (m_parser.isSet(u"help"_s)) {
        print(help());
        return false;
    }
    if (!understood) {
        QString cause = m_parser.errorText();
        cause[0] = cause[0].toLower();
        if (cause.endsWith(u'.')) {
            cause.chop(1);
        }
        fail(cause);
    }
    const QStringList given = m_parser.positionalArguments();
    if (given.size() < m_numRequired) {
        fail(u"%1 is missing"_s.arg(m_positionals[static_cast<size_t>(given.size())].syntax));
    }
    if (static_cast<size_t>(given.size()) > m_positionals.size()) {
        fail(u"unexpected argument \"%1\""_s.arg(given[static_cast<qsizetype>(m_positionals.size())]));
    }
    installMessageHandler(isSet(u"verbose"_s));
    return true;
}

void Arguments::fail(const QString& line) const
{
    throw Failure{ExitCode::WrongUse, {u"%1: %2; see \"qel %1 --help\""_s.arg(m_command, line)}};
}

QString Arguments::help() const
{
    QString usage = u"Usage: qel %1 [OPTION]..."_s.arg(m_command);
    qsizetype width = 0;
    for (const Entry& positional : m_positionals) {
        usage += u' ' + positional.syntax;
        width = std::max(width, positional.syntax.size());
    }
    for (const Entry& option : m_options) {
        width = std::max(width, option.syntax.size());
    }
    QString text = u"%1\n\n%2\n\n"_s.arg(usage, m_summary);
    for (const std::vector<Entry>* entries : {&m_positionals, &m_options}) {
        for (const Entry& entry : *entries) {
            text += u"  %1  %2\n"_s.arg(entry.syntax, -static_cast<int>(width)).arg(entry.meaning);
        }
    }
    return text;
}

} // namespace Morvane::Qel::App
