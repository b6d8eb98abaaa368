#pragma once

#include <Qel/gl/Export.h>

namespace Morvane::Qel {

/// An object that can be bound to the context. Bindings nest: release restores what was bound before the
/// matching bind. Prefer AutoBinder to calling these functions directly.
class QEL_GL_EXPORT Bindable
{
public:
    virtual void bind() = 0;
    virtual void release() = 0;
    virtual ~Bindable();
};

} // namespace Morvane::Qel
