#pragma once

#include <QMetaType>
#include <QVariant>

namespace Morvane::Qel {

/// The metatype id of T*, registered under its full qualified name on the first call.
template<class T>
int pointerMetaTypeId()
{
    static const int id = qRegisterMetaType<T*>();
    return id;
}

/// The T that a value carries, either typed or as a plain QObject*; null for everything else.
template<class T>
T* pointerFromVariant(const QVariant& value)
{
    const int id = pointerMetaTypeId<T>();
    if (value.userType() == id) {
        if (T* pointer = *static_cast<T* const*>(value.constData())) {
            return pointer;
        }
    } else if (id < QMetaType::User) {
        if (T* pointer = value.value<T*>()) {
            return pointer;
        }
    }
    return qobject_cast<T*>(value.value<QObject*>());
}

} // namespace Morvane::Qel
