#include <Qel/RenderPasses/compositing/TextureLoaderRenderPass.h>

#include <epoxy/gl.h>

#include <Qel/RenderPasses/framework/PassFrame.h>
#include <Qel/RenderPasses/support/Images.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

int glWrapMode(TextureLoaderRenderPass::WrapMode mode)
{
    using WrapMode = TextureLoaderRenderPass::WrapMode;
    return mode == WrapMode::Clamp    ? GL_CLAMP_TO_EDGE
           : mode == WrapMode::Mirror ? GL_MIRRORED_REPEAT
                                      : GL_REPEAT;
}

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
                         "the file; RGBA8, read-only, owned by the pass. EXR and HDR files: their own "
                         "values, linear and with premultiplied alpha; RGBA16F, or RGBA32F if 16 bits "
                         "cannot hold all values exactly"_s,
                     .encoding = Encoding::AsFile,
                     .alpha = AlphaMeaning::AsFile}},
        .options = {{.name = u"wrap"_s,
                     .meaning = u"what texture coordinates outside of 0 to 1 read; has no effect in passes "
                                "that set their own wrap mode, such as ShaderRenderPass, which clamps"_s,
                     .defaultValue = u"repeat"_s,
                     .choices = {u"repeat"_s, u"clamp"_s, u"mirror"_s}}}};
    return description;
}

TextureLoaderRenderPass::TextureLoaderRenderPass()
{
    declarePorts(description());
}

TextureLoaderRenderPass::~TextureLoaderRenderPass() = default;

void TextureLoaderRenderPass::setWrapMode(WrapMode mode)
{
    m_wrapMode = mode;
}

void TextureLoaderRenderPass::start(RenderCallbacks* /*callbacks*/)
{
    Texture& texture = provide(m_texture);
    texture.setWrap(glWrapMode(m_wrapMode));
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
    m_imageProblem.clear();
    if (image.isNull()) {
        // A path that was unset asks for no image.
        m_imageProblem = path.isEmpty() ? QString() : u"\"%1\" %2"_s.arg(path, problem);
        image = makeTexel(Qt::white);
    } else {
        image = image.mirrored(false, true);
    }
    const TexelFormat format = texelFormat(image);
    texture.setImage2D(0, format.internalFormat, image.width(), image.height(), format.format, format.type,
                       image.constBits());
    texture.generateMipmap();
    texture.setReadOnly();
}

} // namespace Morvane::Qel
