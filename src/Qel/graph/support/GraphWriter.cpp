#include <Qel/graph/support/GraphWriter.h>

#include <QDir>
#include <QFileInfo>

#include <algorithm>
#include <array>
#include <charconv>

#include <Qel/graph/support/Constants.h>
#include <Qel/graph/support/LightKeys.h>
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
    }

    QString text() const
    {
        QStringList parts;
        parts.append(
            u"\"viewport\": [%1, %2]"_s.arg(m_graph.viewport.width()).arg(m_graph.viewport.height()));
        if (m_graph.camera) {
            const CameraDescription& camera = *m_graph.camera;
            const QString extent = camera.height ? u"\"height\": "_s + number(*camera.height)
                                                 : u"\"fovY\": "_s + number(camera.fovY);
            parts.append(uR"("camera": {"eye": %1, "target": %2, "up": %3, %4, "near": %5, "far": %6})"_s.arg(
                vectorText(camera.eye), vectorText(camera.target), vectorText(camera.up), extent,
                number(camera.nearPlane), number(camera.farPlane)));
        }
        QStringList models;
        for (const ModelDescription& model : m_graph.models) {
            models.append(jsonText(model.name) + u": "_s + modelText(model));
        }
        if (!models.isEmpty()) {
            parts.append(u"\"models\": {%1}"_s.arg(models.join(u", "_s)));
        }
        QStringList lights;
        for (const LightDescription& light : m_graph.lights) {
            lights.append(lightText(light));
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
    static QString member(const QString& name, const QJsonValue& value)
    {
        return jsonText(name) + u": "_s + jsonText(value);
    }

    /// The file alone if nothing else is set.
    QString modelText(const ModelDescription& model) const
    {
        QStringList members;
        if (model.merge.isEmpty()) {
            members.append(member(u"file"_s, pathText(model.file)));
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
        write("scale",
              scale.x() == scale.y() && scale.y() == scale.z() ? number(scale.x()) : vectorText(scale),
              scale != initial.scale);
        write("fit", number(placement.fit), placement.fit != initial.fit);
        write("rotate", vectorText(placement.rotate), placement.rotate != initial.rotate);
        write("translate", vectorText(placement.translate), placement.translate != initial.translate);
        return members.size() == 1 && model.merge.isEmpty() ? jsonText(pathText(model.file))
                                                            : u"{%1}"_s.arg(members.join(u", "_s));
    }

    /// Only keys that the type has, and optional ones only if they differ from their default.
    static QString lightText(const LightDescription& light)
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

    QString passText(const PassSetting& pass) const
    {
        QStringList members{member(u"name"_s, pass.name), member(u"type"_s, pass.type)};
        QStringList inputs;
        for (const InputSetting& input : pass.inputs) {
            inputs.append(member(input.port, isPathInput(pass, input)
                                                 ? QJsonValue(pathText(input.value.toString()))
                                                 : input.value));
        }
        if (!inputs.isEmpty()) {
            members.append(u"\"inputs\": {%1}"_s.arg(inputs.join(u", "_s)));
        }
        QStringList options;
        for (auto option = pass.options.begin(); option != pass.options.end(); ++option) {
            options.append(member(option.key(), isPathOption(pass, option.key())
                                                    ? QJsonValue(pathText(option.value().toString()))
                                                    : QJsonValue(option.value())));
        }
        if (!options.isEmpty()) {
            members.append(u"\"options\": {%1}"_s.arg(options.join(u", "_s)));
        }
        return u"{%1}"_s.arg(members.join(u", "_s));
    }

    /// A path as it must be written in the new file.
    QString pathText(const QString& path) const
    {
        return m_moves && !path.isEmpty() && QDir::isRelativePath(path)
                   ? QDir(m_folder).relativeFilePath(m_graph.resolvePath(path))
                   : path;
    }

    bool isPathInput(const PassSetting& pass, const InputSetting& input) const
    {
        const PassDescription* description = m_registry.description(pass.type);
        if (!description || !input.value.isString() || input.value.toString().startsWith(u'@')) {
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
};

} // namespace

QString graphText(const GraphDescription& graph, const QString& file, const PassRegistry& registry)
{
    return Writer(graph, file, registry).text();
}

} // namespace Morvane::Qel
