#include <Qel/graph/support/PortValues.h>

#include <QMetaType>

#include <algorithm>
#include <cmath>

#include <Qel/core/MetaTypes.h>
#include <Qel/gl/DrawBuffers.h>
#include <Qel/gl/Texture.h>
#include <Qel/model/GPUModel.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

template<class T>
bool holds(const QVariant& value)
{
    return pointerFromVariant<T>(value) != nullptr;
}

bool isNumber(QMetaType type)
{
    switch (type.id()) {
    case QMetaType::Int:
    case QMetaType::UInt:
    case QMetaType::LongLong:
    case QMetaType::ULongLong:
    case QMetaType::Float:
    case QMetaType::Double:
        return true;
    default:
        return false;
    }
}

/// Whether a value is a batch or a list of batches.
bool holdsBatches(const QVariant& value)
{
    const QVariantList list = value.toList();
    return list.isEmpty() ? holds<DrawBuffers>(value)
                          : std::all_of(list.begin(), list.end(), holds<DrawBuffers>);
}

bool fits(const QString& type, const QVariant& value)
{
    if (type == QLatin1StringView("QelTexture*")) {
        return holds<Texture>(value);
    }
    if (type == QLatin1StringView("QelGPUModel*")) {
        return holds<GPUModel>(value);
    }
    if (type == QLatin1StringView("QelDrawBuffers*")) {
        return holdsBatches(value);
    }
    if (type.startsWith(QLatin1StringView("QList"))) {
        return value.metaType() == QMetaType::fromType<QVariantList>();
    }
    const QMetaType expected = QMetaType::fromName(type.toUtf8());
    return type == QLatin1StringView("QVariant") || !expected.isValid() || value.metaType() == expected;
}

/// A number as another type of number; nothing if that changes it by more than float's rounding.
std::optional<QVariant> convertedNumber(const QString& type, const QVariant& value)
{
    const QMetaType expected = QMetaType::fromName(type.toUtf8());
    QVariant number = value;
    if (!isNumber(value.metaType()) || !isNumber(expected) || !number.convert(expected)) {
        return {};
    }
    const bool isExact = expected.id() == QMetaType::Float
                             ? std::isfinite(number.toDouble()) == std::isfinite(value.toDouble())
                             : number.toDouble() == value.toDouble();
    return isExact ? std::optional(number) : std::nullopt;
}

QString typeName(const QVariant& value)
{
    const auto* object = value.value<QObject*>();
    return object ? QLatin1StringView(object->metaObject()->className()) + u'*'
                  : QString::fromLatin1(value.typeName());
}

} // namespace

std::optional<QVariant> portValue(const QString& type, const QVariant& value, QString* error)
{
    if (!value.isValid() || fits(type, value)) {
        return value;
    }
    std::optional<QVariant> number = convertedNumber(type, value);
    if (!number) {
        *error = isNumber(value.metaType()) ? u"expects %1, not %2"_s.arg(type, value.toString())
                                            : u"expects %1, not %2"_s.arg(type, typeName(value));
    }
    return number;
}

} // namespace Morvane::Qel
