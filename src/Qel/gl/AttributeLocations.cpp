#include <Qel/gl/AttributeLocations.h>

#include <QStringList>

#include <mutex>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

int attributeLocation(const QString& name)
{
    // The least GL_MAX_VERTEX_ATTRIBS that GL guarantees.
    constexpr qsizetype numLocations = 16;
    static std::mutex mutex;
    const std::lock_guard lock(mutex);
    static QStringList names{u"va_Vertex"_s, u"va_Normal"_s, u"va_TexCoord"_s};
    const qsizetype known = names.indexOf(name);
    if (known >= 0) {
        return static_cast<int>(known);
    }
    if (names.size() == numLocations) {
        return -1;
    }
    names.append(name);
    return static_cast<int>(names.size() - 1);
}

} // namespace Morvane::Qel
