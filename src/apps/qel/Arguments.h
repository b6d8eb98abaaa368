#pragma once

#include <QCommandLineParser>
#include <QString>
#include <QStringList>

#include <vector>

namespace Morvane::Qel::App {

/// The arguments of one command: declared, parsed and explained by --help. Every command has --help and
/// --verbose.
class Arguments
{
public:
    Arguments(QString command, QString summary);

    /// Declares the next positional argument; optional ones come last.
    void addPositional(const QString& name, const QString& meaning, bool optional = false);
    /// Declares an option "--name" or, with a value name, "--name VALUE".
    void addOption(const QString& name, const QString& valueName, const QString& meaning);

    /// Throws Failure on wrong use. Returns false after printing the help that was asked for; the command is
    /// done then.
    bool parse(const QStringList& arguments);

    /// Empty for an optional one that is absent.
    QString positional(int index) const { return m_parser.positionalArguments().value(index); }
    bool isSet(const QString& name) const { return m_parser.isSet(name); }
    QString value(const QString& name) const { return m_parser.value(name); }
    /// Of an option that may be given several times.
    QStringList values(const QString& name) const { return m_parser.values(name); }

    /// Throws Failure for wrong use of this command: the line, and where to read more.
    [[noreturn]] void fail(const QString& line) const;

private:
    struct Entry
    {
        QString syntax;
        QString meaning;
    };
    QString help() const;

    QString m_command;
    QString m_summary;
    QCommandLineParser m_parser;
    std::vector<Entry> m_positionals;
    std::vector<Entry> m_options;
    int m_numRequired = 0;
};

} // namespace Morvane::Qel::App
