#include <Qel/graph/GraphFile.h>

#include <QFile>
#include <QFileInfo>
#include <QSaveFile>

#include <Qel/graph/support/GraphReader.h>
#include <Qel/graph/support/GraphWriter.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

std::optional<GraphDescription> loadGraph(const QString& file, QStringList* errors)
{
    QFile device(file);
    if (QFileInfo(file).isDir() || !device.open(QIODevice::ReadOnly)) {
        errors->append(u"%1: cannot be read: %2"_s.arg(file, QFileInfo(file).isDir() ? u"it is a folder"_s
                                                                                     : device.errorString()));
        return {};
    }
    return readGraph(device.readAll(), file, errors);
}

bool saveGraph(const GraphDescription& graph, const QString& file, const PassRegistry& registry,
               QString* error)
{
    const QByteArray text = graphText(graph, file, registry).toUtf8();
    QSaveFile device(file);
    if (!device.open(QIODevice::WriteOnly) || device.write(text) != text.size() || !device.commit()) {
        *error = u"%1: cannot be written: %2"_s.arg(file, device.errorString());
        return false;
    }
    return true;
}

} // namespace Morvane::Qel
