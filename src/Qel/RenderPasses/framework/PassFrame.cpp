#include <Qel/RenderPasses/framework/PassFrame.h>

#include <QImage>

#include <algorithm>
#include <bit>
#include <utility>

#include <epoxy/gl.h>

#include <Qel/core/Diagnostics.h>
#include <Qel/gl/BindingRecord.h>
#include <Qel/gl/VertexArrayObject.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

static_assert(firstColorAttachment == GL_COLOR_ATTACHMENT0);

const TargetDescription depthTarget{GL_DEPTH_ATTACHMENT, GL_DEPTH_COMPONENT32F, GL_DEPTH_COMPONENT, GL_FLOAT};

const QString fullScreenVertexSource = uR"(#version 150
in vec3 va_Vertex;
in vec2 va_TexCoord;
out vec2 vo_TexCoord;

void main()
{
    gl_Position = vec4(va_Vertex, 1.0);
    vo_TexCoord = va_TexCoord;
}
)"_s;

namespace {

// By ranges of enumerators, because every sampler asks in every frame.
bool isInteger(unsigned int internalFormat)
{
    return (internalFormat >= GL_R8I && internalFormat <= GL_RG32UI) ||
           (internalFormat >= GL_RGBA32UI && internalFormat <= GL_RGB8I) || internalFormat == GL_RGB10_A2UI;
}

/// Returns whether the texture has mip levels and they are complete.
bool isMipmapped(Texture& texture)
{
    const auto side = static_cast<unsigned int>(std::max(texture.size().width(), texture.size().height()));
    const int numNeeded =
        std::min(static_cast<int>(std::bit_width(side)), texture.parameter(GL_TEXTURE_MAX_LEVEL) + 1);
    return numNeeded > 1 && texture.levels() >= numNeeded;
}

void replaceTarget(FramebufferObject& framebuffer, const QSize& size, const TargetDescription& target)
{
    deleteTarget(&framebuffer, target.attachment);
    Texture* texture = makeTarget(size, target.internalFormat, target.format, target.type);
    ResourceScope::leave(texture);
    framebuffer.attach(texture, target.attachment, 0);
}

} // namespace

Texture* makeTarget(const QSize& size, unsigned int internalFormat, unsigned int format, unsigned int type)
{
    const OpenGLDeviceContext* context = OpenGLDeviceContext::current();
    const int limit = context->maxTextureSize();
    QSize allocated = size.expandedTo(QSize(0, 0));
    if (std::max(size.width(), size.height()) > limit) {
        logCritical(__FILE__, __LINE__,
                    u"a target of %1x%2 is over the driver's limit of %3; 1x1 is used"_s.arg(size.width())
                        .arg(size.height())
                        .arg(limit));
        allocated = QSize(1, 1);
    }
    auto* texture = new Texture;
    texture->setTarget(GL_TEXTURE_2D);
    texture->setFilter(GL_NEAREST, GL_NEAREST);
    texture->setImage2D(0, internalFormat, allocated.width(), allocated.height(), format, type, nullptr);
    return texture;
}

Texture* makeTexelTexture(const QColor& color)
{
    QImage texel(1, 1, QImage::Format_ARGB32);
    texel.fill(color);
    auto* texture = new Texture;
    texture->setTarget(GL_TEXTURE_2D);
    texture->setFilter(GL_NEAREST, GL_NEAREST);
    texture->setImage2D(0, GL_RGBA, 1, 1, GL_BGRA, GL_UNSIGNED_BYTE, texel.constBits());
    return texture;
}

Texture* orTransparent(Texture* texture, std::unique_ptr<Texture>& fallback)
{
    if (texture) {
        return texture;
    }
    if (!fallback) {
        fallback.reset(makeTexelTexture(Qt::transparent));
    }
    return fallback.get();
}

void replaceTargets(FramebufferObject& framebuffer, const QSize& size,
                    std::initializer_list<TargetDescription> targets)
{
    const AutoBinder binder(&framebuffer);
    for (const TargetDescription& target : targets) {
        replaceTarget(framebuffer, size, target);
    }
}

void replaceTargets(FramebufferObject& framebuffer, const QSize& size,
                    const std::vector<FBOConfig>& attachments)
{
    const AutoBinder binder(&framebuffer);
    unsigned int point = GL_COLOR_ATTACHMENT0;
    for (const FBOConfig& attachment : attachments) {
        replaceTarget(framebuffer, size,
                      {point++, static_cast<unsigned int>(attachment.format), GL_BGRA, GL_FLOAT});
    }
    replaceTarget(framebuffer, size, depthTarget);
}

void deleteTarget(FramebufferObject* framebuffer, unsigned int attachment)
{
    if (framebuffer) {
        delete framebuffer->detach(attachment);
    }
}

QVariant textureVariant(Texture* texture)
{
    return QVariant::fromValue<QObject*>(texture);
}

QVariant attachedTexture(const FramebufferObject* framebuffer, unsigned int attachment)
{
    return textureVariant(framebuffer->attachment(attachment));
}

QVariant publishTexture(Texture* texture, int users)
{
    TextureManager::Instance()->addTempTextureRef(texture, users);
    return textureVariant(texture);
}

PooledTexture::PooledTexture(TextureFormat format, const QSize& size)
    : m_texture(TextureManager::Instance()->tempTexture(format, size.width(), size.height(), -1))
    , m_context(ContextReference::toCurrent())
{
}

PooledTexture::~PooledTexture()
{
    if (m_texture) {
        // The pool, and the texture with it, may be gone, or belong to another context than the current one.
        m_context.whenCurrent(
            [texture = m_texture] { TextureManager::Instance()->releaseTempTextureRef(texture, 1); });
    }
}

PooledTexture::PooledTexture(PooledTexture&& other) noexcept
    : m_texture(std::exchange(other.m_texture, nullptr))
    , m_context(std::move(other.m_context))
{
}

PooledTexture& PooledTexture::operator=(PooledTexture&& other) noexcept
{
    std::swap(m_texture, other.m_texture);
    std::swap(m_context, other.m_context);
    return *this;
}

PooledTexture PooledTexture::transparent()
{
    constexpr std::array<unsigned char, 4> transparentBlack{};
    PooledTexture texture(TextureFormat::RGBA16F, {1, 1});
    texture.get()->setImage2D(0, GL_RGBA, 1, 1, GL_RGBA, GL_UNSIGNED_BYTE, transparentBlack.data());
    return texture;
}

BoundTarget::BoundTarget(FramebufferObject& framebuffer, Texture* texture)
    : m_binder(&framebuffer)
    , m_framebuffer(framebuffer)
{
    m_framebuffer.attach(texture, GL_COLOR_ATTACHMENT0, 0);
    m_framebuffer.setDrawBuffers();
}

BoundTarget::~BoundTarget()
{
    m_framebuffer.detach(GL_COLOR_ATTACHMENT0);
}

AttachedDepth::AttachedDepth(FramebufferObject& framebuffer, Texture* depth)
    : m_framebuffer(framebuffer)
{
    m_framebuffer.attach(depth, GL_DEPTH_STENCIL_ATTACHMENT, 0);
}

AttachedDepth::~AttachedDepth()
{
    m_framebuffer.detach(GL_DEPTH_STENCIL_ATTACHMENT);
}

Sampling texelSampling(const Texture& input, const QSize& viewport, Sampling resized)
{
    return input.size() == viewport ? Sampling::Nearest : resized;
}

BoundSampler::BoundSampler(ShaderProgram& program, Uniform& sampler, Texture* texture, Sampling sampling)
    : m_texture(texture)
{
    if (!texture) {
        program.setUniform(sampler, BindingRecord::emptyUnit);
        return;
    }
    texture->bind();
    m_own = parametersOf(*texture);
    Parameters needed = parametersFor(sampling);
    if (isInteger(texture->internalFormat())) {
        needed.minFilter = needed.magFilter = GL_NEAREST;
    }
    apply(*texture, needed);
    program.setUniform(sampler, texture->unit());
}

BoundSampler::~BoundSampler()
{
    if (m_texture) {
        apply(*m_texture, m_own);
        m_texture->release();
    }
}

BoundSampler::Parameters BoundSampler::parametersOf(Texture& texture)
{
    return {texture.parameter(GL_TEXTURE_MIN_FILTER), texture.parameter(GL_TEXTURE_MAG_FILTER),
            texture.parameter(GL_TEXTURE_WRAP_S), texture.parameter(GL_TEXTURE_WRAP_T)};
}

BoundSampler::Parameters BoundSampler::parametersFor(Sampling sampling) const
{
    switch (sampling) {
    case Sampling::Own:
        break;
    case Sampling::Nearest:
        return {GL_NEAREST, GL_NEAREST, GL_CLAMP_TO_EDGE, GL_CLAMP_TO_EDGE};
    case Sampling::NearestMipmap:
        return {isMipmapped(*m_texture) ? GL_NEAREST_MIPMAP_NEAREST : GL_NEAREST, GL_NEAREST,
                GL_CLAMP_TO_EDGE, GL_CLAMP_TO_EDGE};
    case Sampling::Linear:
        return {GL_LINEAR, GL_LINEAR, GL_CLAMP_TO_EDGE, GL_CLAMP_TO_EDGE};
    case Sampling::LatLong:
        return {GL_LINEAR, m_own.magFilter, GL_REPEAT, GL_CLAMP_TO_EDGE};
    }
    return m_own;
}

void BoundSampler::apply(Texture& texture, const Parameters& parameters)
{
    texture.setFilter(parameters.minFilter, parameters.magFilter);
    texture.setParameter(GL_TEXTURE_WRAP_S, parameters.wrapS);
    texture.setParameter(GL_TEXTURE_WRAP_T, parameters.wrapT);
}

void buildScreenProgram(ShaderProgram& program, const ScreenSources& sources)
{
    program.setMacroProcessor(sources.macroProcessor);
    program.setFragDataLocations(sources.outputs.isEmpty() ? QStringList{u"out_FragColor"_s}
                                                           : sources.outputs);
    program.addShader(GL_VERTEX_SHADER, sources.vertex, {});
    program.addShader(GL_FRAGMENT_SHADER, sources.fragment, {});
    if (!sources.fragmentFile.isEmpty()) {
        program.addShaderFromFile(GL_FRAGMENT_SHADER, sources.fragmentFile);
    }
    buildProgram(program);
    program.setMacroProcessor(nullptr);
}

void provideScreenBatch(QSharedPointer<DrawBuffers>& batch, const ShaderProgram& program, Screen screen)
{
    if (!batch) {
        OpenGLDeviceContext* context = OpenGLDeviceContext::current();
        batch = screen == Screen::Triangle ? context->fullScreenTriangle() : context->fullScreenQuad();
    }
    enableArrays(batch, program);
}

void buildProgram(ShaderProgram& program)
{
    program.bind();
    program.release();
}

void enableArrays(const QSharedPointer<DrawBuffers>& batch, const ShaderProgram& program)
{
    const AutoBinder binder(batch->VAO().data());
    batch->VAO()->enableShaderProgramArrays(&program);
}

bool drawBatch(DrawBuffers* batch)
{
    const AutoBinder binder(batch);
    return batch->draw();
}

bool drawBatch(const QSharedPointer<DrawBuffers>& batch)
{
    return drawBatch(batch.data());
}

} // namespace Morvane::Qel
