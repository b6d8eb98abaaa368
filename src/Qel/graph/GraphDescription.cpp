#include <Qel/graph/GraphDescription.h>

#include <QDir>
#include <QFileInfo>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

QString GraphDescription::displayName() const
{
    return file.isEmpty() ? u"graph"_s : file;
}

QString GraphDescription::resolvePath(const QString& path, const QString& writtenIn) const
{
    if (path.isEmpty()) {
        return path;
    }
    const QString& from = writtenIn.isEmpty() ? file : writtenIn;
    const QString folder = from.isEmpty() ? QDir::currentPath() : QFileInfo(from).absolutePath();
    return QDir::cleanPath(QDir(folder).absoluteFilePath(path));
}

void GraphDescription::replaceModel(const QString& modelFile)
{
    if (models.empty()) {
        models.push_back({u"model"_s, {}});
    }
    models.front().file = QFileInfo(modelFile).absoluteFilePath();
    camera.reset();
    std::erase_if(boundValues, [](const BoundValue& bound) { return bound.place.startsWith(u"camera"); });
}

} // namespace Morvane::Qel
