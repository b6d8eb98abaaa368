#include "Dump.h"

#include <QJsonDocument>
#include <QJsonObject>

#include <Qel/core/MetaTypes.h>
#include <Qel/core/PassDescription.h>
#include <Qel/gl/Texture.h>
#include <Qel/graph/ImageIO.h>
#include <Qel/graph/OutputFile.h>
#include <Qel/graph/ValueJson.h>

#include "Console.h"
#include "Failure.h"
#include "Setup.h"

using namespace Qt::StringLiterals;

namespace Morvane::Qel::App {

void write(const Image& image, const QString& path)
{
    checkReports();
    QString error;
    if (!writeImage(image, path, &error)) {
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
    QJsonObject otherValues;
    for (const RenderGraph::Output& output : graph.outputs()) {
        const QString name = u"%1.%2"_s.arg(output.pass, PortName::parse(output.port).name);
        Texture* texture = pointerFromVariant<Texture>(output.value);
        if (!texture) {
            otherValues[name] = jsonFromValue(output.value);
            continue;
        }
        const std::vector<Image> images = readTexture(texture);
        for (size_t layer = 0; layer < images.size(); ++layer) {
            const QString number = images.size() > 1 ? u".%1"_s.arg(layer) : QString();
            write(images[layer], folder.filePath(name + number + u".exr"_s));
        }
    }
    OutputFile file(folder.filePath(u"outputs.json"_s));
    QString error;
    if (!file.openForWriting(&error)) {
        fail(error);
    }
    // A write that fails makes the commit fail with its cause.
    file.writeAll(QJsonDocument(otherValues).toJson());
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
