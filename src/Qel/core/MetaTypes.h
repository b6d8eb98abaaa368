#pragma once

#include <QMetaType>
#include <QVariant>

namespace Morvane::Qel {

/// Returns the metatype id of T*; the first call registers the fully qualified name.
template<class T>
int pointerMetaTypeId()
{
    static const int id = qRegisterMetaType<T*>();
    return id;
}

/// Returns the object that a value holds as T* or as QObject*; null if it holds anything else.
template<class T>
T* pointerFromVariant(const QVariant& value)
{
    if (value.userType() == pointerMetaTypeId<T>()) {
        return *static_cast<T* const*>(value.constData());
    }
    return qobject_cast<T*>(value.value<QObject*>());
}

} // namespace Morvane::Qel
