#include <Qel/graph/support/GraphWriter.h>

#include <QDir>
#include <QFileInfo>
#include <QMap>
#include <QSet>

#include <algorithm>
#include <array>
#include <charconv>

#include <Qel/graph/support/Constants.h>
#include <Qel/graph/support/LightKeys.h>
#include <Qel/graph/support/Parameters.h>
#include <Qel/graph/support/Ports.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

/// The shortest text that parses to the same float.
QString number(float value)
{
    std::array<char, 32> text;
    const auto result = std::to_chars(text.begin(), text.end(), value);
    return QString::fromLatin1(text.data(), result.ptr - text.data());
}

QString vectorText(const QVector3D& vector)
{
    return u"[%1, %2, %3]"_s.arg(number(vector.x()), number(vector.y()), number(vector.z()));
}

QString member(const QString& name, const QJsonValue& value)
{
    return jsonText(name) + u": "_s + jsonText(value);
}

QString orbitText(const OrbitDescription& orbit)
{
    QString text = uR"("turns": %1, "startAngle": %2, "elevation": %3)"_s.arg(
        number(orbit.turns), number(orbit.startAngle), number(orbit.elevation));
    if (orbit.distance != 0.0F) {
        text += u", \"distance\": %1"_s.arg(number(orbit.distance));
    }
    return orbit.target ? u"\"target\": %1, %2"_s.arg(vectorText(*orbit.target), text) : text;
}

QString cameraText(const CameraDescription& camera)
{
    QStringList members;
    const auto write = [&](const char* key, const QString& text) {
        members.append(u"\"%1\": %2"_s.arg(QLatin1StringView(key), text));
    };
    if (camera.orbit) {
        write("orbit", u"{%1}"_s.arg(orbitText(*camera.orbit)));
    } else {
        write("eye", vectorText(camera.eye));
        write("target", vectorText(camera.target));
        write("up", vectorText(camera.up));
    }
    if (camera.height) {
        write("height", number(*camera.height));
    } else {
        write("fovY", number(camera.fovY));
    }
    // With an orbit, planes of 0 are fitted.
    if (!camera.orbit || camera.nearPlane != 0.0F) {
        write("near", number(camera.nearPlane));
    }
    if (!camera.orbit || camera.farPlane != 0.0F) {
        write("far", number(camera.farPlane));
    }
    return u"{%1}"_s.arg(members.join(u", "_s));
}

/// The file alone if nothing else is set. `file` is its path as it must be written.
QString modelText(const ModelDescription& model, const QString& file)
{
    QStringList members;
    if (model.merge.isEmpty()) {
        members.append(member(u"file"_s, file));
    } else {
        QStringList parts;
        for (const QString& part : model.merge) {
            parts.append(jsonText(part));
        }
        members.append(u"\"merge\": [%1]"_s.arg(parts.join(u", "_s)));
    }
    const ModelPlacement initial;
    const ModelPlacement& placement = model.placement;
    const auto write = [&](const char* key, const QString& text, bool isNeeded) {
        if (isNeeded) {
            members.append(u"\"%1\": %2"_s.arg(QLatin1StringView(key), text));
        }
    };
    write("upAxis", jsonText(placement.upAxis), placement.upAxis != initial.upAxis);
    const QVector3D& scale = placement.scale;
    write("scale", scale.x() == scale.y() && scale.y() == scale.z() ? number(scale.x()) : vectorText(scale),
          scale != initial.scale);
    write("fit", number(placement.fit), placement.fit != initial.fit);
    write("rotate", vectorText(placement.rotate), placement.rotate != initial.rotate);
    write("translate", vectorText(placement.translate), placement.translate != initial.translate);
    return members.size() == 1 && model.merge.isEmpty() ? jsonText(file)
                                                        : u"{%1}"_s.arg(members.join(u", "_s));
}

/// Only keys that the type has, and optional ones only if they differ from their default.
QString lightText(const LightDescription& light)
{
    const LightDescription initial;
    QStringList members{member(u"type"_s, light.type)};
    const auto write = [&](const QString& key, const QString& text, bool isNeeded) {
        if (isNeeded && lightKeys(light.type).contains(key)) {
            members.append(u"%1: %2"_s.arg(jsonText(key), text));
        }
    };
    write(u"position"_s, vectorText(light.position), true);
    write(u"direction"_s, vectorText(light.direction), true);
    write(u"color"_s, vectorText(light.color), light.color != initial.color);
    write(u"intensity"_s, number(light.intensity), light.intensity != initial.intensity);
    write(u"angle"_s, number(light.angle), light.angle != initial.angle);
    write(u"range"_s, number(light.range), light.range != initial.range);
    write(u"cascades"_s, QString::number(light.cascades), light.cascades != initial.cascades);
    return u"{%1}"_s.arg(members.join(u", "_s));
}

QString viewportText(const QSize& viewport)
{
    return u"[%1, %2]"_s.arg(viewport.width()).arg(viewport.height());
}

/// Writes a graph as JSON.
class Writer
{
public:
    Writer(const GraphDescription& graph, const QString& file, const PassRegistry& registry)
        : m_graph(graph)
        , m_registry(registry)
        , m_folder(QFileInfo(file).absolutePath())
        , m_moves(m_folder != QFileInfo(graph.resolvePath(u"."_s)).absoluteFilePath())
    {
        for (const BoundValue& bound : graph.boundValues) {
            m_bound.insert(bound.place, bound.value);
        }
        if (!graph.parameters.empty()) {
            findPathParameters();
        }
    }

    QString text() const
    {
        QStringList parts;
        QStringList parameters;
        for (const ParameterDescription& parameter : m_graph.parameters) {
            parameters.append(member(parameter.name, parameterValue(parameter)));
        }
        if (!parameters.isEmpty()) {
            parts.append(u"\"parameters\": {%1}"_s.arg(parameters.join(u", "_s)));
        }
        parts.append(u"\"viewport\": "_s + bound(u"viewport"_s, viewportText(m_graph.viewport)));
        if (m_graph.camera) {
            parts.append(u"\"camera\": "_s + bound(u"camera"_s, cameraText(*m_graph.camera)));
        }
        if (m_graph.animation) {
            parts.append(u"\"animation\": {\"frames\": %1, \"fps\": %2}"_s.arg(m_graph.animation->frames)
                             .arg(number(m_graph.animation->fps)));
        }
        if (m_graph.settle != GraphDescription().settle) {
            parts.append(u"\"settle\": %1"_s.arg(m_graph.settle));
        }
        QStringList models;
        for (const ModelDescription& model : m_graph.models) {
            models.append(jsonText(model.name) + u": "_s +
                          bound(u"models."_s + model.name, modelText(model, pathText(model.file))));
        }
        if (!models.isEmpty()) {
            parts.append(u"\"models\": {%1}"_s.arg(models.join(u", "_s)));
        }
        QStringList lights;
        for (size_t i = 0; i < m_graph.lights.size(); ++i) {
            lights.append(bound(u"lights[%1]"_s.arg(i), lightText(m_graph.lights[i])));
        }
        if (!lights.isEmpty()) {
            parts.append(u"\"lights\": [%1]"_s.arg(lights.join(u", "_s)));
        }
        QStringList passes;
        for (const PassSetting& pass : m_graph.passes) {
            passes.append(u"\n    "_s + passText(pass));
        }
        parts.append(u"\"passes\": [%1\n  ]"_s.arg(passes.join(u',')));
        if (!m_graph.output.isEmpty()) {
            parts.append(member(u"output"_s, m_graph.output));
        }
        return u"{\n  %1\n}\n"_s.arg(parts.join(u",\n  "_s));
    }

private:
    /// A section with what it is bound to in place of the values in the first frame.
    QString bound(const QString& section, const QString& text) const
    {
        if (const auto whole = m_bound.constFind(section); whole != m_bound.constEnd()) {
            return jsonText(*whole);
        }
        const QString prefix = section + u'.';
        QJsonValue value = QJsonValue::Undefined;
        for (auto part = m_bound.lowerBound(prefix);
             part != m_bound.constEnd() && part.key().startsWith(prefix); ++part) {
            value = withMember(value.isUndefined() ? valueFromJson(text) : value,
                               part.key().sliced(prefix.size()).split(u'.'), *part);
        }
        return value.isUndefined() ? text : jsonText(value);
    }

    /// Finds the parameters that hold paths.
    void findPathParameters()
    {
        const Parameters parameters(m_graph);
        const auto note = [&](const QJsonValue& value) {
            const ResolvedValue resolved = parameters.resolve(value, 0.0);
            if (resolved.holder && !isReference(resolved.value) && resolved.keyed.isUndefined()) {
                m_pathParameters.insert(resolved.holder->name);
            }
        };
        for (const PassSetting& pass : m_graph.passes) {
            for (const InputSetting& input : pass.inputs) {
                if (isParameterUse(input.value) && isPathInput(pass, input)) {
                    note(input.value);
                }
            }
            for (auto option = pass.options.begin(); option != pass.options.end(); ++option) {
                if (isParameterUse(option.value()) && isPathOption(pass, option.key())) {
                    note(option.value());
                }
            }
        }
        for (const ModelDescription& model : m_graph.models) {
            note(m_bound.value(u"models."_s + model.name));
            note(m_bound.value(u"models.%1.file"_s.arg(model.name)));
        }
    }

    static bool isReference(const QJsonValue& value) { return value.toString().startsWith(u'@'); }

    /// The value of a parameter, as a path from the new file if one of its uses is a path.
    QJsonValue parameterValue(const ParameterDescription& parameter) const
    {
        return m_pathParameters.contains(parameter.name)
                   ? QJsonValue(pathText(parameter.value.toString(), parameter.source.file))
                   : parameter.value;
    }

    QString passText(const PassSetting& pass) const
    {
        QStringList members{member(u"name"_s, pass.name), member(u"type"_s, pass.type)};
        QStringList inputs;
        for (const InputSetting& input : pass.inputs) {
            inputs.append(
                member(input.port, isPathInput(pass, input)
                                       ? QJsonValue(pathText(input.value.toString(), pass.source.file))
                                       : input.value));
        }
        if (!inputs.isEmpty()) {
            members.append(u"\"inputs\": {%1}"_s.arg(inputs.join(u", "_s)));
        }
        QStringList options;
        for (auto option = pass.options.begin(); option != pass.options.end(); ++option) {
            options.append(
                member(option.key(), isPathOption(pass, option.key())
                                         ? QJsonValue(pathText(option.value().toString(), pass.source.file))
                                         : QJsonValue(option.value())));
        }
        if (!options.isEmpty()) {
            members.append(u"\"options\": {%1}"_s.arg(options.join(u", "_s)));
        }
        return u"{%1}"_s.arg(members.join(u", "_s));
    }

    /// A path as it must be written in the new file.
    QString pathText(const QString& path, const QString& writtenIn = {}) const
    {
        return (m_moves || !writtenIn.isEmpty()) && !path.isEmpty() && !path.startsWith(u'$') &&
                       QDir::isRelativePath(path)
                   ? QDir(m_folder).relativeFilePath(m_graph.resolvePath(path, writtenIn))
                   : path;
    }

    bool isPathInput(const PassSetting& pass, const InputSetting& input) const
    {
        const PassDescription* description = m_registry.description(pass.type);
        if (!description || !input.value.isString() || isReference(input.value)) {
            return false;
        }
        const Ports ports = portsOf(*description, pass.options[u"inputs"].toVariant().toStringList(), {});
        const QList<int> found = PortIndex(ports.inputs).find(input.port);
        return found.size() == 1 &&
               PortName::parse(ports.inputs[found[0]]).type == QLatin1StringView("QString");
    }

    bool isPathOption(const PassSetting& pass, const QString& name) const
    {
        const PassDescription* description = m_registry.description(pass.type);
        return description && std::any_of(description->options.begin(), description->options.end(),
                                          [&](const OptionDescription& option) {
                                              return option.isFile && option.name == name;
                                          });
    }

    const GraphDescription& m_graph;
    const PassRegistry& m_registry;
    QString m_folder;
    bool m_moves;
    QMap<QString, QJsonValue> m_bound;
    QSet<QString> m_pathParameters;
};

} // namespace

QString graphText(const GraphDescription& graph, const QString& file, const PassRegistry& registry)
{
    return Writer(graph, file, registry).text();
}

QJsonValue sectionJson(const GraphDescription& graph, const QString& section)
{
    if (section == QLatin1StringView("viewport")) {
        return valueFromJson(viewportText(graph.viewport));
    }
    if (section == QLatin1StringView("camera")) {
        return graph.camera ? valueFromJson(cameraText(*graph.camera)) : QJsonValue();
    }
    if (section.startsWith(QLatin1StringView("lights["))) {
        return valueFromJson(lightText(graph.lights.at(section.sliced(7).chopped(1).toULongLong())));
    }
    const auto model =
        std::find_if(graph.models.begin(), graph.models.end(),
                     [&](const ModelDescription& candidate) { return candidate.name == section.sliced(7); });
    return model == graph.models.end() ? QJsonValue() : valueFromJson(modelText(*model, model->file));
}

} // namespace Morvane::Qel
