#include "GraphListing.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <algorithm>

#include <epoxy/gl.h>

#include <Qel/core/MetaTypes.h>
#include <Qel/core/PassDescription.h>
#include <Qel/gl/Formats.h>
#include <Qel/gl/Guards.h>
#include <Qel/gl/Texture.h>
#include <Qel/graph/GraphReview.h>
#include <Qel/graph/ValueJson.h>

#include "Console.h"
#include "JsonText.h"

using namespace Qt::StringLiterals;

namespace Morvane::Qel::App {

namespace {

using Outputs = std::vector<RenderGraph::Output>;

QString shortName(const QString& port)
{
    return PortName::parse(port).name;
}

const PlannedPass& passAt(const GraphPlan& plan, int index)
{
    return plan.passes[static_cast<size_t>(index)];
}

/// Size and format of level 0 of a texture.
struct TextureShape
{
    int width = 0;
    int height = 0;
    int layers = 0;
    QString format;
    bool isCube = false;

    QString text() const
    {
        return u"%1x%2 %3%4"_s.arg(width).arg(height).arg(format, isCube       ? u", 6 faces"_s
                                                                  : layers > 1 ? u", %1 layers"_s.arg(layers)
                                                                               : QString());
    }
};

/// Queries GL, because passes may allocate a texture by GL calls that bypass the Texture object.
TextureShape shapeOf(Texture* texture)
{
    const AutoBinder binder(texture);
    const bool isCube = texture->target() == GL_TEXTURE_CUBE_MAP;
    const auto parameter = [&](unsigned int name) {
        int value = 0;
        glGetTexLevelParameteriv(isCube ? GLenum{GL_TEXTURE_CUBE_MAP_POSITIVE_X} : texture->target(), 0, name,
                                 &value);
        return value;
    };
    return {parameter(GL_TEXTURE_WIDTH), parameter(GL_TEXTURE_HEIGHT),
            isCube ? 6 : parameter(GL_TEXTURE_DEPTH),
            internalFormatName(static_cast<unsigned int>(parameter(GL_TEXTURE_INTERNAL_FORMAT))), isCube};
}

/// Where the value of an input comes from: a kind, and what it is.
struct Source
{
    QString kind;
    QString text;
};

Source sourceOf(const GraphPlan& plan, const PlannedPass& pass, size_t index)
{
    const PlannedInput& input = pass.inputs[index];
    switch (input.source) {
    case InputSource::Connection: {
        const PlannedPass& source = passAt(plan, input.pass);
        return {u"connection"_s, u"@%1.%2"_s.arg(source.name, shortName(source.outputs[input.output]))};
    }
    case InputSource::Model:
        return {u"model"_s, u'@' + plan.graph.models[static_cast<size_t>(input.model)].name};
    case InputSource::FrameValue:
        return {u"frame value"_s, u'@' + nameOf(input.frameValue)};
    case InputSource::Constant:
        if (input.constant.isValid()) {
            return {u"constant"_s, textFromValue(input.constant)};
        }
        break;
    case InputSource::Default:
        if (index < pass.description->inputs.size() &&
            pass.description->inputs[index].defaultValue.isValid()) {
            return {u"default"_s, textFromValue(pass.description->inputs[index].defaultValue)};
        }
        break;
    }
    return {u"not set"_s, index < pass.description->inputs.size()
                              ? pass.description->inputs[index].whenMissing
                              : QString()};
}

const RenderGraph::Output* findOutput(const Outputs& outputs, const QString& pass, const QString& port)
{
    const auto found = std::find_if(outputs.begin(), outputs.end(), [&](const RenderGraph::Output& output) {
        return output.pass == pass && output.port == port;
    });
    return found == outputs.end() ? nullptr : &*found;
}

/// What the texture of an output stands for, such as "display-encoded, straight alpha"; may be empty.
QString meaningText(const TextureMeaning& meaning)
{
    QStringList parts{
        nameOf(meaning.encoding),
        meaning.alpha == AlphaMeaning::Unspecified
            ? QString()
            : (meaning.alpha == AlphaMeaning::Opaque ? u"opaque"_s : nameOf(meaning.alpha) + u" alpha"_s)};
    parts.removeAll(QString());
    return parts.join(u", "_s);
}

QJsonValue animationJson(const GraphPlan& plan)
{
    const std::optional<AnimationDescription>& animation = plan.graph.animation;
    return animation ? QJsonObject{{u"frames"_s, animation->frames},
                                   {u"fps"_s, static_cast<double>(animation->fps)}}
                     : QJsonValue();
}

QString imageText(const GraphPlan& plan)
{
    if (plan.outputPass < 0) {
        return {};
    }
    const PlannedPass& pass = passAt(plan, plan.outputPass);
    return u"%1.%2"_s.arg(pass.name, shortName(pass.outputs[plan.outputPort]));
}

void printPass(const GraphPlan& plan, int index, const Outputs& outputs)
{
    const PlannedPass& pass = passAt(plan, index);
    for (size_t i = 0; i < pass.inputs.size(); ++i) {
        const Source source = sourceOf(plan, pass, i);
        const bool isMissing = source.kind == u"not set"_s;
        print(u"       in   %1  %2%3\n"_s.arg(shortName(pass.inputs[i].port), -20)
                  .arg(isMissing ? u"**not set**"_s : source.kind,
                       source.text.isEmpty() ? QString() : (isMissing ? u": "_s : u" "_s) + source.text));
    }
    for (int i = 0; i < static_cast<int>(pass.outputs.size()); ++i) {
        const RenderGraph::Output* output = findOutput(outputs, pass.name, pass.outputs[i]);
        auto* texture = output ? pointerFromVariant<Texture>(output->value) : nullptr;
        QStringList parts{texture  ? shapeOf(texture).text()
                          : output ? textFromValue(output->value)
                                   : QString(),
                          meaningText(meaningOf(plan, index, i))};
        parts.removeAll(QString());
        print(u"       out  %1  %2\n"_s.arg(shortName(pass.outputs[i]), -20).arg(parts.join(u"  "_s)));
    }
}

QJsonObject inputJson(const GraphPlan& plan, const PlannedPass& pass, size_t index)
{
    const PlannedInput& input = pass.inputs[index];
    const Source source = sourceOf(plan, pass, index);
    QJsonObject json{
        {u"name"_s, input.port}, {u"type"_s, PortName::parse(input.port).type}, {u"source"_s, source.kind}};
    if (source.kind == u"constant"_s) {
        json[u"value"_s] = jsonFromValue(input.constant);
    } else if (source.kind == u"default"_s) {
        json[u"value"_s] = jsonFromValue(pass.description->inputs[index].defaultValue);
    } else if (source.kind == u"not set"_s) {
        json[u"whenMissing"_s] = textOrNull(source.text);
    } else {
        json[u"from"_s] = source.text;
    }
    return json;
}

QJsonObject outputJson(const GraphPlan& plan, int pass, int index, const RenderGraph::Output* output)
{
    const QString& port = passAt(plan, pass).outputs[index];
    const TextureMeaning meaning = meaningOf(plan, pass, index);
    QJsonObject json{{u"name"_s, port},
                     {u"type"_s, PortName::parse(port).type},
                     {u"encoding"_s, textOrNull(nameOf(meaning.encoding))},
                     {u"alpha"_s, textOrNull(nameOf(meaning.alpha))}};
    if (!output) {
        return json;
    }
    if (auto* texture = pointerFromVariant<Texture>(output->value)) {
        const TextureShape shape = shapeOf(texture);
        json[u"size"_s] = QJsonArray{shape.width, shape.height};
        json[u"layers"_s] = shape.layers;
        json[u"levels"_s] = texture->levels();
        json[u"format"_s] = shape.format;
    } else {
        json[u"value"_s] = jsonFromValue(output->value);
    }
    return json;
}

QJsonObject passJson(const GraphPlan& plan, int index, const Outputs& outputs)
{
    const PlannedPass& pass = passAt(plan, index);
    QJsonArray inputs;
    for (size_t i = 0; i < pass.inputs.size(); ++i) {
        inputs.append(inputJson(plan, pass, i));
    }
    QJsonArray outputArray;
    for (int i = 0; i < static_cast<int>(pass.outputs.size()); ++i) {
        outputArray.append(outputJson(plan, index, i, findOutput(outputs, pass.name, pass.outputs[i])));
    }
    return {
        {u"name"_s, pass.name}, {u"type"_s, pass.type}, {u"inputs"_s, inputs}, {u"outputs"_s, outputArray}};
}

} // namespace

void printGraph(const GraphPlan& plan, const Outputs& outputs)
{
    int position = 0;
    for (const int index : plan.order) {
        const PlannedPass& pass = passAt(plan, index);
        print(u"%1  %2  %3\n"_s.arg(++position, 3).arg(pass.name, pass.type));
        printPass(plan, index, outputs);
    }
    for (const PlannedPass& pass : plan.passes) {
        if (!pass.cullReason.isEmpty()) {
            print(u"culled: %1  %2: %3\n"_s.arg(pass.name, pass.type, pass.cullReason));
        }
    }
    if (plan.outputPass >= 0) {
        print(u"image: %1\n"_s.arg(imageText(plan)));
    }
    if (plan.graph.animation) {
        print(u"animation: %1 frames, %2 per second\n"_s.arg(plan.graph.animation->frames)
                  .arg(static_cast<double>(plan.graph.animation->fps)));
    }
    if (plan.runUpFrames != 0) {
        print(plan.runUpFrames == PassDescription::unlimitedHistory
                  ? u"run-up: all frames from 0, because passes remember every earlier frame\n"_s
                  : u"run-up: %1 frames\n"_s.arg(plan.runUpFrames));
    }
}

void printGraphJson(const GraphPlan& plan, const Outputs& outputs, const QStringList& warnings)
{
    QJsonArray passes;
    for (const int index : plan.order) {
        passes.append(passJson(plan, index, outputs));
    }
    QJsonArray culled;
    for (const PlannedPass& pass : plan.passes) {
        if (!pass.cullReason.isEmpty()) {
            culled.append(
                QJsonObject{{u"name"_s, pass.name}, {u"type"_s, pass.type}, {u"reason"_s, pass.cullReason}});
        }
    }
    const QJsonObject graph{{u"passes"_s, passes},
                            {u"culled"_s, culled},
                            {u"image"_s, textOrNull(imageText(plan))},
                            {u"animation"_s, animationJson(plan)},
                            {u"runUpFrames"_s, plan.runUpFrames == PassDescription::unlimitedHistory
                                                   ? QJsonValue(u"all"_s)
                                                   : QJsonValue(plan.runUpFrames)},
                            {u"warnings"_s, QJsonArray::fromStringList(warnings)}};
    print(QString::fromUtf8(QJsonDocument(graph).toJson()));
}

} // namespace Morvane::Qel::App
