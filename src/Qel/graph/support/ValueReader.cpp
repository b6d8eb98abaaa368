#include <Qel/graph/support/ValueReader.h>

#include <Qel/graph/support/Constants.h>
#include <Qel/graph/support/GraphDocument.h>
#include <Qel/graph/support/GraphErrors.h>
#include <Qel/graph/support/Keys.h>
#include <Qel/graph/support/Names.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

ValueReader::ValueReader(const GraphDocument& document, const QString& own, GraphDescription* graph)
    : m_file(document.file)
    , m_own(own)
    , m_keys(document.text)
    , m_graph(*graph)
    , m_numIncludedLights(graph->lights.size())
{
}

bool ValueReader::report(QStringList* messages)
{
    GraphErrors errors(m_file, messages);
    const QStringList places = m_paths.isEmpty() ? QStringList() : m_keys.places(m_paths);
    for (qsizetype i = 0; i < places.size(); ++i) {
        errors.addLine(u"%1:%2: %3%4"_s.arg(
            m_file, places[i], m_paths[i].isEmpty() ? QString() : m_paths[i] + u": "_s, m_causes[i]));
    }
    errors.addUnkept(m_numUnkept);
    for (const JsonKeys::Key& repeated : m_keys.repeatedKeys()) {
        errors.addLine(u"%1:%2: %3: duplicate key"_s.arg(m_file, repeated.place,
                                                         memberPath(repeated.object, repeated.key)));
    }
    errors.addUnkept(m_keys.numRepeatedKeys() - static_cast<qsizetype>(m_keys.repeatedKeys().size()));
    return errors.count() == 0;
}

QString ValueReader::memberPath(const QString& path, const QString& key)
{
    return JsonKeys::memberPath(path, key);
}

void ValueReader::error(const QString& path, const QString& what)
{
    if (what.isEmpty()) {
        return;
    }
    if (m_paths.size() < GraphErrors::most) {
        m_paths.append(path);
        m_causes.append(what);
    } else {
        ++m_numUnkept;
    }
}

QJsonObject ValueReader::object(const QJsonValue& value, const QString& path, const QStringList& known)
{
    if (!value.isObject() && !value.isUndefined()) {
        error(path, u"must be an object {...}, not %1"_s.arg(shownValue(value)));
    }
    QJsonObject result = value.toObject();
    for (const QString& key : value.toObject().keys()) {
        if (!known.isEmpty() && !known.contains(key)) {
            error(memberPath(path, key), u"unknown key"_s + suggestion(key, known));
        }
    }
    if (path.startsWith(QLatin1StringView("camera")) || path.startsWith(QLatin1StringView("lights[")) ||
        path.startsWith(QLatin1StringView("models"))) {
        for (auto member = result.begin(); member != result.end(); ++member) {
            member.value() = bound(member.value(), memberPath(path, member.key()));
        }
    }
    return result;
}

QJsonValue ValueReader::bound(const QJsonValue& value, const QString& path)
{
    if (!m_parameters || (!isParameterUse(value) && !isKeyed(value))) {
        return value;
    }
    if (isKeyed(value)) {
        if (const std::optional<KeysError> wrong = keysError(value)) {
            error(memberPath(path, wrong->path), wrong->what);
            m_unresolved.insert(path);
            return value;
        }
    }
    const ResolvedValue resolved = m_parameters->resolve(value, 0.0);
    if (!resolved.error.isEmpty()) {
        error(path, resolved.error);
        m_unresolved.insert(path);
        return value;
    }
    QString place = path;
    if (path.startsWith(QLatin1StringView("lights["))) {
        const QStringView index = QStringView(path).sliced(7, path.indexOf(u']') - 7);
        place = u"lights[%1]%2"_s.arg(index.toULongLong() + m_numIncludedLights)
                    .arg(path.sliced(path.indexOf(u']') + 1));
    }
    m_graph.boundValues.push_back({place, value, source(path.section(u'.', 0, 1))});
    m_bound.insert(path, {resolved.parameter ? resolved.parameter->name : QString(), resolved.file({m_own})});
    return resolved.value;
}

void ValueReader::unbind(const QString& section)
{
    std::erase_if(m_graph.boundValues,
                  [&](const BoundValue& bound) { return bound.place.section(u'.', 0, 0) == section; });
}

QJsonArray ValueReader::array(const QJsonValue& value, const QString& path)
{
    if (!value.isArray() && !value.isUndefined()) {
        error(path, u"must be an array [...], not %1"_s.arg(shownValue(value)));
    }
    return value.toArray();
}

QVariant ValueReader::constant(const QJsonValue& value, const QString& type, const QString& path)
{
    if (m_unresolved.contains(path)) {
        return {};
    }
    QString message;
    const std::optional<QVariant> result = constantFromJson(value, type, &message);
    if (!result || !result->isValid()) {
        error(path, (result ? u"must not be null"_s : message) + parameterNote(path));
        return {};
    }
    return *result;
}

QString ValueReader::parameterNote(const QString& path) const
{
    const QString parameter = m_bound.value(path).parameter;
    return parameter.isEmpty() ? QString() : u", the value of the parameter \"%1\""_s.arg(parameter);
}

QString ValueReader::string(const QJsonObject& parent, const QString& path, const QString& key)
{
    return parent.contains(key) ? constant(parent[key], u"QString"_s, memberPath(path, key)).toString()
                                : QString();
}

QString ValueReader::requiredString(const QJsonObject& parent, const QString& path, const QString& key)
{
    if (!parent.contains(key)) {
        error(path, u"\"%1\" is missing"_s.arg(key));
    }
    return string(parent, path, key);
}

} // namespace Morvane::Qel
