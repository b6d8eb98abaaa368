#pragma once

#include <QCommandLineParser>
#include <QString>
#include <QStringList>

#include <vector>

namespace Morvane::Qel::App {

/// The command-line arguments of one command: declares and parses them, and prints them for --help. Every
/// command has --help and --verbose.
class Arguments
{
public:
    Arguments(QString command, QString summary);

    /// Declares the next positional argument; optional ones come last.
    void addPositional(const QString& name, const QString& meaning, bool optional = false);
    /// Declares an option "--name" or, with a value name, "--name VALUE".
    void addOption(const QString& name, const QString& valueName, const QString& meaning);

    /// Parses what follows the command's name. Throws Failure on wrong use. Returns false if it printed the
    /// help, which ends the command.
    bool parse(const QStringList& arguments);

    /// Returns a positional argument; empty if it is optional and absent.
    QString positional(int index) const { return m_parser.positionalArguments().value(index); }
    bool isSet(const QString& name) const { return m_parser.isSet(name); }
    QString value(const QString& name) const { return m_parser.value(name); }
    /// Returns all values of an option that may be repeated.
    QStringList values(const QString& name) const { return m_parser.values(name); }

    /// Throws Failure for wrong use of this command: one line that also names its --help.
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
