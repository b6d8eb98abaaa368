#include "Dump.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <algorithm>
#include <cmath>

#include <Qel/core/MetaTypes.h>
#include <Qel/core/PassDescription.h>
#include <Qel/gl/Formats.h>
#include <Qel/gl/Texture.h>
#include <Qel/graph/GraphReview.h>
#include <Qel/graph/OutputFile.h>
#include <Qel/graph/ValueJson.h>
#include <Qel/model/ShadowMapManager.h>

#include "Console.h"
#include "Failure.h"
#include "JsonText.h"
#include "Preview.h"
#include "Setup.h"

using namespace Qt::StringLiterals;

namespace Morvane::Qel::App {

namespace {

/// Writes all layers and mip levels of a texture, and a preview. Returns what outputs.json says about them.
QJsonObject dumpTexture(Texture* texture, const QDir& folder, const QString& name,
                        const TextureMeaning& meaning)
{
    std::vector<std::vector<Image>> levels;
    for (int level = 0; level < std::max(texture->levels(), 1); ++level) {
        std::vector<Image> layers = readTexture(texture, level);
        if (layers.empty()) {
            break;
        }
        levels.push_back(std::move(layers));
    }
    if (levels.empty()) {
        return {{u"files"_s, QJsonArray()}};
    }
    QJsonArray files;
    const size_t numLayers = levels.front().size();
    for (size_t level = 0; level < levels.size(); ++level) {
        for (size_t layer = 0; layer < numLayers; ++layer) {
            const QString file = name + (numLayers > 1 ? u".%1"_s.arg(layer) : QString()) +
                                 (level > 0 ? u".level%1"_s.arg(level) : QString()) + u".exr"_s;
            write(levels[level][layer], folder.filePath(file),
                  {.encoding = meaning.encoding, .alpha = meaning.alpha});
            files.append(file);
        }
    }
    const bool hasIntegers = isIntegerFormat(texture->internalFormat());
    const Preview preview = previewOf(levels, hasIntegers);
    write(preview.image, folder.filePath(name + u".png"_s));
    return {{u"files"_s, files},
            {u"format"_s, internalFormatName(texture->internalFormat())},
            {u"size"_s, QJsonArray{levels[0][0].width, levels[0][0].height}},
            {u"layers"_s, static_cast<qint64>(numLayers)},
            {u"levels"_s, static_cast<qint64>(levels.size())},
            {u"encoding"_s, textOrNull(nameOf(meaning.encoding))},
            {u"alpha"_s, textOrNull(nameOf(meaning.alpha))},
            {u"preview"_s, QString(name + u".png"_s)},
            {u"previewRange"_s,
             hasIntegers ? QJsonValue(u"false colours"_s) : QJsonArray{preview.low, preview.high}}};
}

QJsonObject lightJson(const ShadowMapRenderData::Light& light)
{
    static const QString types[] = {u"directional"_s, u"spot"_s, u"point"_s};
    const ShadowMapManager::Light& source = light.source;
    QJsonObject json{{u"type"_s, types[static_cast<int>(source.type)]},
                     {u"color"_s, jsonFromValue(source.color)},
                     {u"firstLayer"_s, light.firstLayer},
                     {u"layers"_s, light.numProjectors}};
    if (source.type != ShadowMapManager::LightType::Directional) {
        json[u"position"_s] = jsonFromValue(source.position);
        json[u"range"_s] = jsonFromValue(source.range);
    }
    if (source.type != ShadowMapManager::LightType::Point) {
        json[u"direction"_s] = jsonFromValue(source.direction);
    }
    if (source.type == ShadowMapManager::LightType::Spot) {
        json[u"angle"_s] = jsonFromValue(source.angle);
    }
    return json;
}

/// The lights, and for each layer of the shadow maps its transform from world space, row by row, and the view
/// depth at which the cascade ends, null for the last one.
QJsonObject dumpLights(const ShadowMapRenderData& data, const QDir& folder, const QString& name)
{
    QJsonArray lights;
    for (const ShadowMapRenderData::Light& light : data.lights()) {
        lights.append(lightJson(light));
    }
    QJsonArray layers;
    for (int layer = 0; layer < data.numLayers(); ++layer) {
        const float end = data.cascadeEnd(layer);
        layers.append(QJsonObject{
            {u"transform"_s, jsonFromValue(data.transform(layer))},
            {u"cascadeEnd"_s, std::isfinite(end) ? jsonFromValue(end) : QJsonValue(QJsonValue::Null)}});
    }
    Texture* maps = data.projectionTexture();
    const TextureMeaning meaning{Encoding::Data, AlphaMeaning::Unspecified};
    return {{u"lights"_s, lights},
            {u"layers"_s, layers},
            {u"maps"_s, maps ? dumpTexture(maps, folder, name, meaning) : QJsonValue(QJsonValue::Null)}};
}

QJsonValue dumpOutput(const GraphPlan& plan, const RenderGraph::Output& output, const QDir& folder)
{
    const QString name = u"%1.%2"_s.arg(output.pass, PortName::parse(output.port).name);
    if (auto* texture = pointerFromVariant<Texture>(output.value)) {
        const auto pass = std::find_if(plan.passes.begin(), plan.passes.end(),
                                       [&](const PlannedPass& other) { return other.name == output.pass; });
        return dumpTexture(texture, folder, name,
                           meaningOf(plan, static_cast<int>(pass - plan.passes.begin()),
                                     static_cast<int>(pass->outputs.indexOf(output.port))));
    }
    if (const auto* lights = pointerFromVariant<ShadowMapRenderData>(output.value)) {
        return dumpLights(*lights, folder, name);
    }
    return jsonFromValue(output.value);
}

} // namespace

void write(const Image& image, const QString& path, const ImageFileOptions& options)
{
    checkReports();
    QString error;
    if (!writeImage(image, path, &error, options)) {
        fail(error);
    }
}

QDir makeFolder(const QString& path)
{
    QDir folder(path);
    if (!folder.mkpath(u"."_s)) {
        fail(u"%1: the folder cannot be created; name another one"_s.arg(path));
    }
    return folder;
}

void dump(const RenderGraph& graph, const QString& folderPath)
{
    const QDir folder = makeFolder(folderPath);
    QJsonObject outputs;
    for (const RenderGraph::Output& output : graph.outputs()) {
        const QString name = u"%1.%2"_s.arg(output.pass, PortName::parse(output.port).name);
        outputs[name] = dumpOutput(graph.plan(), output, folder);
    }
    OutputFile file(folder.filePath(u"outputs.json"_s));
    QString error;
    if (!file.openForWriting(&error)) {
        fail(error);
    }
    // A write that fails makes the commit fail with its cause.
    file.writeAll(QJsonDocument(outputs).toJson());
    if (!file.commit(&error)) {
        fail(error);
    }
    for (const PlannedPass& pass : graph.plan().passes) {
        if (!pass.cullReason.isEmpty()) {
            printNote(u"%1 is culled and has no outputs: %2"_s.arg(pass.name, pass.cullReason));
        }
    }
}

} // namespace Morvane::Qel::App
