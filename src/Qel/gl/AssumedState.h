#pragma once

namespace Morvane::Qel {

class OpenGLDeviceContext;

/// Gives the state that passes assume, but that neither the context records nor its base state covers, GL's
/// initial values. OpenGLDeviceContext::makeCurrent lists it. Internal to the library.
void restoreAssumedState(const OpenGLDeviceContext& context);

} // namespace Morvane::Qel
