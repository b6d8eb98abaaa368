#include <Qel/RenderPasses/support/Targets.h>

#include <algorithm>
#include <array>

#include <epoxy/gl.h>

#include <Qel/core/Diagnostics.h>
#include <Qel/gl/BindingRecord.h>
#include <Qel/gl/FramebufferObject.h>
#include <Qel/gl/Guards.h>
#include <Qel/gl/OpenGLDeviceContext.h>
#include <Qel/gl/Texture.h>
#include <Qel/gl/TextureManager.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

Texture* makeTarget(int width, int height, unsigned int internalFormat, unsigned int format,
                    unsigned int type)
{
    const int limit = OpenGLDeviceContext::current()->maxTextureSize();
    if (std::max(width, height) > limit) {
        logCritical(
            __FILE__, __LINE__,
            u"a target of %1x%2 is over the driver's limit of %3; 1x1 is used"_s.arg(width).arg(height).arg(
                limit));
        width = height = 1;
    }
    auto* texture = new Texture;
    texture->setTarget(GL_TEXTURE_2D);
    texture->setFilter(GL_NEAREST, GL_NEAREST);
    texture->setImage2D(0, internalFormat, std::max(width, 0), std::max(height, 0), format, type, nullptr);
    return texture;
}

void replaceAttachment(FramebufferObject* framebuffer, unsigned int attachment, Texture* target)
{
    delete framebuffer->detach(attachment);
    framebuffer->attach(target, attachment, 0);
}

Texture* makeDepthTarget(int width, int height)
{
    return makeTarget(width, height, GL_DEPTH_COMPONENT32F, GL_DEPTH_COMPONENT, GL_FLOAT);
}

void replaceTargets(FramebufferObject* framebuffer, const std::vector<FBOConfig>& attachments, int width,
                    int height)
{
    const AutoBinder binder(framebuffer);
    unsigned int point = GL_COLOR_ATTACHMENT0;
    for (const FBOConfig& attachment : attachments) {
        replaceAttachment(
            framebuffer, point++,
            makeTarget(width, height, static_cast<unsigned int>(attachment.format), GL_BGRA, GL_FLOAT));
    }
    replaceAttachment(framebuffer, GL_DEPTH_ATTACHMENT, makeDepthTarget(width, height));
}

QStringList outputNames(const std::vector<FBOConfig>& attachments)
{
    QStringList names;
    for (const FBOConfig& attachment : attachments) {
        names.append(attachment.name);
    }
    return names;
}

Texture* makeTransparentTexture()
{
    return makeTexelTexture(Qt::transparent);
}

Texture* makeWhiteTexture()
{
    return makeTexelTexture(Qt::white);
}

Texture* takeTransparentTexture()
{
    constexpr std::array<unsigned char, 4> transparentBlack{};
    Texture* texture = TextureManager::Instance()->tempTexture(TextureFormat::RGBA16F, 1, 1, -1);
    texture->setImage2D(0, GL_RGBA, 1, 1, GL_RGBA, GL_UNSIGNED_BYTE, transparentBlack.data());
    return texture;
}

int samplerUnit(const Texture* texture)
{
    // Bindings take the lower units first.
    return texture ? texture->unit() : BindingRecord::numUnits - 1;
}

void sampleLinearly(Texture* texture)
{
    texture->setFilter(GL_LINEAR, GL_LINEAR);
    texture->setParameter(GL_TEXTURE_WRAP_S, GL_CLAMP_TO_EDGE);
    texture->setParameter(GL_TEXTURE_WRAP_T, GL_CLAMP_TO_EDGE);
}

Texture* attachTempTarget(FramebufferObject* framebuffer, TextureFormat format, int width, int height)
{
    Texture* target = TextureManager::Instance()->tempTexture(format, width, height, -1);
    framebuffer->attach(target, GL_COLOR_ATTACHMENT0, 0);
    return target;
}

QVariant publishPooled(Texture* texture, int users)
{
    TextureManager::Instance()->addTempTextureRef(texture, users);
    TextureManager::Instance()->releaseTempTextureRef(texture, 1);
    return textureVariant(texture);
}

} // namespace Morvane::Qel
