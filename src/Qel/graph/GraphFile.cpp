#include <Qel/graph/GraphFile.h>

#include <Qel/core/Text.h>
#include <Qel/graph/OutputFile.h>
#include <Qel/graph/support/GraphDocument.h>
#include <Qel/graph/support/GraphReader.h>
#include <Qel/graph/support/GraphWriter.h>
#include <Qel/graph/support/ImageErrors.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

std::optional<GraphDescription> loadGraph(const QString& file, QStringList* errors)
{
    QString what;
    const std::optional<QByteArray> text = readGraphText(file, largestGraphText, &what);
    if (!text) {
        errors->append(printable(u"%1: %2"_s.arg(file, what)));
        return {};
    }
    return readGraph(*text, file, errors);
}

std::optional<GraphDescription> loadGraph(QIODevice& device, const QString& name, QStringList* errors)
{
    // A limit, because a device or a pipe may never end.
    const QByteArray text = device.read(largestGraphText + 1);
    if (text.size() > largestGraphText) {
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
