#include "Commands.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <vector>

#include <Qel/graph/PassRegistry.h>

#include "Arguments.h"
#include "Console.h"
#include "Values.h"

using namespace Qt::StringLiterals;

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
    print(u"  %1  %2  %3  %4\n"_s.arg(QLatin1StringView(kind), -3)
              .arg(port.type, -16)
              .arg(port.name, -24)
              .arg(initial)
              .trimmed()
              .prepend(u"  "_s)
              .append(u'\n'));
}

void printList(const Descriptions& descriptions)
{
    for (const PassDescription* pass : descriptions) {
        print(u"%1: %2\n"_s.arg(pass->type, pass->summary));
        for (const InputDescription& input : pass->inputs) {
            printPort("in", input.name, input.isModified ? u"modified in place"_s : defaultText(input));
        }
        for (const OutputDescription& output : pass->outputs) {
            printPort("out", output.name, {});
        }
    }
}

QString meaningOf(const InputDescription& input)
{
    QString meaning = input.meaning;
    if (input.isModified) {
        meaning += u"; modified in place"_s;
    }
    if (!input.perspectiveReason.isEmpty()) {
        meaning += u"; not of an orthographic view: "_s + input.perspectiveReason;
    }
    return meaning;
}

/// Returns the options, each followed by the members of its elements, named "option[].member".
std::vector<OptionDescription> withMembers(const std::vector<OptionDescription>& options)
{
    std::vector<OptionDescription> all;
    for (const OptionDescription& option : options) {
        all.push_back(option);
        for (OptionDescription member : withMembers(option.members)) {
            member.name.prepend(option.name + u"[]."_s);
            all.push_back(member);
        }
    }
    return all;
}

void printDetail(const QString& label, const QString& text)
{
    if (!text.isEmpty()) {
        print(u"        %1%2\n"_s.arg(label, text));
    }
}

void printDetails(const PassDescription& pass)
{
    print(u"%1: %2\n"_s.arg(pass.type, pass.summary));
    for (const InputDescription& input : pass.inputs) {
        printPort("in", input.name, defaultText(input));
        printDetail({}, meaningOf(input));
        printDetail(u"range: "_s, input.range);
        printDetail(u"when missing: "_s, input.whenMissing);
    }
    for (const OutputDescription& output : pass.outputs) {
        printPort("out", output.name, {});
        printDetail({}, output.meaning);
    }
    for (const OptionDescription& option : withMembers(pass.options)) {
        print(u"  option  %1  %2\n"_s.arg(option.name, textFromValue(option.defaultValue)));
        printDetail({}, option.meaning);
        printDetail(u"one of: "_s, option.choices.join(u", "_s));
    }
    if (pass.hostDeclaresPorts) {
        print(u"  the graph declares further ports\n"_s);
    }
    if (!pass.fullModeExtensions.isEmpty()) {
        print(u"  without %1: %2\n"_s.arg(pass.fullModeExtensions.join(u", "_s), pass.reducedMode));
    }
}

void printJson(const Descriptions& descriptions)
{
    QJsonArray passes;
    for (const PassDescription* pass : descriptions) {
        QJsonArray inputs;
        for (const InputDescription& input : pass->inputs) {
            inputs.append(QJsonObject{{u"name"_s, input.name},
                                      {u"type"_s, PortName::parse(input.name).type},
                                      {u"default"_s, jsonFromValue(input.defaultValue)},
                                      {u"isModified"_s, input.isModified}});
        }
        QJsonArray outputs;
        for (const OutputDescription& output : pass->outputs) {
            outputs.append(
                QJsonObject{{u"name"_s, output.name}, {u"type"_s, PortName::parse(output.name).type}});
        }
        passes.append(QJsonObject{{u"type"_s, pass->type}, {u"inputs"_s, inputs}, {u"outputs"_s, outputs}});
    }
    print(QString::fromUtf8(QJsonDocument(passes).toJson()));
}

/// Returns a row of a Markdown table with the first `numCode` cells formatted as code.
QString row(const QStringList& cells, int numCode)
{
    QString text = u"|"_s;
    for (qsizetype i = 0; i < cells.size(); ++i) {
        QString cell = cells[i];
        cell.replace(u'|', u"\\|"_s);
        const bool code = i < numCode && !cell.isEmpty();
        text += u' ' + (code ? u'`' + cell + u'`' : cell) + u" |"_s;
    }
    return text + u'\n';
}

QString heading(const QStringList& cells)
{
    return u'\n' + row(cells, 0) + u'|' + u"---|"_s.repeated(cells.size()) + u'\n';
}

void printMarkdown(const Descriptions& descriptions)
{
    QString text =
        u"# Passes\n\nGenerated by `qel passes --markdown`. A graph may name a port by its full name or "
        "by the part after the last underscore.\n"_s;
    for (const PassDescription* pass : descriptions) {
        text += u"\n## %1\n\n%2\n"_s.arg(pass->type, pass->summary);
        if (!pass->inputs.empty()) {
            text +=
                heading({u"input"_s, u"type"_s, u"default"_s, u"meaning"_s, u"range"_s, u"when missing"_s});
            for (const InputDescription& input : pass->inputs) {
                text += row({input.name, PortName::parse(input.name).type, defaultText(input),
                             meaningOf(input), input.range, input.whenMissing},
                            3);
            }
        }
        if (!pass->outputs.empty()) {
            text += heading({u"output"_s, u"type"_s, u"meaning"_s});
            for (const OutputDescription& output : pass->outputs) {
                text += row({output.name, PortName::parse(output.name).type, output.meaning}, 2);
            }
        }
        if (!pass->options.empty()) {
            text += heading({u"option"_s, u"default"_s, u"meaning"_s, u"choices"_s});
            for (const OptionDescription& option : withMembers(pass->options)) {
                text += row({option.name, textFromValue(option.defaultValue), option.meaning,
                             option.choices.join(u", "_s)},
                            2);
            }
        }
        if (pass->hostDeclaresPorts) {
            text += u"\nThe graph declares further ports.\n"_s;
        }
        if (!pass->fullModeExtensions.isEmpty()) {
            text += u"\nFull mode needs %1. Without it: %2\n"_s.arg(pass->fullModeExtensions.join(u", "_s),
                                                                    pass->reducedMode);
        }
    }
    print(text);
}

} // namespace

void declarePasses(Arguments& options)
{
    options.describe(u"Lists the pass types with their ports in order, with types and defaults."_s);
    options.addPositional(u"NAME"_s, u"describes this pass type in full"_s, true, ValueKind::PassType);
    options.addOption(u"json"_s, {}, u"prints the ports as JSON"_s);
    options.addOption(u"markdown"_s, {}, u"prints the reference as Markdown"_s);
    options.addExample(u"qel passes DepthOfFieldRenderPass"_s, u"Look up the ports of a pass"_s);
}

ExitCode passes(const Arguments& options)
{
    const bool json = options.isSet(u"json"_s);
    const bool markdown = options.isSet(u"markdown"_s);
    if (json && markdown) {
        options.fail(u"--json and --markdown cannot be combined"_s);
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
        fail(registry.unknownTypeError(name));
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
