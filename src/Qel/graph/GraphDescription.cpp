#include <Qel/graph/GraphDescription.h>

#include <QDir>
#include <QFileInfo>

#include <algorithm>

#include <Qel/graph/support/BoundValues.h>
#include <Qel/graph/support/Parameters.h>

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

QString GraphDescription::placeOf(const ModelDescription& model) const
{
    return model.origin.isEmpty() ? u"%1: models.%2"_s.arg(displayName(), model.name) : model.origin;
}

QJsonValue GraphDescription::resolved(const QJsonValue& value, double frame) const
{
    const ResolvedValue found = Parameters(*this).resolve(value, frame);
    return found.error.isEmpty() ? found.value : QJsonValue();
}

bool GraphDescription::setParameter(const QString& name, const QJsonValue& value, QString* error)
{
    const Parameters known(*this);
    const int index = known.find(name);
    if (index < 0) {
        *error = known.unknownError(name);
        return false;
    }
    ParameterDescription& parameter = parameters[static_cast<size_t>(index)];
    const ParameterDescription before = parameter;
    parameter.value = value;
    parameter.source = {};
    const auto follows = [&](const BoundValue& bound) { return known.leadsTo(bound.value, name); };
    if (!updateBoundValues(this, follows, 0.0, error)) {
        parameter = before;
        return false;
    }
    return true;
}

void GraphDescription::replaceModel(const QString& modelFile, const QString& origin)
{
    const auto replaced = std::find_if(models.begin(), models.end(),
                                       [](const ModelDescription& model) { return model.merge.isEmpty(); });
    const QString newFile = QFileInfo(modelFile).absoluteFilePath();
    if (replaced != models.end()) {
        replaced->file = newFile;
        replaced->origin = origin;
        const QString place = u"models."_s + replaced->name;
        std::erase_if(boundValues, [&](const BoundValue& bound) {
            return bound.place == place || bound.place == place + u".file"_s;
        });
    } else {
        models.push_back({.name = u"model"_s, .file = newFile, .origin = origin});
    }
    removeCamera();
}

void GraphDescription::removeCamera()
{
    camera.reset();
    std::erase_if(boundValues, [](const BoundValue& bound) { return bound.isOf(u"camera"_s); });
}

} // namespace Morvane::Qel
