#pragma once

namespace Morvane::Qel {

class OpenGLDeviceContext;

/// Sets the state that passes assume, and that neither the context's record nor its base state covers, to
/// GL's initial values. OpenGLDeviceContext::makeCurrent lists it. Private to this library.
void restoreAssumedState(const OpenGLDeviceContext& context);

} // namespace Morvane::Qel
