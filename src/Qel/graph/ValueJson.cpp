#include <Qel/graph/ValueJson.h>

#include <QColor>
#include <QJsonArray>
#include <QJsonDocument>
#include <QMatrix4x4>
#include <QRect>
#include <QSize>
#include <QVector2D>
#include <QVector3D>
#include <QVector4D>

#include <array>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

/// Returns the shortest decimal number that reads back as this float: 0.1, not 0.10000000149.
double shortest(float value)
{
    for (int digits = 6; digits < 9; ++digits) {
        const QString text = QString::number(static_cast<double>(value), 'g', digits);
        if (text.toFloat() == value) {
            return text.toDouble();
        }
    }
    return static_cast<double>(value);
}

template<size_t Count>
QJsonArray arrayFrom(const std::array<float, Count>& values)
{
    QJsonArray array;
    for (const float value : values) {
        array.append(shortest(value));
    }
    return array;
}

} // namespace

QJsonValue jsonFromValue(const QVariant& value)
{
    switch (value.userType()) {
    case QMetaType::UnknownType:
        return QJsonValue::Null;
    case QMetaType::Float:
        return shortest(value.toFloat());
    case QMetaType::QColor: {
        const auto color = value.value<QColor>();
        // Alpha comes last; Qt's own notation has it first.
        const QString alpha = u"%1"_s.arg(color.alpha(), 2, 16, QLatin1Char('0'));
        return color.name() + (color.alpha() == 255 ? QString() : alpha);
    }
    case QMetaType::QSize: {
        const QSize size = value.toSize();
        return QJsonArray{size.width(), size.height()};
    }
    case QMetaType::QRect: {
        const QRect rectangle = value.toRect();
        return QJsonArray{rectangle.x(), rectangle.y(), rectangle.width(), rectangle.height()};
    }
    case QMetaType::QVector2D: {
        const auto v = value.value<QVector2D>();
        return arrayFrom(std::array{v.x(), v.y()});
    }
    case QMetaType::QVector3D: {
        const auto v = value.value<QVector3D>();
        return arrayFrom(std::array{v.x(), v.y(), v.z()});
    }
    case QMetaType::QVector4D: {
        const auto v = value.value<QVector4D>();
        return arrayFrom(std::array{v.x(), v.y(), v.z(), v.w()});
    }
    case QMetaType::QMatrix4x4: {
        std::array<float, 16> rows;
        value.value<QMatrix4x4>().copyDataTo(rows.data());
        return arrayFrom(rows);
    }
    case QMetaType::QVariantList: {
        QJsonArray array;
        for (const QVariant& element : value.toList()) {
            array.append(jsonFromValue(element));
        }
        return array;
    }
    default:
        break;
    }
    const QMetaType type = value.metaType();
    if (type.flags() & (QMetaType::IsPointer | QMetaType::PointerToQObject)) {
        const void* pointer = *static_cast<void* const*>(value.constData());
        return pointer ? QJsonValue(QString::fromUtf8(type.name())) : QJsonValue(QJsonValue::Null);
    }
    const QJsonValue json = QJsonValue::fromVariant(value);
    return json.isNull() || type.id() >= QMetaType::User ? QJsonValue(QString::fromUtf8(type.name())) : json;
}

QString textFromValue(const QVariant& value)
{
    // Qt converts only whole documents to text.
    const QByteArray array = QJsonDocument(QJsonArray{jsonFromValue(value)}).toJson(QJsonDocument::Compact);
    return QString::fromUtf8(array.sliced(1, array.size() - 2));
}

} // namespace Morvane::Qel
