#include <Qel/RenderPasses/support/FragmentLists.h>

#include <QVector2D>

#include <epoxy/gl.h>

#include <Qel/RenderPasses/framework/PassFrame.h>
#include <Qel/core/Diagnostics.h>
#include <Qel/gl/OpenGLDeviceContext.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

const QString markSource = uR"(#version 150
#include "FragmentList.glslh"
uniform usampler2D u_SamplerHeadPointer;
uniform usampler2D u_SamplerNodeBuffer;
uniform int u_SamplerNodeBufferWidth;
uniform vec2 u_Size;
in vec2 vo_TexCoord;
out vec4 out_FragColor;

void main()
{
    ivec2 pixel = ivec2(vo_TexCoord * u_Size);
    bool isInside = all(lessThan(pixel, textureSize(u_SamplerHeadPointer, 0)));
    uint head = isInside ? texelFetch(u_SamplerHeadPointer, pixel, 0).r : 0u;
    uvec2 node = uvec2(texelOfNode(head, u_SamplerNodeBufferWidth));
    if (head == 0u || any(greaterThanEqual(node, uvec2(textureSize(u_SamplerNodeBuffer, 0))))) {
        discard;
    }
    out_FragColor = vec4(0.0);
}
)"_s;

} // namespace

const QStringList& fragmentListExtensions()
{
    static const QStringList extensions{u"GL_ARB_shader_atomic_counters"_s,
                                        u"GL_ARB_shader_image_load_store"_s,
                                        u"GL_ARB_shading_language_420pack"_s};
    return extensions;
}

bool hasFragmentListExtensions()
{
    return hasGLExtension("ARB_shader_atomic_counters") && hasGLExtension("ARB_shader_image_load_store") &&
           hasGLExtension("ARB_shading_language_420pack");
}

bool areFragmentLists(const Texture* headPointers, const Texture* nodes, bool* isReported)
{
    if (!headPointers || !nodes) {
        return false;
    }
    const auto isOf = [](const Texture* texture, unsigned int internalFormat) {
        return texture->target() == GL_TEXTURE_2D && texture->internalFormat() == internalFormat &&
               !texture->size().isEmpty();
    };
    const bool areLists = isOf(headPointers, GL_R32UI) && isOf(nodes, GL_RGBA32UI);
    if (!areLists && !*isReported) {
        *isReported = true;
        logCritical(__FILE__, __LINE__,
                    u"head pointers must be a 2D texture of R32UI and nodes one of RGBA32UI, as the "
                    "visibility buffer makes them; the lists are ignored"_s);
    }
    return areLists;
}

ImageBinder::ImageBinder(unsigned int unit, Texture* texture, unsigned int access, unsigned int format)
    : m_unit(unit)
    , m_access(access)
    , m_format(format)
{
    // Images of textures that are incomplete by their parameters read 0 and drop what is written.
    texture->synchronize();
    glBindImageTexture(m_unit, texture->textureID(), 0, GL_FALSE, 0, m_access, m_format);
}

ImageBinder::~ImageBinder()
{
    glBindImageTexture(m_unit, 0, 0, GL_FALSE, 0, m_access, m_format);
}

void ListMask::apply(Texture* headPointers, Texture* nodes, int nodeBufferWidth, const QSize& size)
{
    provideScreenProgram(m_program, m_fullScreenBatch, {markSource});
    OpenGLDeviceContext* context = OpenGLDeviceContext::current();
    context->disable(GL_DEPTH_TEST);
    context->enable(GL_STENCIL_TEST);
    glStencilMask(~0U);
    glClearBufferfi(GL_DEPTH_STENCIL, 0, 1.0F, 0);
    glStencilFunc(GL_ALWAYS, 1, ~0U);
    glStencilOp(GL_KEEP, GL_KEEP, GL_REPLACE);
    glColorMask(GL_FALSE, GL_FALSE, GL_FALSE, GL_FALSE);
    {
        const AutoBinder programBinder(m_program.get());
        const BoundSampler sampler(*m_program, m_headPointers, headPointers, Sampling::Nearest);
        const BoundSampler nodeSampler(*m_program, m_nodes, nodes, Sampling::Nearest);
        m_program->setUniform(m_nodeBufferWidth, nodeBufferWidth);
        m_program->setUniform(m_size,
                              QVector2D(static_cast<float>(size.width()), static_cast<float>(size.height())));
        drawBatch(m_fullScreenBatch);
    }
    glColorMask(GL_TRUE, GL_TRUE, GL_TRUE, GL_TRUE);
    glStencilFunc(GL_EQUAL, 1, ~0U);
    glStencilOp(GL_KEEP, GL_KEEP, GL_KEEP);
}

} // namespace Morvane::Qel
