#pragma once

#include <Qel/core/Export.h>

namespace Morvane::Qel {

/// An object that the host passes to every call, so that its own passes can reach the host. A host derives
/// from it and casts back in its own passes. The passes of this library ignore it and accept null.
class QEL_CORE_EXPORT RenderCallbacks
{
public:
    virtual ~RenderCallbacks();
};

} // namespace Morvane::Qel
