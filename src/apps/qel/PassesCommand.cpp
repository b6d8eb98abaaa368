#include "Commands.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <vector>

#include <Qel/graph/PassRegistry.h>

#include "Arguments.h"
#include "Console.h"
#include "Values.h"

namespace Morvane::Qel::App {

namespace {

using Descriptions = std::vector<const PassDescription*>;

QString defaultText(const InputDescription& input)
{
    return input.defaultValue.isValid() ? textFromValue(input.defaultValue) : QString();
}

void printPort(const char* kind, const QString& fullName, const QString& initial)
{
    const PortName port = PortName::parse(fullName);
    print(QStringLiteral("  %1  %2  %3  %4\n")
              .arg(QLatin1StringView(kind), -3)
              .arg(port.type, -16)
              .arg(port.name, -24)
              .arg(initial)
              .trimmed()
              .prepend(QStringLiteral("  "))
              .append(u'\n'));
}

void printList(const Descriptions& descriptions)
{
    for (const PassDescription* pass : descriptions) {
        print(QStringLiteral("%1: %2\n").arg(pass->type, pass->summary));
        for (const InputDescription& input : pass->inputs) {
            printPort("in", input.name, defaultText(input));
        }
        for (const OutputDescription& output : pass->outputs) {
            printPort("out", output.name, {});
        }
    }
}

/// Options, each with the members of its elements behind it as "option[].member".
std::vector<OptionDescription> withMembers(const std::vector<OptionDescription>& options)
{
    std::vector<OptionDescription> all;
    for (const OptionDescription& option : options) {
        all.push_back(option);
        for (OptionDescription member : withMembers(option.members)) {
            member.name.prepend(option.name + QStringLiteral("[]."));
            all.push_back(member);
        }
    }
    return all;
}

void printDetail(const QString& label, const QString& text)
{
    if (!text.isEmpty()) {
        print(QStringLiteral("        %1%2\n").arg(label, text));
    }
}

void printDetails(const PassDescription& pass)
{
    print(QStringLiteral("%1: %2\n").arg(pass.type, pass.summary));
    for (const InputDescription& input : pass.inputs) {
        printPort("in", input.name, defaultText(input));
        printDetail({}, input.meaning);
        printDetail(QStringLiteral("range: "), input.range);
        printDetail(QStringLiteral("when missing: "), input.whenMissing);
    }
    for (const OutputDescription& output : pass.outputs) {
        printPort("out", output.name, {});
        printDetail({}, output.meaning);
    }
    for (const OptionDescription& option : withMembers(pass.options)) {
        print(QStringLiteral("  option  %1  %2\n").arg(option.name, textFromValue(option.defaultValue)));
        printDetail({}, option.meaning);
        printDetail(QStringLiteral("one of: "), option.choices.join(QStringLiteral(", ")));
    }
    if (pass.hostDeclaresPorts) {
        print(QStringLiteral("  further ports are those that the graph gives it\n"));
    }
    if (!pass.fullModeExtensions.isEmpty()) {
        print(QStringLiteral("  without %1: %2\n")
                  .arg(pass.fullModeExtensions.join(QStringLiteral(", ")), pass.reducedMode));
    }
}

void printJson(const Descriptions& descriptions)
{
    QJsonArray passes;
    for (const PassDescription* pass : descriptions) {
        QJsonArray inputs;
        for (const InputDescription& input : pass->inputs) {
            inputs.append(QJsonObject{{QStringLiteral("name"), input.name},
                                      {QStringLiteral("type"), PortName::parse(input.name).type},
                                      {QStringLiteral("default"), jsonFromValue(input.defaultValue)}});
        }
        QJsonArray outputs;
        for (const OutputDescription& output : pass->outputs) {
            outputs.append(QJsonObject{{QStringLiteral("name"), output.name},
                                       {QStringLiteral("type"), PortName::parse(output.name).type}});
        }
        passes.append(QJsonObject{{QStringLiteral("type"), pass->type},
                                  {QStringLiteral("inputs"), inputs},
                                  {QStringLiteral("outputs"), outputs}});
    }
    print(QString::fromUtf8(QJsonDocument(passes).toJson()));
}

/// A row of a Markdown table; the first `numCode` cells are set as code.
QString row(const QStringList& cells, int numCode)
{
    QString text = QStringLiteral("|");
    for (qsizetype i = 0; i < cells.size(); ++i) {
        QString cell = cells[i];
        cell.replace(u'|', QStringLiteral("\\|"));
        const bool code = i < numCode && !cell.isEmpty();
        text += u' ' + (code ? u'`' + cell + u'`' : cell) + QStringLiteral(" |");
    }
    return text + u'\n';
}

QString heading(const QStringList& cells)
{
    return u'\n' + row(cells, 0) + u'|' + QStringLiteral("---|").repeated(cells.size()) + u'\n';
}

void printMarkdown(const Descriptions& descriptions)
{
    QString text =
        QStringLiteral("# Passes\n\nMade by `qel passes --markdown` from the passes' own tables. A graph "
                       "may name a port by its full name or by the part after the last underscore.\n");
    for (const PassDescription* pass : descriptions) {
        text += QStringLiteral("\n## %1\n\n%2\n").arg(pass->type, pass->summary);
        if (!pass->inputs.empty()) {
            text +=
                heading({QStringLiteral("input"), QStringLiteral("type"), QStringLiteral("default"),
                         QStringLiteral("meaning"), QStringLiteral("range"), QStringLiteral("when missing")});
            for (const InputDescription& input : pass->inputs) {
                text += row({input.name, PortName::parse(input.name).type, defaultText(input), input.meaning,
                             input.range, input.whenMissing},
                            3);
            }
        }
        if (!pass->outputs.empty()) {
            text += heading({QStringLiteral("output"), QStringLiteral("type"), QStringLiteral("meaning")});
            for (const OutputDescription& output : pass->outputs) {
                text += row({output.name, PortName::parse(output.name).type, output.meaning}, 2);
            }
        }
        if (!pass->options.empty()) {
            text += heading({QStringLiteral("option"), QStringLiteral("default"), QStringLiteral("meaning"),
                             QStringLiteral("choices")});
            for (const OptionDescription& option : withMembers(pass->options)) {
                text += row({option.name, textFromValue(option.defaultValue), option.meaning,
                             option.choices.join(QStringLiteral(", "))},
                            2);
            }
        }
        if (pass->hostDeclaresPorts) {
            text += QStringLiteral("\nFurther ports are those that the graph gives the pass.\n");
        }
        if (!pass->fullModeExtensions.isEmpty()) {
            text += QStringLiteral("\nFull mode needs %1. Without: %2\n")
                        .arg(pass->fullModeExtensions.join(QStringLiteral(", ")), pass->reducedMode);
        }
    }
    print(text);
}

} // namespace

ExitCode passes(const QStringList& arguments)
{
    Arguments options(
        QStringLiteral("passes"),
        QStringLiteral("Lists the types of passes with their ports in order, types and defaults."));
    options.addPositional(QStringLiteral("NAME"), QStringLiteral("tells everything about this type only"),
                          true);
    options.addOption(QStringLiteral("json"), {}, QStringLiteral("prints the ports as JSON"));
    options.addOption(QStringLiteral("markdown"), {},
                      QStringLiteral("prints the reference manual as Markdown"));
    if (!options.parse(arguments)) {
        return ExitCode::Done;
    }
    const bool json = options.isSet(QStringLiteral("json"));
    const bool markdown = options.isSet(QStringLiteral("markdown"));
    if (json && markdown) {
        options.fail(QStringLiteral("--json and --markdown exclude each other"));
    }

    const PassRegistry& registry = PassRegistry::builtin();
    const QString name = options.positional(0);
    Descriptions descriptions;
    if (name.isEmpty()) {
        for (const QString& type : registry.types()) {
            descriptions.push_back(registry.description(type));
        }
    } else if (const PassDescription* description = registry.description(name)) {
        descriptions.push_back(description);
    } else {
        // The registry knows the nearest name.
        QString error;
        registry.create(name, {}, &error);
        throw Failure{ExitCode::WrongUse, {error}};
    }

    if (json) {
        printJson(descriptions);
    } else if (markdown) {
        printMarkdown(descriptions);
    } else if (name.isEmpty()) {
        printList(descriptions);
    } else {
        printDetails(*descriptions.front());
    }
    return ExitCode::Done;
}

} // namespace Morvane::Qel::App
