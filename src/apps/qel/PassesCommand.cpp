#include "Commands.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <cmath>
#include <vector>

#include <Qel/graph/GraphReview.h>
#include <Qel/graph/PassRegistry.h>
#include <Qel/graph/ValueJson.h>

#include "Arguments.h"
#include "Console.h"
#include "JsonText.h"

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
        printDetail(u"range: "_s, input.unitAndRange());
        printDetail(u"when missing: "_s, input.whenMissing);
        printDetail({}, tagsOf(input).join(u"; "_s));
    }
    for (const OutputDescription& output : pass.outputs) {
        printPort("out", output.name, {});
        printDetail({}, output.meaning);
        printDetail(u"encoding: "_s, nameOf(output.encoding));
        printDetail(u"alpha: "_s, nameOf(output.alpha));
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

/// A bound of a range; null for none.
QJsonValue jsonBound(double bound)
{
    return std::isfinite(bound) ? QJsonValue(bound) : QJsonValue(QJsonValue::Null);
}

QJsonObject inputJson(const InputDescription& input)
{
    return {{u"name"_s, input.name},
            {u"type"_s, PortName::parse(input.name).type},
            {u"meaning"_s, input.meaning},
            {u"default"_s, jsonFromValue(input.defaultValue)},
            {u"whenMissing"_s, input.whenMissing},
            {u"range"_s, textOrNull(input.range)},
            {u"unit"_s, textOrNull(input.unit)},
            {u"minimum"_s, jsonBound(input.limits.minimum)},
            {u"maximum"_s, jsonBound(input.limits.maximum)},
            {u"isAboveMinimum"_s, input.limits.isAboveMinimum},
            {u"isModified"_s, input.isModified},
            {u"isDepth"_s, input.isDepth},
            {u"encoding"_s, textOrNull(nameOf(input.encoding))},
            {u"tags"_s, QJsonArray::fromStringList(tagsOf(input))}};
}

QJsonObject outputJson(const OutputDescription& output)
{
    return {{u"name"_s, output.name},
            {u"type"_s, PortName::parse(output.name).type},
            {u"meaning"_s, output.meaning},
            {u"encoding"_s, textOrNull(nameOf(output.encoding))},
            {u"alpha"_s, textOrNull(nameOf(output.alpha))},
            {u"space"_s, textOrNull(nameOf(output.space))},
            {u"like"_s, QJsonArray::fromStringList(output.like)}};
}

QJsonArray optionsJson(const std::vector<OptionDescription>& options)
{
    QJsonArray array;
    for (const OptionDescription& option : options) {
        array.append(QJsonObject{{u"name"_s, option.name},
                                 {u"meaning"_s, option.meaning},
                                 {u"default"_s, jsonFromValue(option.defaultValue)},
                                 {u"choices"_s, QJsonArray::fromStringList(option.choices)},
                                 {u"isFile"_s, option.isFile},
                                 {u"isPerOutput"_s, option.isPerOutput},
                                 {u"members"_s, optionsJson(option.members)}});
    }
    return array;
}

void printJson(const Descriptions& descriptions)
{
    QJsonArray passes;
    for (const PassDescription* pass : descriptions) {
        QJsonArray inputs;
        for (const InputDescription& input : pass->inputs) {
            inputs.append(inputJson(input));
        }
        QJsonArray outputs;
        for (const OutputDescription& output : pass->outputs) {
            outputs.append(outputJson(output));
        }
        passes.append(
            QJsonObject{{u"type"_s, pass->type},
                        {u"summary"_s, pass->summary},
                        {u"inputs"_s, inputs},
                        {u"outputs"_s, outputs},
                        {u"options"_s, optionsJson(pass->options)},
                        {u"hostDeclaresPorts"_s, pass->hostDeclaresPorts},
                        {u"fullModeExtensions"_s, QJsonArray::fromStringList(pass->fullModeExtensions)},
                        {u"reducedMode"_s, textOrNull(pass->reducedMode)}});
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
                             (QStringList{meaningOf(input)} + tagsOf(input)).join(u"; "_s),
                             input.unitAndRange(), input.whenMissing},
                            3);
            }
        }
        if (!pass->outputs.empty()) {
            text += heading({u"output"_s, u"type"_s, u"meaning"_s, u"encoding"_s, u"alpha"_s});
            for (const OutputDescription& output : pass->outputs) {
                text += row({output.name, PortName::parse(output.name).type, output.meaning,
                             nameOf(output.encoding), nameOf(output.alpha)},
                            2);
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

/// A section of the page about the order of passes: the ports that a rule holds for.
template<class Port, class Condition>
QString orderSection(const QString& title, const QString& text, const Descriptions& descriptions,
                     const std::vector<Port> PassDescription::*ports, const Condition& applies)
{
    QString list;
    for (const PassDescription* pass : descriptions) {
        for (const Port& port : pass->*ports) {
            if (applies(port)) {
                list += u"- `%1.%2`\n"_s.arg(pass->type, PortName::parse(port.name).name);
            }
        }
    }
    return u"\n## %1\n\n%2\n\n%3"_s.arg(title, text, list);
}

void printOrderMarkdown(const Descriptions& descriptions)
{
    using Input = InputDescription;
    using Output = OutputDescription;
    const auto inputs = [&](const QString& title, const QString& text, const auto& applies) {
        return orderSection<Input>(title, text, descriptions, &PassDescription::inputs, applies);
    };
    const auto outputs = [&](const QString& title, const QString& text, const auto& applies) {
        return orderSection<Output>(title, text, descriptions, &PassDescription::outputs, applies);
    };
    QString text =
        u"# The order of passes\n\nGenerated by `qel passes --order-markdown`.\n\n"
        "A frame is drawn, lit in linear light, tone-mapped and encoded for the display, anti-aliased and "
        "shown. The lists say where each pass belongs. `qel graph` warns of connections that contradict "
        "them; passes that are not listed, and shaders of your own, go anywhere.\n"_s;
    text += outputs(u"Linear light"_s,
                    u"These outputs hold linear light. Tone-map and encode them before they "
                    "are shown or written as PNG."_s,
                    [](const Output& output) { return output.encoding == Encoding::Linear; });
    text += inputs(u"Before tone mapping"_s, u"These inputs want linear light."_s,
                   [](const Input& input) { return input.encoding == Encoding::Linear; });
    text += outputs(u"Display-encoded"_s, u"These outputs are ready to be shown."_s,
                    [](const Output& output) { return output.encoding == Encoding::Display; });
    text += outputs(
        u"As the materials"_s,
        u"These outputs are encoded as the material colours and maps of the model, which "
        "is as a display wants them unless the model is made otherwise. They may be shown as they are."_s,
        [](const Output& output) { return output.encoding == Encoding::AsMaterials; });
    text += inputs(u"After tone mapping"_s, u"These inputs work on display-encoded colours."_s,
                   [](const Input& input) { return input.encoding == Encoding::Display; });
    text += outputs(u"In either place"_s, u"These outputs are encoded as their inputs."_s,
                    [](const Output& output) { return output.encoding == Encoding::AsInput; });
    text += inputs(u"After anti-aliasing"_s,
                   u"Aliased edges in these inputs flicker or spread. The image is better if it is "
                   "anti-aliased before, by TemporalAARenderPass or by drawing it larger."_s,
                   [](const Input& input) { return input.wantsAntiAliased; });
    text +=
        inputs(u"Drawn with jitter"_s,
               u"These inputs need frames that are drawn with the projection of a TemporalAAJitterPass."_s,
               [](const Input& input) { return input.wantsJitter; });
    text += inputs(u"With the depth of the opaque surfaces"_s,
                   u"These inputs take a depth of the same camera, as the passes that draw models write it. "
                   "Transparent surfaces are not in it: draw them after what uses the depth."_s,
                   [](const Input& input) { return input.wantsOpaqueDepth; });
    text += inputs(u"Vectors in eye space"_s, u"These inputs want vectors in eye space."_s,
                   [](const Input& input) { return input.space == Space::Eye; });
    text += outputs(u"Writing vectors in eye space"_s, u"These outputs hold vectors in eye space."_s,
                    [](const Output& output) { return output.space == Space::Eye; });
    text += inputs(u"Vectors in world space"_s, u"These inputs want vectors in world space."_s,
                   [](const Input& input) { return input.space == Space::World; });
    text += outputs(u"Writing vectors in world space"_s, u"These outputs hold vectors in world space."_s,
                    [](const Output& output) { return output.space == Space::World; });
    text +=
        inputs(u"In place"_s,
               u"These inputs are modified in place. All other passes that read the texture run before."_s,
               [](const Input& input) { return input.isModified; });
    print(text);
}

} // namespace

void declarePasses(Arguments& options)
{
    options.describe(u"Lists the pass types with their ports in order, with types and defaults."_s);
    options.addPositional(u"NAME"_s, u"describes this pass type in full"_s, true, ValueKind::PassType);
    options.addOption(u"json"_s, {}, u"prints the passes as JSON"_s);
    options.addOption(u"markdown"_s, {}, u"prints the reference as Markdown"_s);
    options.addOption(u"order-markdown"_s, {}, u"prints where in a frame each pass belongs, as Markdown"_s);
    options.addExample(u"qel passes DepthOfFieldRenderPass"_s, u"Look up the ports of a pass"_s);
}

ExitCode passes(const Arguments& options)
{
    const bool json = options.isSet(u"json"_s);
    const bool markdown = options.isSet(u"markdown"_s);
    const bool order = options.isSet(u"order-markdown"_s);
    if (int{json} + int{markdown} + int{order} > 1) {
        options.fail(u"--json, --markdown and --order-markdown cannot be combined"_s);
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
    } else if (order) {
        printOrderMarkdown(descriptions);
    } else if (name.isEmpty()) {
        printList(descriptions);
    } else {
        printDetails(*descriptions.front());
    }
    return ExitCode::Done;
}

} // namespace Morvane::Qel::App
