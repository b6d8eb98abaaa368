#include <Qel/RenderPasses/compositing/TextureLoaderRenderPass.h>

#include <epoxy/gl.h>

#include <Qel/RenderPasses/support/Images.h>
#include <Qel/RenderPasses/support/Targets.h>
#include <Qel/core/Diagnostics.h>
#include <Qel/gl/Guards.h>
#include <Qel/gl/OpenGLDeviceContext.h>
#include <Qel/gl/Texture.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

constexpr const char* sourceFile = "Core/Qel/src/RenderPasses/TextureLoaderRenderPass";

} // namespace

const PassDescription& TextureLoaderRenderPass::description()
{
    static const PassDescription description{
        u"TextureLoaderRenderPass"_s,
        u"Loads an image file into a texture with mipmaps."_s,
        {{u"Qel_QString_TexturePath"_s, u"the image file"_s,
          u"a texture without an image; one opaque white texel once a path was set"_s}},
        {{u"Qel_QelTexture*_Texture"_s,
          u"the image, bottom row first, GL_RGBA with straight alpha, read-only, owned by the "
          "pass"_s}}};
    return description;
}

TextureLoaderRenderPass::TextureLoaderRenderPass()
{
    declarePorts(description());
}

TextureLoaderRenderPass::~TextureLoaderRenderPass() = default;

void TextureLoaderRenderPass::start(RenderCallbacks* /*callbacks*/)
{
    if (!m_texture) {
        m_texture = std::make_unique<Texture>(nullptr);
        m_texture->setTarget(GL_TEXTURE_2D);
    }
    const QString path = m_inputs[TexturePath].value.toString();
    if (path != m_path) {
        load(path);
        m_path = path;
    }
    m_outputs[LoadedTexture].value = textureVariant(m_texture.get());
}

void TextureLoaderRenderPass::load(const QString& path)
{
    QString problem;
    QImage image = loadImage(path, OpenGLDeviceContext::current()->maxTextureSize(), &problem);
    if (image.isNull()) {
        logNotice(sourceFile, __LINE__, u"\"%1\" %2; an opaque white texel stands in"_s.arg(path, problem));
        image = makeTexel(Qt::white);
    } else {
        image = image.mirrored(false, true);
    }
    const AutoBinder binder(m_texture.get());
    m_texture->setImage2D(0, GL_RGBA, image.width(), image.height(), GL_BGRA, GL_UNSIGNED_BYTE,
                          image.constBits());
    m_texture->generateMipmap();
    m_texture->setReadOnly();
}

} // namespace Morvane::Qel
