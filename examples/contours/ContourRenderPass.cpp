#include "ContourRenderPass.h"

#include <QColor>
#include <QVector2D>
#include <QtMath>

#include <cmath>

#include <Qel/RenderPasses/framework/CommonPorts.h>

using namespace Qt::StringLiterals;

using namespace Morvane::Qel;

namespace {

const QString fragmentSource = uR"(#version 150
uniform sampler2D u_Frame;
uniform sampler2D u_Normal;
uniform sampler2D u_Depth;
uniform vec4 u_LineColor;
uniform vec2 u_Step;
uniform float u_CreaseCosine;
in vec2 vo_TexCoord;
out vec4 out_FragColor;

/// How far the surface is from one plane between two opposite neighbours, from 0 to 1.
float contour(vec2 offset)
{
    float before = texture(u_Depth, vo_TexCoord - offset).r;
    float here = texture(u_Depth, vo_TexCoord).r;
    float after = texture(u_Depth, vo_TexCoord + offset).r;
    // The background has depth 1.
    float nearness = 1.0 - min(here, min(before, after));
    float jump = nearness > 0.0 ? abs(before + after - 2.0 * here) / nearness : 0.0;

    vec3 a = texture(u_Normal, vo_TexCoord - offset).xyz;
    vec3 b = texture(u_Normal, vo_TexCoord + offset).xyz;
    bool isCrease = dot(a, b) < u_CreaseCosine * length(a) * length(b);
    return max(smoothstep(0.02, 0.06, jump), isCrease ? 1.0 : 0.0);
}

void main()
{
    float line = max(contour(vec2(u_Step.x, 0.0)), contour(vec2(0.0, u_Step.y)));
    vec4 frame = texture(u_Frame, vo_TexCoord);
    out_FragColor = mix(frame, vec4(u_LineColor.rgb, 1.0), line * u_LineColor.a);
}
)"_s;

} // namespace

const PassDescription& ContourRenderPass::description()
{
    static const PassDescription description{
        .type = u"ContourRenderPass"_s,
        .summary = u"Draws contour lines over a frame."_s,
        .inputs = {viewportInput(u"size of the output"_s, u"1 x 1"_s),
                   {.name = u"Qel_QelTexture*_Frame"_s,
                    .meaning = u"the frame to draw over"_s,
                    .whenMissing = u"transparent black"_s},
                   {.name = u"Qel_QelTexture*_Normal"_s,
                    .meaning = u"the normals of the frame's surfaces"_s,
                    .whenMissing = u"no lines along creases"_s},
                   {.name = u"Qel_QelTexture*_Depth"_s,
                    .meaning = u"the depth of the frame's surfaces, of a perspective camera"_s,
                    .whenMissing = u"no lines along silhouettes"_s},
                   {.name = u"Qel_QColor_LineColor"_s,
                    .meaning = u"colour and opacity of the lines"_s,
                    .whenMissing = u"opaque black"_s,
                    .defaultValue = QColor(Qt::black)},
                   {.name = u"Qel_float_LineRadius"_s,
                    .meaning = u"half the width of a line"_s,
                    .whenMissing = u"no lines"_s,
                    .defaultValue = 1.0F,
                    .range = u"pixels, above 0"_s},
                   {.name = u"Qel_float_CreaseAngle"_s,
                    .meaning = u"angle between neighbouring normals from which a crease gets a line"_s,
                    .whenMissing = u"0"_s,
                    .defaultValue = 30.0F,
                    .range = u"degrees, 0 to 180"_s}},
        .outputs = {{.name = u"Qel_QelTexture*_Frame"_s,
                     .meaning = u"the frame with lines; RGBA8, from the pool"_s}}};
    return description;
}

ContourRenderPass::ContourRenderPass()
{
    declarePorts(description());
}

ContourRenderPass::~ContourRenderPass() = default;

void ContourRenderPass::start(RenderCallbacks* /*callbacks*/)
{
    const QSize size = m_inputs[Viewport].value.toRect().size();
    auto* frame = getInputPointer<Texture>(Frame);
    auto* normal = getInputPointer<Texture>(Normal);
    auto* depth = getInputPointer<Texture>(Depth);
    const InputReferences inputs(frame, normal, depth);

    const PooledTarget target(provide(m_framebuffer), TextureFormat::RGBA8, size);
    provideScreenProgram(m_program, m_batch, {fragmentSource});

    const AutoBinder programBinder(m_program.get());
    const BoundSampler frameSampler(*m_program, m_frame, orTransparent(frame, m_transparent),
                                    Sampling::Nearest);
    const BoundSampler normalSampler(*m_program, m_normal, orTransparent(normal, m_transparent),
                                     Sampling::Linear);
    const BoundSampler depthSampler(*m_program, m_depth, orTransparent(depth, m_transparent),
                                    Sampling::Nearest);
    const float radius = m_inputs[LineRadius].value.toFloat();
    const Texture& output = *target.get();
    m_program->setUniform(m_step, QVector2D(radius / static_cast<float>(output.size().width()),
                                            radius / static_cast<float>(output.size().height())));
    m_program->setUniform(m_color, m_inputs[LineColor].value.value<QColor>());
    m_program->setUniform(m_creaseCosine, std::cos(qDegreesToRadians(m_inputs[CreaseAngle].value.toFloat())));
    drawBatch(m_batch);
    m_outputs[Result].value = target.publish(m_outputs[Result].users);
}
