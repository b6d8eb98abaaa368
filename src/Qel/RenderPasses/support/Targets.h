#pragma once

#include <QStringList>
#include <QVariant>

#include <vector>

#include <Qel/RenderPasses/framework/PassFrame.h>
#include <Qel/gl/TextureManager.h>

namespace Morvane::Qel {

class FramebufferObject;
class Texture;

/// A new GL_TEXTURE_2D with nearest filtering and level 0 allocated, contents undefined; the caller owns it.
/// A negative size becomes 0, one over the driver's limit is logged and becomes 1 x 1.
Texture* makeTarget(int width, int height, unsigned int internalFormat, unsigned int format,
                    unsigned int type);

/// Deletes what is attached at a point and attaches a new target in its place, which the framebuffer's owner
/// owns.
void replaceAttachment(FramebufferObject* framebuffer, unsigned int attachment, Texture* target);

/// A new depth texture, GL_DEPTH_COMPONENT32F, otherwise as makeTarget.
Texture* makeDepthTarget(int width, int height);

/// Replaces the colour attachments of a list, from colour attachment 0 on, and the depth attachment behind
/// them by new targets of a size.
void replaceTargets(FramebufferObject* framebuffer, const std::vector<FBOConfig>& attachments, int width,
                    int height);

/// The fragment outputs of a list of attachments, in its order.
QStringList outputNames(const std::vector<FBOConfig>& attachments);

/// The fallback for a missing texture input: 1 x 1, GL_RGBA, transparent black, nearest filtering. The caller
/// owns it.
Texture* makeTransparentTexture();

/// The same, opaque white.
Texture* makeWhiteTexture();

/// The fallback for a missing texture input from the pool: 1 x 1, transparent black. The caller holds one
/// reference.
Texture* takeTransparentTexture();

/// The unit that a sampler reads a bound texture from; for a null one, a unit that the services bind last and
/// leave empty, which reads as opaque black.
int samplerUnit(const Texture* texture);

/// Sets the filters that neighbouring texels are blended by, and clamps to the edge.
void sampleLinearly(Texture* texture);

/// Takes a pooled texture, with one reference, and attaches it at colour attachment 0.
Texture* attachTempTarget(FramebufferObject* framebuffer, TextureFormat format, int width, int height);

/// The same as textureVariant, with the references of a pooled texture handed over: one more for each user of
/// the output, and the pass's own dropped. A texture that the pool does not own is published as it is.
QVariant publishPooled(Texture* texture, int users);

} // namespace Morvane::Qel
