#pragma once

#include <QMatrix4x4>
#include <QString>
#include <QVector3D>

#include <algorithm>
#include <cmath>

#include <assimp/types.h>

namespace Morvane::Qel {

inline QVector3D toQt(const aiVector3D& v)
{
    return {v.x, v.y, v.z};
}

inline QString toQt(const aiString& text)
{
    return QString::fromUtf8(text.C_Str());
}

inline QMatrix4x4 toQt(const aiMatrix4x4& m)
{
    return {m.a1, m.a2, m.a3, m.a4, m.b1, m.b2, m.b3, m.b4, m.c1, m.c2, m.c3, m.c4, m.d1, m.d2, m.d3, m.d4};
}

inline bool isFinite(const aiVector3D& v)
{
    return std::isfinite(v.x) && std::isfinite(v.y) && std::isfinite(v.z);
}

inline bool isFinite(const QMatrix4x4& m)
{
    return std::all_of(m.constData(), m.constData() + 16, [](float value) { return std::isfinite(value); });
}

} // namespace Morvane::Qel
