#include "Commands.h"

#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <algorithm>

#include <Qel/core/Text.h>
#include <Qel/graph/FittedCamera.h>
#include <Qel/model/ModelAssembly.h>
#include <Qel/model/ModelImport.h>

#include "Arguments.h"
#include "Console.h"

using namespace Qt::StringLiterals;

namespace Morvane::Qel::App {

namespace {

/// The number rounded to six significant digits, without the noise of a float's further ones.
double decimal(float value)
{
    return QString::number(value, 'g', 6).toDouble();
}

QJsonArray vectorJson(const QVector3D& v)
{
    return {decimal(v.x()), decimal(v.y()), decimal(v.z())};
}

QJsonObject textureJson(const ModelData& model, int image)
{
    const ImageSource& source = model.imageSources[static_cast<size_t>(image)];
    const QImage& pixels = model.images[static_cast<size_t>(image)];
    QJsonObject json{{u"reference"_s, source.reference}};
    if (!source.problem.isEmpty()) {
        json[u"problem"] = source.problem;
        return json;
    }
    if (source.isEmbedded) {
        json[u"embedded"] = true;
    } else {
        json[u"file"] = source.file;
    }
    json[u"size"] = QJsonArray{pixels.width(), pixels.height()};
    return json;
}

QJsonArray meshesJson(const ModelData& model)
{
    std::vector<int> numInstances(model.meshes.size());
    for (const InstanceData& instance : model.instances) {
        ++numInstances[static_cast<size_t>(instance.mesh)];
    }
    QJsonArray meshes;
    for (size_t i = 0; i < model.meshes.size(); ++i) {
        const MeshData& mesh = model.meshes[i];
        meshes.append(QJsonObject{{u"name"_s, mesh.name},
                                  {u"triangles"_s, static_cast<qint64>(mesh.indices.size() / 3)},
                                  {u"vertices"_s, static_cast<qint64>(mesh.positions.size())},
                                  {u"instances"_s, numInstances[i]},
                                  {u"material"_s, mesh.material}});
    }
    return meshes;
}

QJsonArray materialsJson(const ModelData& model)
{
    QJsonArray materials;
    for (const MaterialData& material : model.materials) {
        QJsonObject json{{u"name"_s, material.name},         {u"Kd"_s, vectorJson(material.kd)},
                         {u"Ks"_s, vectorJson(material.ks)}, {u"Ns"_s, decimal(material.ns)},
                         {u"d"_s, decimal(material.d)},      {u"doubleSided"_s, material.doubleSided}};
        if (material.mapKd >= 0) {
            json[u"mapKd"] = textureJson(model, material.mapKd);
        }
        if (material.mapKs >= 0) {
            json[u"mapKs"] = textureJson(model, material.mapKs);
        }
        materials.append(json);
    }
    return materials;
}

/// All that the command prints; the text is made from it too.
QJsonObject summaryOf(const ModelData& model, const QSize& viewport)
{
    const auto [lower, upper] = boundsOf(model);
    const CameraDescription camera = fitCamera(outlineOf(model), viewport);
    qint64 numTriangles = 0;
    for (const InstanceData& instance : model.instances) {
        numTriangles +=
            static_cast<qint64>(model.meshes[static_cast<size_t>(instance.mesh)].indices.size() / 3);
    }
    QJsonObject json{{u"bounds"_s, QJsonObject{{u"min"_s, vectorJson(lower)},
                                               {u"max"_s, vectorJson(upper)},
                                               {u"size"_s, vectorJson(upper - lower)}}},
                     {u"metresPerUnit"_s, QJsonValue()},
                     {u"upAxis"_s, QJsonValue()},
                     {u"triangles"_s, numTriangles},
                     {u"meshes"_s, meshesJson(model)},
                     {u"materials"_s, materialsJson(model)},
                     {u"camera"_s, QJsonObject{{u"eye"_s, vectorJson(camera.eye)},
                                               {u"target"_s, vectorJson(camera.target)},
                                               {u"up"_s, vectorJson(camera.up)},
                                               {u"fovY"_s, decimal(camera.fovY)},
                                               {u"near"_s, decimal(camera.nearPlane)},
                                               {u"far"_s, decimal(camera.farPlane)}}},
                     {u"warnings"_s, QJsonArray::fromStringList(model.warnings)}};
    if (model.source.metresPerUnit > 0.0F) {
        json[u"metresPerUnit"] = decimal(model.source.metresPerUnit);
    }
    if (!model.source.upAxis.isEmpty()) {
        json[u"upAxis"] = model.source.upAxis;
    }
    return json;
}

/// An object of numbers and arrays of numbers as one line.
QString lineOf(const QJsonObject& json)
{
    return QString::fromUtf8(QJsonDocument(json).toJson(QJsonDocument::Compact))
        .replace(u","_s, u", "_s)
        .replace(u"\":"_s, u"\": "_s);
}

QString lineOf(const QJsonArray& numbers)
{
    QStringList texts;
    for (const auto& number : numbers) {
        texts.append(QString::number(number.toDouble(), 'g', 6));
    }
    return u'[' + texts.join(u", "_s) + u']';
}

QString textureText(const QString& key, const QJsonObject& texture)
{
    const QJsonArray size = texture[u"size"].toArray();
    const QString place = texture[u"embedded"].toBool() ? u"embedded"_s : texture[u"file"].toString();
    return u"    %1  %2: %3\n"_s.arg(
        key, printable(texture[u"reference"].toString()),
        texture.contains(u"problem")
            ? texture[u"problem"].toString()
            : u"%1, %2x%3"_s.arg(printable(place)).arg(size[0].toInt()).arg(size[1].toInt()));
}

QString textOf(const QJsonObject& model)
{
    const QJsonObject bounds = model[u"bounds"].toObject();
    const QJsonValue unit = model[u"metresPerUnit"];
    const QJsonValue upAxis = model[u"upAxis"];
    const QString unknown = u"not told by the file"_s;
    QString text;
    const auto line = [&](const QString& name, const QString& value) {
        text += u"%1  %2\n"_s.arg(name, -10).arg(value);
    };
    line(u"bounds"_s,
         u"%1 to %2, size %3"_s.arg(lineOf(bounds[u"min"].toArray()), lineOf(bounds[u"max"].toArray()),
                                    lineOf(bounds[u"size"].toArray())));
    line(u"unit"_s, unit.isNull() ? unknown : u"%1 m"_s.arg(unit.toDouble()));
    line(u"up axis"_s, upAxis.isNull() ? unknown : upAxis.toString());
    line(u"triangles"_s, QString::number(model[u"triangles"].toInteger()));
    line(u"camera"_s, lineOf(model[u"camera"].toObject()));
    const QJsonArray materials = model[u"materials"].toArray();
    text += u"\nmeshes\n"_s;
    for (const QJsonValue value : model[u"meshes"].toArray()) {
        const QJsonObject mesh = value.toObject();
        const int numInstances = mesh[u"instances"].toInt();
        const QString material = materials[mesh[u"material"].toInt()].toObject()[u"name"].toString();
        text += u"  \"%1\": %2 triangles, %3 vertices, %4 instance%5, material \"%6\"\n"_s.arg(
            printable(mesh[u"name"].toString()), QString::number(mesh[u"triangles"].toInteger()),
            QString::number(mesh[u"vertices"].toInteger()), QString::number(numInstances),
            numInstances == 1 ? QString() : u"s"_s, printable(material));
    }
    text += u"\nmaterials\n"_s;
    for (const auto& value : materials) {
        const QJsonObject material = value.toObject();
        text += u"  \"%1\": Kd %2, Ks %3, Ns %4, d %5%6\n"_s.arg(
            printable(material[u"name"].toString()), lineOf(material[u"Kd"].toArray()),
            lineOf(material[u"Ks"].toArray()), QString::number(material[u"Ns"].toDouble()),
            QString::number(material[u"d"].toDouble()),
            material[u"doubleSided"].toBool() ? u", double-sided"_s : QString());
        for (const QString& map : {u"mapKd"_s, u"mapKs"_s}) {
            if (material.contains(map)) {
                text += textureText(map, material[map].toObject());
            }
        }
    }
    return text;
}

} // namespace

void declareModel(Arguments& options)
{
    options.describe(
        u"Prints the bounds, meshes, materials and textures of a model file, and the camera that "
        "\"qel render --model\" fits to it."_s);
    options.addPositional(u"FILE"_s, u"a model file"_s, false, ValueKind::File);
    options.addOption(u"json"_s, {}, u"prints JSON"_s);
}

ExitCode model(const Arguments& options)
{
    QString error;
    const std::optional<ModelData> data = importModel(options.positional(0), &error, {.isolated = true});
    if (!data) {
        throw Failure{ExitCode::WrongUse, {error}};
    }
    for (const QString& warning : data->warnings) {
        printNote(printable(warning));
    }
    const QJsonObject summary = summaryOf(*data, GraphDescription().viewport);
    print(options.isSet(u"json"_s) ? QString::fromUtf8(QJsonDocument(summary).toJson()) : textOf(summary));
    return ExitCode::Done;
}

} // namespace Morvane::Qel::App
