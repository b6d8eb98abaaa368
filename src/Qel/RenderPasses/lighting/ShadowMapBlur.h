#pragma once

#include <memory>

namespace Morvane::Qel {

class DrawBuffers;
class ShaderProgram;

/// Standard deviation of the shadow-map blur, in texels.
constexpr float shadowBlurSigma = 4.5F;

/// Builds the program that blurs one layer of an array of moments in one direction, with a Gaussian
/// whose weights are evaluated incrementally. Uniforms: "u_FrameSampler" (the array), "u_Index" (the layer)
/// and "u_Step" (one texel in texture coordinates). Errors are logged by the program.
std::unique_ptr<ShaderProgram> makeShadowBlurProgram();

/// Makes the full-screen quad that the blur draws. Its two triangles have opposite winding.
std::unique_ptr<DrawBuffers> makeShadowBlurQuad(const ShaderProgram& program);

} // namespace Morvane::Qel
