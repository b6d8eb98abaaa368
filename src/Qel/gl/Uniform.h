#pragma once

#include <QtGlobal>

#include <Qel/gl/Export.h>

namespace Morvane::Qel {

/// An active uniform of a linked program; the location is -1 if the program has no such uniform.
struct ActiveUniform
{
    int location = -1;
    unsigned int type = 0;
    int arraySize = 0;
};

/// A uniform's name together with its cached location and type.
///
/// Passes keep one for each uniform that they set, so that a steady frame does no look-up. The cache
/// refreshes itself when the handle is used with another program or with one that was rebuilt. `name` must
/// outlive the handle: use a literal.
class QEL_GL_EXPORT Uniform
{
public:
    explicit constexpr Uniform(const char* name)
        : m_name(name)
    {
    }
    const char* name() const { return m_name; }

private:
    friend class ShaderProgram;
    const char* m_name;
    quint64 m_buildSerial = 0;
    ActiveUniform m_active;
};

} // namespace Morvane::Qel
