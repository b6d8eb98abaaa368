#include <Qel/graph/support/Parameters.h>

#include <Qel/graph/support/Keys.h>
#include <Qel/graph/support/Names.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

/// The longest chain of parameters that stand for others.
constexpr int longestChain = 64;

} // namespace

bool isParameterUse(const QJsonValue& value)
{
    return value.isString() && value.toString().startsWith(u'$');
}

Parameters::Parameters(const GraphDescription& graph)
    : m_parameters(graph.parameters)
{
    for (size_t i = m_parameters.size(); i-- > 0;) {
        m_indices.insert(m_parameters[i].name, static_cast<int>(i));
    }
}

ResolvedValue Parameters::resolve(const QJsonValue& value, double frame) const
{
    ResolvedValue result{value};
    for (int steps = 0; isParameterUse(result.value); ++steps) {
        const QString name = result.value.toString().sliced(1);
        const int index = find(name);
        if (index < 0) {
            result.error = unknownError(name);
            return result;
        }
        if (steps > longestChain) {
            result.error = u"the parameter \"%1\" stands for itself, or for a chain of more than %2 others"_s
                               .arg(result.parameter->name)
                               .arg(longestChain);
            return result;
        }
        result.holder = &m_parameters[static_cast<size_t>(index)];
        result.parameter = result.parameter ? result.parameter : result.holder;
        result.value = result.holder->value;
    }
    if (isKeyed(result.value)) {
        if (const std::optional<KeysError> wrong = keysError(result.value)) {
            result.error = u"%1: %2"_s.arg(wrong->path, wrong->what);
            return result;
        }
        result.keyed = result.value;
        result.value = valueAt(result.keyed, frame);
    }
    return result;
}

bool Parameters::leadsTo(const QJsonValue& value, const QString& name) const
{
    QJsonValue at = value;
    for (int steps = 0; isParameterUse(at) && steps <= longestChain; ++steps) {
        const QString used = at.toString().sliced(1);
        if (used == name) {
            return true;
        }
        const int index = find(used);
        at = index < 0 ? QJsonValue() : m_parameters[static_cast<size_t>(index)].value;
    }
    return false;
}

QString Parameters::unknownError(const QString& name) const
{
    if (m_parameters.empty()) {
        return u"no parameter \"%1\"; the graph has no \"parameters\""_s.arg(name);
    }
    // Of many, the nearest one is not worth the time.
    constexpr size_t many = 50;
    if (m_parameters.size() > many) {
        return u"no parameter \"%1\""_s.arg(name);
    }
    QStringList names;
    for (const ParameterDescription& parameter : m_parameters) {
        names.append(parameter.name);
    }
    return unknownName(u"parameter"_s, name, names);
}

} // namespace Morvane::Qel
