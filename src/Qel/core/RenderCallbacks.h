#pragma once

#include <Qel/core/Export.h>

namespace Morvane::Qel {

/// What a host hands to every operation of a frame, so that passes of its own can reach it. The passes of
/// this library ask nothing of it and accept null. A host derives from it and casts back in its own passes.
class QEL_CORE_EXPORT RenderCallbacks
{
public:
    virtual ~RenderCallbacks();
};

} // namespace Morvane::Qel
