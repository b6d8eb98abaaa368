#pragma once

namespace Morvane::Qel {

class OpenGLDeviceContext;

/// Routes the driver's messages to the log: errors and undefined behaviour to the critical channel, the rest
/// to the debug channel. With `synchronous`, messages arrive inside the call that causes them, which is
/// slower. Does nothing without KHR_debug. Private to this library.
void enableDebugOutput(const OpenGLDeviceContext& context, bool synchronous);

} // namespace Morvane::Qel
