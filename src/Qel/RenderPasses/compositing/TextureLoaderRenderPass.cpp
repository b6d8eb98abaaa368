#include <Qel/RenderPasses/compositing/TextureLoaderRenderPass.h>

#include <epoxy/gl.h>

#include <Qel/RenderPasses/framework/PassFrame.h>
#include <Qel/RenderPasses/support/Images.h>
#include <Qel/core/Diagnostics.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

constexpr const char* sourceFile = "Core/Qel/src/RenderPasses/TextureLoaderRenderPass";

} // namespace

const PassDescription& TextureLoaderRenderPass::description()
{
    static const PassDescription description{
        .type = u"TextureLoaderRenderPass"_s,
        .summary = u"Loads an image file into a mipmapped texture."_s,
        .inputs = {{.name = u"Qel_QString_TexturePath"_s,
                    .meaning = u"path of the image file"_s,
                    .whenMissing = u"a texture without an image; one opaque white texel if a path was set "
                                   "before"_s}},
        .outputs = {{.name = u"Qel_QelTexture*_Texture"_s,
                     .meaning =
                         u"the image, bottom row first, with straight alpha and the colour encoding of "
                         "the file; RGBA8, read-only, owned by the pass"_s}}};
    return description;
}

TextureLoaderRenderPass::TextureLoaderRenderPass()
{
    declarePorts(description());
}

TextureLoaderRenderPass::~TextureLoaderRenderPass() = default;

void TextureLoaderRenderPass::start(RenderCallbacks* /*callbacks*/)
{
    Texture& texture = provide(m_texture);
    const QString path = m_inputs[TexturePath].value.toString();
    if (path != m_path) {
        load(texture, path);
        m_path = path;
    }
    m_outputs[LoadedTexture].value = textureVariant(&texture);
}

void TextureLoaderRenderPass::load(Texture& texture, const QString& path)
{
    QString problem;
    QImage image = loadImage(path, OpenGLDeviceContext::current()->maxTextureSize(), &problem);
    if (image.isNull()) {
        logNotice(sourceFile, __LINE__, u"\"%1\" %2; using one opaque white texel"_s.arg(path, problem));
        image = makeTexel(Qt::white);
    } else {
        image = image.mirrored(false, true);
    }
    texture.setImage2D(0, GL_RGBA, image.width(), image.height(), GL_BGRA, GL_UNSIGNED_BYTE,
                       image.constBits());
    texture.generateMipmap();
    texture.setReadOnly();
}

} // namespace Morvane::Qel
