#include "Completion.h"

#include <Qel/graph/PassRegistry.h>

#include "Commands.h"
#include "Help.h"

using namespace Qt::StringLiterals;

namespace Morvane::Qel::App {

namespace {

/// What a value can be.
struct Values
{
    ValueKind kind;
    /// The texts to choose from; empty for a value that is no choice.
    QStringList choices;
    /// The endings of the files, without dots; empty for files of any name.
    QStringList suffixes;

    bool isText() const { return kind == ValueKind::Text || kind == ValueKind::Repeated; }
};

Values valuesOf(ValueKind kind, const QStringList& choices = {})
{
    switch (kind) {
    case ValueKind::PassType:
        return {kind, PassRegistry::builtin().types(), {}};
    case ValueKind::GraphFile:
        return {kind, {}, {u"json"_s}};
    case ValueKind::Image:
        return {kind, {}, {u"png"_s, u"exr"_s}};
    default:
        return {kind, choices, {}};
    }
}

Values valuesOf(const OptionSyntax& option)
{
    return valuesOf(option.kind, option.choices());
}

/// What follows the command: all positional arguments of a command are completed like its first.
Values positionalValues(const Arguments& arguments)
{
    return valuesOf(arguments.positionals().empty() ? ValueKind::Text : arguments.positionals().front().kind);
}

/// Quotes a text for all three shells.
QString quotedForShell(QString text)
{
    return u'\'' + text.replace(u'\'', u"'\\''"_s) + u'\'';
}

QStringList commandNames()
{
    QStringList names;
    for (const Command& command : commands()) {
        names << QString::fromLatin1(command.name);
    }
    return names;
}

QStringList optionNames(const std::vector<OptionSyntax>& options)
{
    QStringList names;
    for (const OptionSyntax& option : options) {
        names << u"--"_s + option.name;
    }
    return names;
}

/// The call that completes a value in bash; ":" completes nothing.
QString bashAction(const Values& values)
{
    if (values.isText()) {
        return u":"_s;
    }
    if (values.kind == ValueKind::Folder) {
        return u"_qel_folders \"$word\""_s;
    }
    if (!values.choices.isEmpty()) {
        return u"_qel_words \"$word\" %1"_s.arg(values.choices.join(u' '));
    }
    return u"_qel_files \"$word\" %1"_s.arg(values.suffixes.join(u' ')).trimmed();
}

QString bashOptionCases(const QString& command, const std::vector<OptionSyntax>& options)
{
    QString text;
    for (const OptionSyntax& option : options) {
        if (!option.valueName.isEmpty()) {
            text += u"    '%1 --%2')\n        %3\n        return\n        ;;\n"_s.arg(
                command, option.name, bashAction(valuesOf(option)));
        }
    }
    return text;
}

/// How zsh's _arguments completes a value.
QString zshAction(const Values& values)
{
    if (values.isText()) {
        return u" "_s;
    }
    if (values.kind == ValueKind::Folder) {
        return u"_files -/"_s;
    }
    if (!values.choices.isEmpty()) {
        return u"(%1)"_s.arg(values.choices.join(u' '));
    }
    // With the qualifiers of plain files after them, the first parentheses are a choice for certain.
    return values.suffixes.isEmpty() ? u"_files"_s
                                     : u"_files -g \"*.(%1)(-.)\""_s.arg(values.suffixes.join(u'|'));
}

QString zshText(QString text)
{
    for (const QChar special : {u'\\', u'[', u']', u':'}) {
        text.replace(special, QString(u'\\') + special);
    }
    return text;
}

QString zshOption(const OptionSyntax& option)
{
    const QString repeated = option.kind == ValueKind::Repeated ? u"*"_s : QString();
    const QString value = option.valueName.isEmpty()
                              ? QString()
                              : u":%1:%2"_s.arg(zshText(option.valueName), zshAction(valuesOf(option)));
    return quotedForShell(u"%1--%2%3[%4]%5"_s.arg(repeated, option.name, value.isEmpty() ? u""_s : u"="_s,
                                                  zshText(option.meaning), value));
}

QString zshSpecifications(const Arguments& arguments)
{
    QStringList lines;
    for (const OptionSyntax& option : arguments.options()) {
        lines << zshOption(option);
    }
    for (const PositionalSyntax& positional : arguments.positionals()) {
        lines << quotedForShell(u"%1%2:%3"_s.arg(positional.isOptional ? u"::"_s : u":"_s,
                                                 zshText(positional.name),
                                                 zshAction(valuesOf(positional.kind))));
    }
    return lines.join(u" \\\n            "_s);
}

/// The arguments of fish's `complete` for a value.
QString fishAction(const Values& values)
{
    if (values.isText()) {
        return u"-x"_s;
    }
    if (values.kind == ValueKind::Folder) {
        return u"-x -a '(__fish_complete_directories)'"_s;
    }
    if (!values.choices.isEmpty()) {
        return u"-x -a '%1'"_s.arg(values.choices.join(u' '));
    }
    QString suffixes;
    for (const QString& suffix : values.suffixes) {
        suffixes += u" ."_s + suffix;
    }
    return suffixes.isEmpty() ? u"-r -F"_s : u"-x -k -a '(__fish_complete_suffix%1)'"_s.arg(suffixes);
}

} // namespace

QString bashCompletion()
{
    QString values = bashOptionCases(u"qel"_s, programOptions());
    QString options;
    QString positionals;
    for (const Command& command : commands()) {
        const Arguments arguments = command.arguments();
        values += bashOptionCases(arguments.command(), arguments.options());
        options += u"    %1) _qel_words \"$word\" %2 ;;\n"_s.arg(arguments.command(),
                                                                 optionNames(arguments.options()).join(u' '));
        positionals += u"    %1) %2 ;;\n"_s.arg(arguments.command(), bashAction(positionalValues(arguments)));
    }
    return uR"(# bash completion for qel, generated by qel --share
# shellcheck shell=bash

_qel_words() {
    mapfile -t COMPREPLY < <(compgen -W "${*:2}" -- "$1")
}

_qel_folders() {
    compopt -o filenames
    mapfile -t COMPREPLY < <(compgen -d -- "$1")
}

# _qel_files WORD [SUFFIX]...
_qel_files() {
    local word=$1 suffix
    shift
    compopt -o filenames
    if (($# == 0)); then
        mapfile -t COMPREPLY < <(compgen -f -- "$word")
    else
        mapfile -t COMPREPLY < <(
            compgen -d -- "$word"
            for suffix; do compgen -f -X "!*.$suffix" -- "$word"; done
        )
    fi
}

_qel() {
    local word=${COMP_WORDS[COMP_CWORD]} option=${COMP_WORDS[COMP_CWORD - 1]} command=${COMP_WORDS[1]}
    # Bash splits --option=value at the equals sign.
    if [[ $word == = ]]; then
        word=
    elif [[ $option == = ]]; then
        option=${COMP_WORDS[COMP_CWORD - 2]}
    fi
    ((COMP_CWORD > 1)) && [[ $command != -* ]] || command=qel
    COMPREPLY=()
    case "$command $option" in
%1    esac
    if [[ $command == qel ]]; then
        ((COMP_CWORD > 1)) || _qel_words "$word" %2 %3
        return
    fi
    if [[ $word == -* ]]; then
        case $command in
%4        esac
        return
    fi
    case $command in
%5    esac
}

complete -F _qel qel
)"_s.arg(values, commandNames().join(u' '), optionNames(programOptions()).join(u' '), options, positionals);
}

QString zshCompletion()
{
    QString summaries;
    QString cases;
    for (const Command& command : commands()) {
        const Arguments arguments = command.arguments();
        summaries += u"        %1\n"_s.arg(
            quotedForShell(u"%1:%2"_s.arg(arguments.command(), zshText(arguments.summary()))));
        cases += u"        %1)\n            _arguments \\\n            %2\n            ;;\n"_s.arg(
            arguments.command(), zshSpecifications(arguments));
    }
    QStringList options;
    for (const OptionSyntax& option : programOptions()) {
        options << zshOption(option);
    }
    return uR"(#compdef qel
# zsh completion for qel, generated by qel --share

_qel() {
    local curcontext=$curcontext state line
    local -a commands
    commands=(
%1    )
    _arguments -C %2 '(-): :->command' '(-)*:: :->arguments'
    case $state in
    command)
        _describe command commands
        ;;
    arguments)
        case $words[1] in
%3        esac
        ;;
    esac
}

_qel "$@"
)"_s.arg(summaries, options.join(u' '), cases);
}

QString fishCompletion()
{
    QString text = u"# fish completion for qel, generated by qel --share\ncomplete -c qel -f\n"_s;
    const auto addOptions = [&](const QString& condition, const std::vector<OptionSyntax>& options) {
        for (const OptionSyntax& option : options) {
            text += u"complete -c qel -n '%1' -l %2 -d %3"_s.arg(condition, option.name,
                                                                 quotedForShell(option.meaning));
            text += option.valueName.isEmpty() ? u"\n"_s : u' ' + fishAction(valuesOf(option)) + u'\n';
        }
    };
    addOptions(u"__fish_use_subcommand"_s, programOptions());
    for (const Command& command : commands()) {
        const Arguments arguments = command.arguments();
        text += u"complete -c qel -n __fish_use_subcommand -a %1 -d %2\n"_s.arg(
            arguments.command(), quotedForShell(arguments.summary()));
        const QString condition = u"__fish_seen_subcommand_from "_s + arguments.command();
        if (const Values values = positionalValues(arguments); !values.isText()) {
            text += u"complete -c qel -n '%1' %2\n"_s.arg(condition, fishAction(values));
        }
        addOptions(condition, arguments.options());
    }
    return text;
}

} // namespace Morvane::Qel::App
