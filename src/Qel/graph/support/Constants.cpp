#include <Qel/graph/support/Constants.h>

#include <QColor>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QMatrix4x4>
#include <QRect>
#include <QRegularExpression>
#include <QSize>
#include <QVector2D>
#include <QVector3D>
#include <QVector4D>

#include <array>
#include <cmath>
#include <limits>

#include <Qel/core/Text.h>
#include <Qel/graph/GraphDescription.h>
#include <Qel/graph/support/Ports.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

using Constant = std::optional<QVariant>;

std::optional<float> toFloat(const QJsonValue& value)
{
    const double number = value.toDouble();
    if (!value.isDouble() || std::abs(number) > static_cast<double>(std::numeric_limits<float>::max())) {
        return {};
    }
    return static_cast<float>(number);
}

std::optional<int> toInt(const QJsonValue& value)
{
    const double number = value.toDouble();
    if (!value.isDouble() || number != std::floor(number) || number < std::numeric_limits<int>::min() ||
        number > std::numeric_limits<int>::max()) {
        return {};
    }
    return static_cast<int>(number);
}

template<class T, size_t Count>
std::optional<std::array<T, Count>> toArray(const QJsonValue& value,
                                            std::optional<T> (*convert)(const QJsonValue&))
{
    const QJsonArray elements = value.toArray();
    if (!value.isArray() || elements.size() != static_cast<qsizetype>(Count)) {
        return {};
    }
    std::array<T, Count> result = {};
    for (size_t i = 0; i < Count; ++i) {
        const std::optional<T> element = convert(elements[static_cast<qsizetype>(i)]);
        if (!element) {
            return {};
        }
        result[i] = *element;
    }
    return result;
}

Constant toColor(const QJsonValue& value)
{
    if (value.isString()) {
        const QString text = value.toString();
        static const QRegularExpression form(u"^#([0-9a-fA-F]{6}|[0-9a-fA-F]{8})$"_s);
        if (!form.match(text).hasMatch()) {
            return {};
        }
        const unsigned int number = text.sliced(1).toUInt(nullptr, 16);
        if (text.size() == 7) {
            return QColor::fromRgb(number);
        }
        // The file has alpha last, QRgb has it first.
        return QColor::fromRgba((number >> 8) | (number << 24));
    }
    const auto channel = [](const QJsonValue& element) {
        const std::optional<int> number = toInt(element);
        return number && *number >= 0 && *number <= 255 ? number : std::nullopt;
    };
    if (const auto rgba = toArray<int, 4>(value, channel)) {
        return QColor((*rgba)[0], (*rgba)[1], (*rgba)[2], (*rgba)[3]);
    }
    if (const auto rgb = toArray<int, 3>(value, channel)) {
        return QColor((*rgb)[0], (*rgb)[1], (*rgb)[2]);
    }
    return {};
}

template<class T>
Constant wrapped(const std::optional<T>& value)
{
    return value ? Constant(QVariant::fromValue(*value)) : std::nullopt;
}

Constant toStringList(const QJsonValue& value)
{
    if (!value.isArray()) {
        return {};
    }
    QStringList result;
    for (const QJsonValue element : value.toArray()) {
        if (!element.isString()) {
            return {};
        }
        result.append(element.toString());
    }
    return result;
}

Constant toRect(const QJsonValue& value)
{
    const auto a = toArray<int, 4>(value, toInt);
    if (!a) {
        return std::nullopt;
    }
    const auto [x, y, width, height] = *a;
    // A QRect holds its last column and row as ints.
    const auto isExtent = [](int begin, int size) {
        return size >= 0 && qint64{begin} + size <= std::numeric_limits<int>::max();
    };
    return isExtent(x, width) && isExtent(y, height) ? Constant(QRect(x, y, width, height)) : std::nullopt;
}

struct Conversion
{
    QLatin1StringView type;
    const char* expected;
    Constant (*convert)(const QJsonValue&);
};

Constant toMatrix(const QJsonValue& value)
{
    const auto a = toArray<float, 16>(value, toFloat);
    return a ? Constant(QMatrix4x4(a->data())) : std::nullopt;
}

template<class Vector, size_t Count>
Constant toVector(const QJsonValue& value)
{
    const auto a = toArray<float, Count>(value, toFloat);
    if (!a) {
        return {};
    }
    Vector vector;
    for (size_t i = 0; i < Count; ++i) {
        vector[static_cast<int>(i)] = (*a)[i];
    }
    return QVariant::fromValue(vector);
}

Constant toBool(const QJsonValue& value)
{
    return value.isBool() ? Constant(value.toBool()) : std::nullopt;
}

const std::array conversions{
    Conversion{QLatin1StringView("bool"), "true or false", toBool},
    Conversion{QLatin1StringView("int"), "an integer",
               [](const QJsonValue& value) { return wrapped(toInt(value)); }},
    Conversion{QLatin1StringView("float"), "a number",
               [](const QJsonValue& value) { return wrapped(toFloat(value)); }},
    Conversion{QLatin1StringView("double"), "a number",
               [](const QJsonValue& value) -> Constant {
                   return value.isDouble() ? Constant(value.toDouble()) : std::nullopt;
               }},
    Conversion{QLatin1StringView("QString"), "a string",
               [](const QJsonValue& value) -> Constant {
                   return value.isString() ? Constant(value.toString()) : std::nullopt;
               }},
    Conversion{QLatin1StringView("QStringList"), "an array of strings", toStringList},
    Conversion{QLatin1StringView("QVariantList"), "an array [...]",
               [](const QJsonValue& value) -> Constant {
                   return value.isArray() ? Constant(value.toArray().toVariantList()) : std::nullopt;
               }},
    Conversion{QLatin1StringView("QColor"),
               "a colour such as \"#ff8000\", \"#ff800080\" or [255, 128, 0, 128]", toColor},
    Conversion{QLatin1StringView("QVector2D"), "two numbers [x, y]", toVector<QVector2D, 2>},
    Conversion{QLatin1StringView("QVector3D"), "three numbers [x, y, z]", toVector<QVector3D, 3>},
    Conversion{QLatin1StringView("QVector4D"), "four numbers [x, y, z, w]", toVector<QVector4D, 4>},
    Conversion{QLatin1StringView("QRect"), "four integers [x, y, width, height]", toRect},
    Conversion{QLatin1StringView("QSize"), "two integers [width, height]",
               [](const QJsonValue& value) -> Constant {
                   const auto a = toArray<int, 2>(value, toInt);
                   return a ? Constant(QSize((*a)[0], (*a)[1])) : std::nullopt;
               }},
    Conversion{QLatin1StringView("QMatrix4x4"), "16 numbers, row by row", toMatrix},
};

} // namespace

QString jsonText(const QJsonValue& value)
{
    // A JSON document is an object or an array, so wrap the value in an array.
    const QByteArray list = QJsonDocument(QJsonArray{value}).toJson(QJsonDocument::Compact);
    return QString::fromUtf8(list.sliced(1, list.size() - 2));
}

QJsonValue valueFromJson(const QString& text)
{
    const QJsonArray list = QJsonDocument::fromJson((u'[' + text + u']').toUtf8()).array();
    return list.size() == 1 ? list.first() : QJsonValue(QJsonValue::Undefined);
}

QJsonValue withMember(const QJsonValue& object, const QStringList& path, const QJsonValue& value)
{
    if (path.isEmpty()) {
        return value;
    }
    QJsonObject members = object.toObject();
    members[path[0]] = withMember(members[path[0]], path.sliced(1), value);
    return members;
}

QString shownValue(const QJsonValue& value)
{
    constexpr qsizetype longest = 60;
    return printable(jsonText(value), longest);
}

Constant constantFromJson(const QJsonValue& value, const QString& type, QString* error)
{
    if (value.isNull()) {
        return QVariant();
    }
    if (type == QLatin1StringView("QVariant")) {
        return value.toVariant();
    }
    for (const Conversion& conversion : conversions) {
        if (conversion.type == type) {
            Constant constant = conversion.convert(value);
            if (!constant) {
                *error =
                    u"must be %1, not %2"_s.arg(QLatin1StringView(conversion.expected), shownValue(value));
            }
            return constant;
        }
    }
    *error = type == QLatin1StringView("QelGPUModel*")
                 ? u"expects a model such as \"@scene\", not %1"_s.arg(shownValue(value))
                 : u"expects a connection such as \"@pass.Port\", not %1"_s.arg(shownValue(value));
    return {};
}

Constant portConstant(const GraphDescription& graph, const QString& port, const QJsonValue& value,
                      QString* error, const QString& writtenIn)
{
    const QString type = typeOf(port);
    Constant constant = constantFromJson(value, type, error);
    if (!constant || type != QLatin1StringView("QString") || constant->toString().isEmpty()) {
        return constant;
    }
    *error = fileError(graph, constant->toString(), writtenIn);
    return error->isEmpty() ? Constant(graph.resolvePath(constant->toString(), writtenIn)) : std::nullopt;
}

QString fileError(const GraphDescription& graph, const QString& path, const QString& writtenIn)
{
    const QFileInfo file(graph.resolvePath(path, writtenIn));
    if (path.isEmpty() || !file.isFile()) {
        return u"no file \"%1\""_s.arg(path.isEmpty() ? path : file.filePath());
    }
    return file.isReadable() ? QString() : u"file \"%1\" is not readable"_s.arg(file.filePath());
}

} // namespace Morvane::Qel
