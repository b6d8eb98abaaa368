#include <Qel/graph/GraphDescription.h>

#include <QDir>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>

#include <algorithm>

#include <Qel/core/PassDescription.h>
#include <Qel/core/Text.h>
#include <Qel/graph/support/Names.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

QJsonValue valueFromText(const QString& text)
{
    const QJsonDocument list = QJsonDocument::fromJson((u'[' + text + u']').toUtf8());
    if (list.isArray() && list.array().size() == 1) {
        return list.array().first();
    }
    const QFileInfo file(text);
    return file.isFile() ? file.absoluteFilePath() : text;
}

} // namespace

QString GraphDescription::displayName() const
{
    return file.isEmpty() ? u"graph"_s : file;
}

QString GraphDescription::resolvePath(const QString& path) const
{
    if (path.isEmpty()) {
        return path;
    }
    const QString folder = file.isEmpty() ? QDir::currentPath() : QFileInfo(file).absolutePath();
    return QDir::cleanPath(QDir(folder).absoluteFilePath(path));
}

QString GraphDescription::placeOf(const ModelDescription& model) const
{
    return model.origin.isEmpty() ? u"%1: models.%2"_s.arg(displayName(), model.name) : model.origin;
}

void GraphDescription::replaceModel(const QString& modelFile, const QString& origin)
{
    const auto replaced = std::find_if(models.begin(), models.end(),
                                       [](const ModelDescription& model) { return model.merge.isEmpty(); });
    const QString newFile = QFileInfo(modelFile).absoluteFilePath();
    if (replaced != models.end()) {
        replaced->file = newFile;
        replaced->origin = origin;
    } else {
        models.push_back({.name = u"model"_s, .file = newFile, .origin = origin});
    }
    camera.reset();
}

bool GraphDescription::set(const QString& assignment, QString* error)
{
    const qsizetype equals = assignment.indexOf(u'=');
    const qsizetype dot = assignment.first(std::max<qsizetype>(equals, 0)).indexOf(u'.');
    if (dot < 1 || dot + 1 == equals) {
        *error = printable(u"\"%1\" is not an assignment; write PASS.PORT=VALUE"_s.arg(assignment));
        return false;
    }
    const QString name = assignment.first(dot);
    const QString port = assignment.sliced(dot + 1, equals - dot - 1);
    const auto pass = std::find_if(passes.begin(), passes.end(),
                                   [&](const PassSetting& candidate) { return candidate.name == name; });
    if (pass == passes.end()) {
        QStringList names;
        for (const PassSetting& candidate : passes) {
            names.append(candidate.name);
        }
        *error =
            printable(u"%1: %2: %3"_s.arg(displayName(), assignment, unknownName(u"pass"_s, name, names)));
        return false;
    }
    // One of the two may use the full name of the port and the other its short name.
    const auto sameName = [&](const InputSetting& input) {
        return input.port == port || PortName::parse(input.port).name == port ||
               input.port == PortName::parse(port).name;
    };
    std::erase_if(pass->inputs, sameName);
    pass->inputs.push_back({port, valueFromText(assignment.sliced(equals + 1))});
    return true;
}

} // namespace Morvane::Qel
