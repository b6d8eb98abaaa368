#include <Qel/graph/GraphPlan.h>

#include <QHash>
#include <QJsonArray>

#include <algorithm>
#include <cmath>
#include <functional>
#include <set>

#include <Qel/model/ShadowMapManager.h>

#include <Qel/graph/support/Camera.h>
#include <Qel/graph/support/Constants.h>
#include <Qel/graph/support/FrameValues.h>
#include <Qel/graph/support/Ports.h>
#include <Qel/graph/support/Suggestions.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

const QLatin1StringView textureType("QelTexture*");
const QLatin1StringView modelType("QelGPUModel*");
const QLatin1StringView batchesType("QelDrawBuffers*");

/// The types that ports declared by a graph may have.
const QStringList& portTypes()
{
    static const QStringList types{u"QelTexture*"_s, u"QelDrawBuffers*"_s, u"QelGPUModel*"_s,
                                   u"float"_s,       u"double"_s,          u"int"_s,
                                   u"bool"_s,        u"QString"_s,         u"QColor"_s,
                                   u"QMatrix4x4"_s,  u"QVector2D"_s,       u"QVector3D"_s,
                                   u"QVector4D"_s,   u"QRect"_s,           u"QSize"_s,
                                   u"QVariant"_s};
    return types;
}

bool fits(const QString& from, const QString& to)
{
    return to == QLatin1StringView("QVariant") || from == to;
}

/// Whether a text can name a pass or a model: it stands in references, messages and file names.
bool isName(const QString& text)
{
    return !text.isEmpty() && std::all_of(text.begin(), text.end(), [](QChar c) {
        return c.isLetterOrNumber() || c == u'_' || c == u'-';
    });
}

bool isFinite(const QVector3D& v)
{
    return std::isfinite(v.x()) && std::isfinite(v.y()) && std::isfinite(v.z());
}

/// Resolves a description step by step and collects what is wrong with it. Whatever depends on something
/// already reported is passed over, so that a fault is reported once, where it was made.
class Planner
{
public:
    Planner(const GraphDescription& graph, const PassRegistry& registry, int maxTextureSize,
            QStringList* faults)
        : m_graph(graph)
        , m_registry(registry)
        , m_maxTextureSize(maxTextureSize)
        , m_faults(faults)
    {
    }

    std::optional<GraphPlan> run()
    {
        const qsizetype faultsBefore = m_faults->size();
        checkViewport();
        checkCamera();
        checkModels();
        checkLights();
        readPasses();
        readInputs();
        readOutput();
        findCycles();
        if (m_faults->size() > faultsBefore) {
            return {};
        }
        leaveOutUnused();
        putInOrder();
        return m_plan;
    }

private:
    struct PassState
    {
        const PassDescription* description = nullptr;
        QStringList inputs;
        /// Whether the ports are known; false where a fault hides them.
        bool known = false;
    };
    struct OutputReference
    {
        int pass = -1;
        int output = -1;
    };

    void fault(const QString& place, const QString& what)
    {
        m_faults->append(u"%1: %2: %3"_s.arg(m_graph.displayName(), place, what));
    }

    PlannedPass& pass(int index) { return m_plan.passes[static_cast<size_t>(index)]; }
    int numPasses() const { return static_cast<int>(m_plan.passes.size()); }

    void checkViewport()
    {
        if (const QString what = viewportFault(m_graph.viewport, m_maxTextureSize); !what.isEmpty()) {
            fault(u"viewport"_s, what);
        }
    }

    void checkCamera()
    {
        if (!m_graph.camera) {
            return;
        }
        const CameraDescription& camera = *m_graph.camera;
        const auto check = [&](bool good, const char* member, const char* what) {
            if (!good) {
                fault(QLatin1StringView("camera.") + QLatin1StringView(member), QLatin1StringView(what));
            }
        };
        check(isFinite(camera.eye) && isFinite(camera.target) && camera.eye != camera.target, "eye",
              "must differ from the target");
        const QVector3D ahead = (camera.target - camera.eye).normalized();
        check(camera.eye == camera.target ||
                  QVector3D::crossProduct(ahead, camera.up.normalized()).lengthSquared() > 1e-10F,
              "up", "must not be zero or lie along the line of sight");
        check(camera.fovY > 0.0F && camera.fovY < 180.0F, "fovY", "must be above 0 and below 180 degrees");
        check(camera.nearPlane > 0.0F, "near", "must be above 0");
        check(camera.farPlane > camera.nearPlane && std::isfinite(camera.farPlane), "far",
              "must be above \"near\"");
    }

    void checkModels()
    {
        std::set<QString> names;
        for (const ModelDescription& model : m_graph.models) {
            const QString place = QLatin1StringView("models.") + model.name;
            if (!isName(model.name)) {
                fault(place, u"\"%1\" is no name; use letters, digits, \"_\" and \"-\""_s.arg(model.name));
            } else if (findFrameValue(model.name) >= 0) {
                fault(place, u"\"@%1\" is a frame value; use another name"_s.arg(model.name));
            } else if (!names.insert(model.name).second) {
                fault(place, u"two models have this name"_s);
            }
            checkFile(place, model.file);
        }
    }

    void checkFile(const QString& place, const QString& path)
    {
        if (const QString what = fileFault(m_graph, path); !what.isEmpty()) {
            fault(place, what);
        }
    }

    void checkLights()
    {
        for (size_t i = 0; i < m_graph.lights.size(); ++i) {
            const LightDescription& light = m_graph.lights[i];
            const QString place = u"lights[%1]"_s.arg(i);
            const auto check = [&](bool good, const char* member, const QString& what) {
                if (!good) {
                    fault(place + u'.' + QLatin1StringView(member), what);
                }
            };
            static const QStringList types{u"directional"_s, u"spot"_s, u"point"_s};
            const qsizetype type = types.indexOf(light.type);
            const bool isDirectional = type == 0;
            const bool isSpot = type == 1;
            const bool isLamp = type > 0;
            check(type >= 0, "type",
                  u"no type of light \"%1\"%2"_s.arg(light.type, suggestion(light.type, types)));
            check(!isLamp || isFinite(light.position), "position", u"must be finite"_s);
            check(!(isDirectional || isSpot) || (isFinite(light.direction) && !light.direction.isNull()),
                  "direction", u"must not be zero"_s);
            const QVector3D& color = light.color;
            check(isFinite(color) && std::min({color.x(), color.y(), color.z()}) >= 0.0F, "color",
                  u"must be 0 or more"_s);
            check(std::isfinite(light.intensity) && light.intensity >= 0.0F, "intensity",
                  u"must be 0 or more"_s);
            check(!isSpot || (light.angle > 0.0F && light.angle <= 170.0F), "angle",
                  u"must be above 0 and at most 170 degrees"_s);
            check(!isLamp || (std::isfinite(light.range) && light.range >= 0.0F), "range",
                  u"must be 0 or more"_s);
            constexpr int most = ShadowMapManager::maxCascades;
            check(!isDirectional || (light.cascades >= 1 && light.cascades <= most), "cascades",
                  u"must be 1 to %1"_s.arg(most));
        }
    }

    /// Names, types, options and ports.
    void readPasses()
    {
        m_states.resize(m_graph.passes.size());
        m_plan.passes.resize(m_graph.passes.size());
        for (int i = 0; i < numPasses(); ++i) {
            const PassSetting& setting = m_graph.passes[static_cast<size_t>(i)];
            PassState& state = m_states[static_cast<size_t>(i)];
            pass(i).name = setting.name;
            pass(i).type = setting.type;
            if (!isName(setting.name)) {
                fault(u"passes[%1]"_s.arg(i),
                      u"\"%1\" is no name; use letters, digits, \"_\" and \"-\""_s.arg(setting.name));
            } else if (m_passNames.contains(setting.name)) {
                if (!m_repeatedNames.contains(setting.name)) {
                    m_repeatedNames.append(setting.name);
                    fault(setting.name, u"more than one pass has this name"_s);
                }
            } else {
                m_passNames.insert(setting.name, i);
                m_passNamesInOrder.append(setting.name);
            }
            state.description = m_registry.description(setting.type);
            if (!state.description) {
                fault(setting.name, u"no pass type \"%1\"%2"_s.arg(
                                        setting.type, suggestion(setting.type, m_registry.types())));
                continue;
            }
            const qsizetype faultsBefore = m_faults->size();
            readOptions(setting.name, state.description->options, setting.options,
                        u"%1 has no such option"_s.arg(setting.type), &pass(i).options);
            if (state.description->hostDeclaresPorts) {
                checkHostPorts(setting.name, u"inputs"_s, pass(i).options);
                checkHostPorts(setting.name, u"outputs"_s, pass(i).options);
            }
            const Ports ports = portsOf(*state.description, pass(i).options.value(u"inputs"_s).toStringList(),
                                        pass(i).options.value(u"outputs"_s).toStringList());
            state.inputs = ports.inputs;
            state.known = !state.description->hostDeclaresPorts || m_faults->size() == faultsBefore;
            pass(i).outputs = ports.outputs;
            for (const QString& port : ports.inputs) {
                pass(i).inputs.emplace_back().port = port;
            }
        }
    }

    /// Values of options, or of the members of an option's element: what is given, checked, and defaults for
    /// the rest. `unknown` is what is wrong with a name that is none of them.
    void readOptions(const QString& place, const std::vector<OptionDescription>& known,
                     const QJsonObject& given, const QString& unknown, QVariantMap* values)
    {
        QStringList names;
        for (const OptionDescription& option : known) {
            names.append(option.name);
            values->insert(option.name, option.defaultValue);
            const auto value = given.find(option.name);
            if (value != given.end()) {
                readOption(place + u'.' + option.name, option, value.value(), values);
            }
        }
        for (auto value = given.begin(); value != given.end(); ++value) {
            if (!names.contains(value.key())) {
                fault(place + u'.' + value.key(), unknown + suggestion(value.key(), names));
            }
        }
    }

    void readOption(const QString& place, const OptionDescription& option, const QJsonValue& given,
                    QVariantMap* values)
    {
        QString error;
        const std::optional<QVariant> value =
            constantFromJson(given, QString::fromLatin1(option.defaultValue.metaType().name()), &error);
        if (!value || !value->isValid()) {
            fault(place, value ? u"must not be null"_s : error);
            return;
        }
        if (!option.choices.isEmpty() && !option.choices.contains(value->toString())) {
            fault(place, u"must be one of %1, not \"%2\""_s.arg(quoted(option.choices), value->toString()));
            return;
        }
        if (option.isFile) {
            checkFile(place, value->toString());
            values->insert(option.name, m_graph.resolvePath(value->toString()));
            return;
        }
        values->insert(option.name,
                       option.members.empty() ? *value : readElements(place, option, given.toArray()));
    }

    QVariantList readElements(const QString& place, const OptionDescription& option, const QJsonArray& given)
    {
        QVariantList elements;
        for (qsizetype i = 0; i < given.size(); ++i) {
            const QString elementPlace = u"%1[%2]"_s.arg(place).arg(i);
            if (!given[i].isObject()) {
                fault(elementPlace, u"must be an object {...}, not %1"_s.arg(jsonText(given[i])));
                continue;
            }
            QVariantMap members;
            readOptions(elementPlace, option.members, given[i].toObject(), u"no such key"_s, &members);
            elements.append(members);
        }
        return elements;
    }

    void checkHostPorts(const QString& passName, const QString& option, const PassOptions& options)
    {
        std::set<QString> seen;
        for (const QString& port : options.value(option).toStringList()) {
            const PortName name = PortName::parse(port);
            const QString place = passName + u'.' + option;
            if (name.type.isEmpty() || name.name.isEmpty()) {
                fault(place,
                      u"\"%1\" is no port name; write Qel_TYPE_NAME such as \"Qel_float_%1\""_s.arg(port));
            } else if (!portTypes().contains(name.type)) {
                fault(place, u"\"%1\" has an unknown type \"%2\"%3"_s.arg(
                                 port, name.type, suggestion(name.type, portTypes())));
            } else if (!seen.insert(port).second) {
                fault(place, u"\"%1\" is listed twice"_s.arg(port));
            }
        }
    }

    /// The one port of a list that a name means; -1 with a fault when there is not exactly one.
    int findPort(const QStringList& ports, const QString& name, const QString& place, const QString& missing)
    {
        const QList<int> found = findPorts(ports, name);
        if (found.size() == 1) {
            return found[0];
        }
        fault(place, portFault(ports, found, name, missing));
        return -1;
    }

    void readInputs()
    {
        for (int i = 0; i < numPasses(); ++i) {
            const PassState& state = m_states[static_cast<size_t>(i)];
            if (!state.known) {
                continue;
            }
            QList<int> timesSet(state.inputs.size(), 0);
            for (const InputSetting& setting : m_graph.passes[static_cast<size_t>(i)].inputs) {
                const QString place = pass(i).name + u'.' + setting.port;
                const int port =
                    findPort(state.inputs, setting.port, place, u"%1 has no such input"_s.arg(pass(i).type));
                if (port < 0) {
                    continue;
                }
                if (++timesSet[port] > 1) {
                    if (timesSet[port] == 2) {
                        fault(place, u"set more than once"_s);
                    }
                    continue;
                }
                // A port that the graph gives a pass takes a single batch, and a model may have many.
                const bool isOwnPort = port < static_cast<int>(state.description->inputs.size());
                readInput(place, setting.value, isOwnPort, &pass(i).inputs[static_cast<size_t>(port)]);
            }
            for (qsizetype port = 0; port < timesSet.size(); ++port) {
                if (timesSet[port] == 0) {
                    setFrameValue(pass(i).name, &pass(i).inputs[static_cast<size_t>(port)]);
                }
            }
        }
    }

    void readInput(const QString& place, const QJsonValue& value, bool isOwnPort, PlannedInput* input)
    {
        const QString type = typeOf(input->port);
        if (value.isString() && value.toString().startsWith(u'@')) {
            const QString reference = value.toString().sliced(1);
            if (reference.contains(u'.')) {
                readConnection(place, reference, type, input);
            } else {
                const bool takesModel = fits(modelType, type) || (isOwnPort && type == batchesType);
                readNamedValue(place, reference, type, takesModel, input);
            }
            return;
        }
        QString error;
        const std::optional<QVariant> constant = portConstant(m_graph, input->port, value, &error);
        if (!constant) {
            fault(place, error);
            return;
        }
        input->source = InputSource::Constant;
        input->constant = *constant;
    }

    void readConnection(const QString& place, const QString& reference, const QString& type,
                        PlannedInput* input)
    {
        const std::optional<OutputReference> source = findOutput(place, reference);
        if (!source) {
            return;
        }
        const QString from = typeOf(pass(source->pass).outputs[source->output]);
        if (!fits(from, type)) {
            fault(place, u"takes %1, but \"@%2\" is %3"_s.arg(type, reference, from));
            return;
        }
        input->source = InputSource::Connection;
        input->pass = source->pass;
        input->output = source->output;
    }

    /// The output that "pass.Port" names; nothing with a fault, or without one where it is reported
    /// elsewhere.
    std::optional<OutputReference> findOutput(const QString& place, const QString& reference)
    {
        const qsizetype dot = reference.indexOf(u'.');
        const QString passName = reference.first(dot);
        const QString portName = reference.sliced(dot + 1);
        const auto found = m_passNames.find(passName);
        if (found == m_passNames.end()) {
            fault(place, u"no pass \"%1\"%2"_s.arg(passName, suggestion(passName, m_passNamesInOrder)));
            return {};
        }
        const int source = found.value();
        if (!m_states[static_cast<size_t>(source)].known) {
            return {};
        }
        const int output = findPort(pass(source).outputs, portName, place,
                                    u"pass \"%1\" has no output \"%2\""_s.arg(passName, portName));
        if (output < 0) {
            return {};
        }
        return OutputReference{source, output};
    }

    void readNamedValue(const QString& place, const QString& name, const QString& type, bool takesModel,
                        PlannedInput* input)
    {
        const auto model =
            std::find_if(m_graph.models.begin(), m_graph.models.end(),
                         [&](const ModelDescription& candidate) { return candidate.name == name; });
        if (model != m_graph.models.end()) {
            if (!takesModel) {
                fault(place, u"takes %1, but \"@%2\" is a model"_s.arg(type, name));
                return;
            }
            input->source = InputSource::Model;
            input->model = static_cast<int>(model - m_graph.models.begin());
            return;
        }
        if (const int frameValue = findFrameValue(name); frameValue >= 0) {
            const QString from = frameValueNames[static_cast<size_t>(frameValue)].type;
            if (!fits(from, type)) {
                fault(place, u"takes %1, but \"@%2\" is %3"_s.arg(type, name, from));
                return;
            }
            input->source = InputSource::FrameValue;
            input->frameValue = name;
            return;
        }
        if (const auto found = m_passNames.find(name); found != m_passNames.end()) {
            const QStringList outputs = ownNames(pass(found.value()).outputs);
            fault(place, outputs.isEmpty() ? u"pass \"%1\" has no outputs"_s.arg(name)
                                           : u"\"@%1\" is a pass; write \"@%1.%2\""_s.arg(name, outputs[0]));
            return;
        }
        QStringList names;
        for (const ModelDescription& candidate : m_graph.models) {
            names.append(candidate.name);
        }
        for (const FrameValueName& value : frameValueNames) {
            names.append(value.name);
        }
        fault(place, u"no model or frame value \"%1\"%2"_s.arg(name, suggestion(name, names)));
    }

    /// Gives an input that the graph leaves alone the frame value of its name.
    void setFrameValue(const QString& passName, PlannedInput* input)
    {
        const PortName port = PortName::parse(input->port);
        if (port.name == QLatin1StringView("Geometry") && port.type == modelType) {
            if (m_graph.models.size() == 1) {
                input->source = InputSource::Model;
                input->model = 0;
            } else if (m_graph.models.size() > 1) {
                fault(passName + u'.' + port.name,
                      u"the graph has %1 models; say which, such as \"@%2\""_s.arg(m_graph.models.size())
                          .arg(m_graph.models.front().name));
            }
            return;
        }
        const int frameValue = findFrameValue(port.name);
        if (frameValue >= 0 && frameValueNames[static_cast<size_t>(frameValue)].type == port.type) {
            input->source = InputSource::FrameValue;
            input->frameValue = port.name;
        }
    }

    void readOutput()
    {
        const QString place = u"output"_s;
        if (m_graph.output.isEmpty()) {
            const bool hasSink =
                std::any_of(m_plan.passes.begin(), m_plan.passes.end(),
                            [](const PlannedPass& candidate) { return candidate.outputs.isEmpty(); });
            if (!hasSink) {
                fault(place, u"the graph has no output and no pass that draws to the screen; write "
                             "\"output\": \"@pass.Port\""_s);
            }
            return;
        }
        if (!m_graph.output.startsWith(u'@') || !m_graph.output.contains(u'.')) {
            fault(place, u"must be \"@pass.Port\", not \"%1\""_s.arg(m_graph.output));
            return;
        }
        const std::optional<OutputReference> source = findOutput(place, m_graph.output.sliced(1));
        if (!source) {
            return;
        }
        const QString type = typeOf(pass(source->pass).outputs[source->output]);
        if (type != textureType) {
            fault(place, u"must be a texture, but \"%1\" is %2"_s.arg(m_graph.output, type));
            return;
        }
        m_plan.outputPass = source->pass;
        m_plan.outputPort = source->output;
    }

    /// Walks from each pass to its sources; a source that is already on the way closes a cycle.
    void findCycles()
    {
        enum class Visit
        {
            Not,
            UnderWay,
            Done
        };
        std::vector<Visit> visits(m_plan.passes.size(), Visit::Not);
        std::vector<int> path;
        const std::function<void(int)> visit = [&](int index) {
            visits[static_cast<size_t>(index)] = Visit::UnderWay;
            path.push_back(index);
            for (const PlannedInput& input : pass(index).inputs) {
                if (input.source != InputSource::Connection) {
                    continue;
                }
                const Visit state = visits[static_cast<size_t>(input.pass)];
                if (state == Visit::Not) {
                    visit(input.pass);
                } else if (state == Visit::UnderWay) {
                    reportCycle({std::find(path.begin(), path.end(), input.pass), path.end()});
                }
            }
            path.pop_back();
            visits[static_cast<size_t>(index)] = Visit::Done;
        };
        for (int i = 0; i < numPasses(); ++i) {
            if (visits[static_cast<size_t>(i)] == Visit::Not) {
                visit(i);
            }
        }
    }

    /// `members` each read from the next, the last from the first.
    void reportCycle(std::vector<int> members)
    {
        std::rotate(members.begin(), std::min_element(members.begin(), members.end()), members.end());
        QStringList names{pass(members.front()).name};
        for (auto member = members.rbegin(); member != members.rend(); ++member) {
            names.append(pass(*member).name);
        }
        // Two connections between the same passes close the same cycle.
        if (m_cycles.insert(names).second) {
            fault(names.front(), u"waits for its own output: %1"_s.arg(names.join(u" -> "_s)));
        }
    }

    void leaveOutUnused()
    {
        std::vector<bool> needed(m_plan.passes.size());
        const std::function<void(int)> need = [&](int index) {
            if (needed[static_cast<size_t>(index)]) {
                return;
            }
            needed[static_cast<size_t>(index)] = true;
            for (const PlannedInput& input : pass(index).inputs) {
                if (input.source == InputSource::Connection) {
                    need(input.pass);
                }
            }
        };
        std::vector<QStringList> readers(m_plan.passes.size());
        for (int i = 0; i < numPasses(); ++i) {
            if (i == m_plan.outputPass || pass(i).outputs.isEmpty()) {
                need(i);
            }
            for (const PlannedInput& input : pass(i).inputs) {
                if (input.source == InputSource::Connection &&
                    !readers[static_cast<size_t>(input.pass)].contains(pass(i).name)) {
                    readers[static_cast<size_t>(input.pass)].append(pass(i).name);
                }
            }
        }
        for (int i = 0; i < numPasses(); ++i) {
            if (!needed[static_cast<size_t>(i)]) {
                const QStringList& names = readers[static_cast<size_t>(i)];
                pass(i).leftOut =
                    names.isEmpty()
                        ? u"nothing reads its outputs"_s
                        : u"only passes that are left out read its outputs: %1"_s.arg(names.join(u", "_s));
            }
        }
    }

    /// Each time the first pass of the file whose sources have all run.
    void putInOrder()
    {
        std::vector<bool> done(m_plan.passes.size());
        const auto ready = [&](int index) {
            return !done[static_cast<size_t>(index)] && pass(index).leftOut.isEmpty() &&
                   std::all_of(pass(index).inputs.begin(), pass(index).inputs.end(),
                               [&](const PlannedInput& input) {
                                   return input.source != InputSource::Connection ||
                                          done[static_cast<size_t>(input.pass)];
                               });
        };
        for (int i = 0; i < numPasses();) {
            if (ready(i)) {
                done[static_cast<size_t>(i)] = true;
                m_plan.order.push_back(i);
                i = 0;
            } else {
                ++i;
            }
        }
    }

    const GraphDescription& m_graph;
    const PassRegistry& m_registry;
    int m_maxTextureSize;
    QStringList* m_faults;
    GraphPlan m_plan;
    std::vector<PassState> m_states;
    QHash<QString, int> m_passNames;
    QStringList m_passNamesInOrder;
    QStringList m_repeatedNames;
    std::set<QStringList> m_cycles;
};

} // namespace

std::optional<GraphPlan> planGraph(const GraphDescription& graph, const PassRegistry& registry,
                                   int maxTextureSize, QStringList* faults)
{
    return Planner(graph, registry, maxTextureSize, faults).run();
}

} // namespace Morvane::Qel
