#pragma once

#include <Qel/gl/Export.h>

namespace Morvane::Qel {

/// Something that is made current on the context. Bindings nest: release restores what was current before
/// the matching bind. Use AutoBinder rather than calling these by hand.
class QEL_GL_EXPORT Bindable
{
public:
    virtual void bind() = 0;
    virtual void release() = 0;
    virtual ~Bindable();
};

} // namespace Morvane::Qel
