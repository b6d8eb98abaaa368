#pragma once

namespace Morvane::Qel {

class OpenGLDeviceContext;

/// Routes the driver's messages to the log: errors and undefined behaviour to the critical channel, the rest
/// to the debug channel. `synchronous` reports them where they happen, which is slower. Does nothing without
/// KHR_debug. Not installed.
void enableDebugOutput(const OpenGLDeviceContext& context, bool synchronous);

} // namespace Morvane::Qel
