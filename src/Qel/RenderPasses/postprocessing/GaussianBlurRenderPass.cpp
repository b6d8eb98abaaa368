#include <Qel/RenderPasses/postprocessing/GaussianBlurRenderPass.h>

#include <epoxy/gl.h>

#include <Qel/RenderPasses/framework/CommonPorts.h>
#include <Qel/RenderPasses/framework/PassFrame.h>
#include <Qel/RenderPasses/support/Numbers.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

const PassDescription& GaussianBlurRenderPass::description()
{
    static const PassDescription description{
        .type = u"GaussianBlurRenderPass"_s,
        .summary = u"Blurs a texture with a separable Gaussian kernel, at full or reduced resolution."_s,
        .inputs = {viewportInput(u"full-resolution size of the image; the origin is ignored"_s, u"1 x 1"_s),
                   {.name = u"Qel_QelTexture*_Input"_s,
                    .meaning = u"the image to blur; premultiplied alpha, any colour encoding"_s,
                    .whenMissing = u"transparent black is blurred; with a radius of 1 or less the output is "
                                   "empty"_s},
                   {.name = u"Qel_float_BlurRadius"_s,
                    .meaning = u"radius of the blur, about one standard deviation"_s,
                    .whenMissing = u"the input is published unchanged"_s,
                    .range = u"1 or less publishes the input unchanged; at most "
                             "GL_MAX_FRAGMENT_UNIFORM_COMPONENTS / 8 - 10, which is 118 or more; for more, "
                             "an error is logged and this limit is used"_s,
                    .unit = u"texels of the reduced image"_s},
                   {.name = u"Qel_float_ResolutionDivider"_s,
                    .meaning =
                        u"divisor of the width and the height; the results are truncated to whole texels"_s,
                    .whenMissing = u"full resolution"_s,
                    .range = u"1 or more; 0 acts as 1"_s,
                    .limits = {0.0}}},
        .outputs = {{.name = u"Qel_QelTexture*_Output"_s,
                     .meaning = u"the blurred image, with the alpha and encoding of the input; RGBA16F, "
                                "pooled; or the input itself"_s,
                     .encoding = Encoding::AsInput,
                     .alpha = AlphaMeaning::AsInput,
                     .like = {u"Qel_QelTexture*_Input"_s}}}};
    return description;
}

GaussianBlurRenderPass::GaussianBlurRenderPass()
{
    declarePorts(description());
}

GaussianBlurRenderPass::~GaussianBlurRenderPass() = default;

void GaussianBlurRenderPass::start(RenderCallbacks* /*callbacks*/)
{
    float divider = m_inputs[ResolutionDivider].value.toFloat();
    if (divider == 0.0F) {
        divider = 1.0F;
    }
    auto* input = getInputPointer<Texture>(Input);
    const InputReferences inputs(input);
    const QRect viewport = m_inputs[Viewport].value.toRect();
    const QSize size(truncated(static_cast<float>(viewport.width()) / divider),
                     truncated(static_cast<float>(viewport.height()) / divider));
    provideKernel(m_inputs[BlurRadius].value.toFloat(),
                  input && input->size() != size ? BlurredInput::Resized : BlurredInput::SameSize);
    if (m_blurRadius <= 1.0F) {
        m_outputs[Output].value = publishTexture(input, m_outputs[Output].users);
        return;
    }

    const PooledTexture fallback = input ? PooledTexture() : PooledTexture::transparent();
    const AutoBinder programBinder(m_shaderProgram.get());
    m_shaderProgram->setUniform(m_resolutionDivider, divider);
    const PooledTexture blurredRows(TextureFormat::RGBA16F, size);
    drawBlurred(input ? input : fallback.get(), blurredRows.get(),
                QVector2D(1.0F / static_cast<float>(size.width()), 0.0F));
    const PooledTexture blurred(TextureFormat::RGBA16F, size);
    // Deliberate: opaque red, and still set after the pass.
    glClearColor(1.0F, 0.0F, 0.0F, 1.0F);
    drawBlurred(blurredRows.get(), blurred.get(), QVector2D(0.0F, 1.0F / static_cast<float>(size.height())));
    m_outputs[Output].value = blurred.publish(m_outputs[Output].users);
}

} // namespace Morvane::Qel
