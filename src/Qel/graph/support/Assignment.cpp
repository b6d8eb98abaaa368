// GraphDescription::set.

#include <QFileInfo>
#include <QRegularExpression>

#include <algorithm>

#include <Qel/core/PassDescription.h>
#include <Qel/core/Text.h>
#include <Qel/graph/GraphDescription.h>
#include <Qel/graph/PassRegistry.h>
#include <Qel/graph/support/BoundValues.h>
#include <Qel/graph/support/Constants.h>
#include <Qel/graph/support/Names.h>
#include <Qel/graph/support/Parameters.h>
#include <Qel/graph/support/Ports.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

QJsonValue valueFromText(const QString& text)
{
    QJsonValue value = valueFromJson(text);
    if (!value.isUndefined()) {
        return value;
    }
    const QFileInfo file(text);
    return file.isFile() ? file.absoluteFilePath() : text;
}

/// Whether a name is an option of a pass type, and no input.
bool isOption(const PassSetting& pass, const QString& name, const PassRegistry& registry)
{
    const PassDescription* description = registry.description(pass.type);
    if (!description) {
        return pass.options.contains(name);
    }
    const bool isInput = std::any_of(
        description->inputs.begin(), description->inputs.end(), [&](const InputDescription& input) {
            return input.name == name || PortName::parse(input.name).name == name;
        });
    return !isInput && std::any_of(description->options.begin(), description->options.end(),
                                   [&](const OptionDescription& option) { return option.name == name; });
}

void setPassValue(PassSetting* pass, const QString& name, const QJsonValue& value,
                  const PassRegistry& registry)
{
    if (isOption(*pass, name, registry)) {
        pass->options[name] = value;
        return;
    }
    // One of the two may use the full name of the port and the other its short name.
    std::erase_if(pass->inputs, [&](const InputSetting& input) {
        return input.port == name || PortName::parse(input.port).name == name ||
               input.port == PortName::parse(name).name;
    });
    pass->inputs.push_back({name, value});
}

/// A place in messages from one in an assignment, in which "lights.0" stands for "lights[0]".
QString memberPlace(const QString& target)
{
    static const QRegularExpression light(uR"(^lights\.(\d+))"_s);
    return QString(target).replace(light, uR"(lights[\1])"_s);
}

} // namespace

bool GraphDescription::set(const QString& assignment, QString* error)
{
    return set(assignment, PassRegistry::builtin(), error);
}

bool GraphDescription::set(const QString& assignment, const PassRegistry& registry, QString* error)
{
    const QString source = u"--set "_s + assignment;
    const auto fail = [&](const QString& what) {
        *error = printable(u"%1: %2"_s.arg(source, what));
        return false;
    };
    const qsizetype equals = assignment.indexOf(u'=');
    const QString target = assignment.first(std::max<qsizetype>(equals, 0));
    const qsizetype dot = target.indexOf(u'.');
    const QString name = dot < 0 ? target : target.first(dot);
    const QString member = dot < 0 ? QString() : target.sliced(dot + 1);
    if (name.isEmpty() || (dot >= 0 && member.isEmpty())) {
        return fail(u"is not an assignment; write PARAMETER=VALUE or PASS.PORT=VALUE"_s);
    }
    const QJsonValue value = valueFromText(assignment.sliced(equals + 1));

    const auto pass = std::find_if(passes.begin(), passes.end(),
                                   [&](const PassSetting& candidate) { return candidate.name == name; });
    if (pass != passes.end() && !member.isEmpty()) {
        setPassValue(&*pass, member, value, registry);
        assignments.insert(target, source);
        return true;
    }
    const Parameters known(*this);
    // A parameter of a graph that runs as a pass has the name of the pass before its own.
    int parameter = known.find(member.isEmpty() ? name : name + u'-' + member);
    const bool isScene = target == QLatin1StringView("viewport") || name == QLatin1StringView("camera") ||
                         name == QLatin1StringView("lights");
    QString what;
    if (parameter < 0 && isScene) {
        const QString place = memberPlace(target);
        if (!setMember(this, place, value, &what)) {
            return fail(what);
        }
        std::erase_if(boundValues, [&](const BoundValue& bound) { return bound.place == place; });
        assignments.insert(place, source);
        return true;
    }
    if (parameter < 0 && member.isEmpty()) {
        return fail(known.unknownError(name));
    }
    if (parameter < 0) {
        QStringList inside;
        for (const ParameterDescription& candidate : parameters) {
            if (candidate.name.startsWith(name + u'-')) {
                inside.append(candidate.name.sliced(name.size() + 1));
            }
        }
        if (!inside.isEmpty()) {
            return fail(u"the graph \"%1\" has %2"_s.arg(name, unknownName(u"parameter"_s, member, inside)));
        }
        QStringList names;
        for (const PassSetting& candidate : passes) {
            names.append(candidate.name);
        }
        return fail(unknownName(u"pass"_s, name, names));
    }
    const QString full = parameters[static_cast<size_t>(parameter)].name;
    if (!setParameter(full, value, &what)) {
        return fail(what);
    }
    assignments.insert(u"parameters."_s + full, source);
    return true;
}

} // namespace Morvane::Qel
