#include <Qel/graph/support/OptionReader.h>

#include <QJsonArray>

#include <set>

#include <Qel/graph/GraphDescription.h>
#include <Qel/graph/support/Constants.h>
#include <Qel/graph/support/GraphErrors.h>
#include <Qel/graph/support/Names.h>
#include <Qel/graph/support/Ports.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

/// The types that ports declared in a graph may have.
const QStringList portTypes{u"QelTexture*"_s, u"QelDrawBuffers*"_s, u"QelGPUModel*"_s,
                            u"float"_s,       u"double"_s,          u"int"_s,
                            u"bool"_s,        u"QString"_s,         u"QColor"_s,
                            u"QMatrix4x4"_s,  u"QVector2D"_s,       u"QVector3D"_s,
                            u"QVector4D"_s,   u"QRect"_s,           u"QSize"_s,
                            u"QVariant"_s};

} // namespace

PassOptions OptionReader::read(const PassSetting& setting, const PassDescription& description)
{
    PassOptions options;
    m_source = setting.source;
    readObject(setting.name, description.options, setting.options,
               u"%1 has no such option"_s.arg(setting.type), &options);
    if (description.hostDeclaresPorts) {
        for (const QString& option : {u"inputs"_s, u"outputs"_s}) {
            checkPortNames(setting.name + u'.' + option, options.value(option).toStringList());
        }
    }
    for (const OptionDescription& option : description.options) {
        if (option.isPerOutput && setting.options.contains(option.name)) {
            const QStringList outputs =
                portsOf(description, {}, options.value(u"outputs"_s).toStringList()).outputs;
            options[option.name] = readPerOutput(setting.name + u'.' + option.name, option,
                                                 setting.options[option.name], outputs);
        }
    }
    return options;
}

/// The options of a pass, or the members of an element of an option. `unknown` is the error for a name that
/// is not among them.
void OptionReader::readObject(const QString& place, const std::vector<OptionDescription>& known,
                              const QJsonObject& given, const QString& unknown, QVariantMap* values)
{
    QStringList names;
    for (const OptionDescription& option : known) {
        names.append(option.name);
        const auto value = given.find(option.name);
        // Per-output options need the others and follow later.
        const QVariant read = value == given.end() || option.isPerOutput
                                  ? QVariant()
                                  : readOption(place + u'.' + option.name, option, value.value());
        values->insert(option.name, read.isValid() ? read : option.defaultValue);
    }
    for (auto value = given.begin(); value != given.end(); ++value) {
        if (!names.contains(value.key())) {
            m_errors.add(place + u'.' + value.key(),
                         [&] { return unknown + suggestion(value.key(), names); });
        }
    }
}

/// Invalid after an error.
QVariant OptionReader::readOption(const QString& place, const OptionDescription& option,
                                  const QJsonValue& given)
{
    const ResolvedValue resolved = m_parameters.resolve(given, 0.0);
    if (!resolved.error.isEmpty()) {
        m_errors.add(place, resolved.error);
        return {};
    }
    const GraphErrors::InPlace scope(m_errors, m_source, resolved.holder);
    QVariant value = readValue(place, option, resolved);
    if (resolved.parameter && value.isValid()) {
        m_uses.push_back({place, given, m_source, -1, -1, !resolved.keyed.isUndefined(), true});
    }
    return value;
}

QVariant OptionReader::readValue(const QString& place, const OptionDescription& option,
                                 const ResolvedValue& given)
{
    QString error;
    const std::optional<QVariant> value =
        constantFromJson(given.value, QString::fromLatin1(option.defaultValue.metaType().name()), &error);
    if (!value || !value->isValid()) {
        m_errors.add(place, value ? u"must not be null"_s : error);
        return {};
    }
    if (!option.choices.isEmpty() && !option.choices.contains(value->toString())) {
        m_errors.add(place,
                     u"must be one of %1, not \"%2\""_s.arg(quoted(option.choices), value->toString()));
        return {};
    }
    if (option.isFile) {
        const QString file = given.file(m_source);
        m_errors.add(place, fileError(m_graph, value->toString(), file));
        return m_graph.resolvePath(value->toString(), file);
    }
    return option.members.empty() ? *value : readElements(place, option, given.value.toArray());
}

QVariantList OptionReader::readElements(const QString& place, const OptionDescription& option,
                                        const QJsonArray& elements)
{
    QVariantList values;
    for (qsizetype i = 0; i < elements.size(); ++i) {
        const QString elementPlace = u"%1[%2]"_s.arg(place).arg(i);
        if (!elements[i].isObject()) {
            m_errors.add(elementPlace, u"must be an object {...}, not %1"_s.arg(shownValue(elements[i])));
            continue;
        }
        QVariantMap members;
        readObject(elementPlace, option.members, elements[i].toObject(), u"unknown key"_s, &members);
        values.append(members);
    }
    return values;
}

/// The choices of an option by the full names of the outputs.
QVariantMap OptionReader::readPerOutput(const QString& place, const OptionDescription& option,
                                        const QJsonValue& given, const QStringList& outputs)
{
    QVariantMap values;
    if (!given.isObject()) {
        m_errors.add(place, u"must be an object such as {\"%1\": \"%2\"}, not %3"_s.arg(
                                PortName::parse(outputs.value(0, u"Frame"_s)).name, option.choices.first(),
                                shownValue(given)));
        return values;
    }
    const PortIndex index(outputs);
    const QJsonObject object = given.toObject();
    for (auto value = object.begin(); value != object.end(); ++value) {
        const QString valuePlace = place + u'.' + value.key();
        const QList<int> found = index.find(value.key());
        if (found.size() != 1) {
            m_errors.add(valuePlace, index.error(found, value.key(), u"the pass has no such output"_s));
        } else if (!outputs[found[0]].startsWith(u"Qel_QelTexture*_"_s)) {
            m_errors.add(valuePlace, u"is no texture, so it has no format"_s);
        } else if (!value.value().isString() || !option.choices.contains(value.value().toString())) {
            m_errors.add(valuePlace, u"must be one of %1, not %2"_s.arg(quoted(option.choices),
                                                                        shownValue(value.value())));
        } else {
            values[outputs[found[0]]] = value.value().toString();
        }
    }
    return values;
}

void OptionReader::checkPortNames(const QString& place, const QStringList& ports)
{
    std::set<QString> seen;
    for (const QString& port : ports) {
        const PortName name = PortName::parse(port);
        if (name.type.isEmpty() || name.name.isEmpty()) {
            m_errors.add(
                place,
                u"\"%1\" is not a port name; write Qel_TYPE_NAME, such as \"Qel_float_%1\""_s.arg(port));
        } else if (!portTypes.contains(name.type)) {
            m_errors.add(place, u"\"%1\" has an unknown type \"%2\"; the types are %3"_s.arg(
                                    port, name.type, portTypes.join(u", "_s)));
        } else if (!seen.insert(port).second) {
            m_errors.add(place, u"\"%1\" is listed twice"_s.arg(port));
        }
    }
}

} // namespace Morvane::Qel
