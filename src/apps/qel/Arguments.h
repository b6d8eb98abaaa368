#pragma once

#include <QHash>
#include <QString>
#include <QStringList>

#include <set>
#include <vector>

#include "Failure.h"

namespace Morvane::Qel::App {

/// What the value of an argument is, so that shells can complete it.
enum class ValueKind
{
    Text,
    /// Text that may be given several times, such as the values of --set.
    Repeated,
    File,
    Folder,
    GraphFile,
    /// A PNG or EXR file, or a folder of them.
    Image,
    PassType,
    /// One of the texts in the value's name, such as "auto|gpu|software".
    Choice
};

struct PositionalSyntax
{
    QString name;
    QString meaning;
    ValueKind kind;
    bool isOptional;

    /// "GRAPH", or "[NAME]" for an optional argument.
    QString syntax() const;
};

struct OptionSyntax
{
    QString name;
    /// Empty for an option without a value.
    QString valueName;
    QString meaning;
    ValueKind kind = ValueKind::Text;

    /// "--size WxH".
    QString syntax() const;
    /// The texts that the option accepts; empty if it is no choice.
    QStringList choices() const;
};

struct Example
{
    QString commandLine;
    QString meaning;
};

/// The command-line arguments of one command: a table from which they are parsed, and from which --help, the
/// manual pages and the completions of the shells are made.
class Arguments
{
public:
    Arguments(QString command, QString summary);

    /// Adds a paragraph to the description.
    void describe(const QString& paragraph) { m_description.append(paragraph); }
    /// Declares the next positional argument; optional ones come last.
    void addPositional(const QString& name, const QString& meaning, bool optional = false,
                       ValueKind kind = ValueKind::Text);
    /// Declares an option "--name" or, with a value name, "--name VALUE". A value name such as
    /// "auto|gpu|software" makes it a choice.
    void addOption(const QString& name, const QString& valueName, const QString& meaning,
                   ValueKind kind = ValueKind::Text);
    /// Declares the options that every command has: --help, --quiet and --verbose.
    void addCommonOptions();
    /// Declares an exit code besides those of success and of wrong use.
    void addExitCode(ExitCode code) { m_exitCodes.insert(code); }
    void addExample(const QString& commandLine, const QString& meaning);

    const QString& command() const { return m_command; }
    /// What the command does, such as "renders a graph and writes its image".
    const QString& summary() const { return m_summary; }
    const QStringList& description() const { return m_description; }
    const std::vector<PositionalSyntax>& positionals() const { return m_positionals; }
    const std::vector<OptionSyntax>& options() const { return m_options; }
    const std::set<ExitCode>& exitCodes() const { return m_exitCodes; }
    const std::vector<Example>& examples() const { return m_examples; }

    /// Parses what follows the command's name. Throws Failure on wrong use. Returns false if it printed the
    /// help, which ends the command.
    bool parse(const QStringList& arguments);

    /// Returns a positional argument; empty if it is optional and absent.
    QString positional(int index) const { return m_givenPositionals.value(index); }
    bool isSet(const QString& name) const { return m_given.contains(name); }
    QString value(const QString& name) const { return values(name).value(values(name).size() - 1); }
    /// Returns all values of an option that may be repeated.
    QStringList values(const QString& name) const { return m_given.value(name); }

    /// Throws Failure for wrong use of this command: one line that also names its --help.
    [[noreturn]] void fail(const QString& line) const;

private:
    void checkChoices() const;

    QString m_command;
    QString m_summary;
    QStringList m_description;
    std::vector<PositionalSyntax> m_positionals;
    std::vector<OptionSyntax> m_options;
    std::set<ExitCode> m_exitCodes{ExitCode::Done, ExitCode::WrongUse};
    std::vector<Example> m_examples;
    QStringList m_givenPositionals;
    /// Values by option; an option without a value has an empty list.
    QHash<QString, QStringList> m_given;
};

} // namespace Morvane::Qel::App
