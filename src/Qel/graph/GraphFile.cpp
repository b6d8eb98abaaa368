#include <Qel/graph/GraphFile.h>

#include <QFile>
#include <QFileInfo>

#include <Qel/core/Text.h>
#include <Qel/graph/OutputFile.h>
#include <Qel/graph/support/GraphReader.h>
#include <Qel/graph/support/GraphWriter.h>
#include <Qel/graph/support/ImageErrors.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

std::optional<GraphDescription> loadGraph(const QString& file, QStringList* errors)
{
    QFile device(file);
    if (QFileInfo(file).isDir() || !device.open(QIODevice::ReadOnly)) {
        errors->append(printable(u"%1: cannot be read: %2"_s.arg(
            file, QFileInfo(file).isDir() ? u"it is a folder"_s : device.errorString())));
        return {};
    }
    return loadGraph(device, file, errors);
}

std::optional<GraphDescription> loadGraph(QIODevice& device, const QString& name, QStringList* errors)
{
    // A limit, because a device or a pipe may never end.
    constexpr qint64 largest = qint64{64} << 20;
    const QByteArray text = device.read(largest + 1);
    if (text.size() > largest) {
        errors->append(printable(u"%1: is larger than 64 MiB, the limit for a graph file"_s.arg(name)));
        return {};
    }
    return readGraph(text, name, errors);
}

bool saveGraph(const GraphDescription& graph, const QString& file, const PassRegistry& registry,
               QString* error)
{
    const QByteArray text = graphText(graph, file, registry).toUtf8();
    OutputFile device(file);
    return device.openForWriting(error) &&
           (device.writeAll(text) || writeError(error, file, device.errorString())) && device.commit(error);
}

} // namespace Morvane::Qel
