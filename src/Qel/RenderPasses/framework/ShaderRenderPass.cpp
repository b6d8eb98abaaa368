#include <Qel/RenderPasses/framework/ShaderRenderPass.h>

#include <QVarLengthArray>

#include <epoxy/gl.h>

#include <Qel/RenderPasses/framework/InputPointers.h>
#include <Qel/RenderPasses/support/FullScreen.h>
#include <Qel/RenderPasses/support/Targets.h>
#include <Qel/gl/FramebufferObject.h>
#include <Qel/gl/Guards.h>
#include <Qel/gl/OpenGLDeviceContext.h>
#include <Qel/gl/TextureManager.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

const QString texturePrefix = u"Qel_QelTexture*_"_s;
const QString geometryPrefix = u"Qel_QelDrawBuffers*_"_s;

// The output's name is not one of the "o_" names that are bound to draw buffers; as the only output it lands
// on draw buffer 0 all the same. Deliberate.
const QString defaultFragmentSource = uR"(#version 150
uniform sampler2D u_Input;
in vec2 vo_TexCoord;
out vec4 out_FragColor;

void main()
{
    out_FragColor = texture(u_Input, vo_TexCoord);
}
)"_s;

} // namespace

const PassDescription& ShaderRenderPass::description()
{
    const auto file = [](const QString& name, const QString& meaning) {
        return OptionDescription{name, meaning, QString(), {}, true};
    };
    static const PassDescription description{
        u"ShaderRenderPass"_s,
        u"Runs GLSL of the user's over the screen or over a geometry input, on ports that the "
        "graph declares."_s,
        {},
        {},
        {{u"inputs"_s, u"full names of the input ports"_s, QStringList()},
         {u"outputs"_s, u"full names of the output ports"_s, QStringList()},
         file(u"vertexShader"_s, u"the vertex stage; passes va_TexCoord on as vo_TexCoord when not given"_s),
         file(u"fragmentShader"_s, u"the fragment stage; copies u_Input when not given"_s),
         file(u"geometryShader"_s, u"the geometry stage"_s),
         file(u"tessellationControlShader"_s, u"the tessellation control stage"_s),
         file(u"tessellationEvaluationShader"_s, u"the tessellation evaluation stage"_s),
         {u"clear"_s, u"whether the targets are cleared before the draw"_s, true},
         {u"blend"_s,
          u"how the draw is blended: not at all; source * (1 - source alpha) + destination * "
          "source alpha; or the sum"_s,
          u"none"_s,
          {u"none"_s, u"keepByAlpha"_s, u"add"_s}}},
        true};
    return description;
}

ShaderRenderPass::ShaderRenderPass()
    : m_vertexSource(fullScreenVertexSource)
    , m_fragmentSource(defaultFragmentSource)
{
}

ShaderRenderPass::~ShaderRenderPass() = default;

void ShaderRenderPass::setVertexShaderSource(const QString& source)
{
    m_vertexSource = source;
}

void ShaderRenderPass::setFragmentShaderSource(const QString& source)
{
    m_fragmentSource = source;
}

void ShaderRenderPass::setGeometryShaderSource(const QString& source)
{
    m_geometrySource = source;
}

void ShaderRenderPass::setTessellationControlShaderSource(const QString& source)
{
    m_tessellationControlSource = source;
}

void ShaderRenderPass::setTessellationEvaluationShaderSource(const QString& source)
{
    m_tessellationEvaluationSource = source;
}

void ShaderRenderPass::setClear(bool clear)
{
    m_clear = clear;
}

void ShaderRenderPass::setBlend(BlendMode mode)
{
    m_blendMode = mode;
}

Texture* ShaderRenderPass::transparentTexture()
{
    if (!m_transparentTexture) {
        m_transparentTexture.reset(makeTransparentTexture());
    }
    return m_transparentTexture.get();
}

void ShaderRenderPass::start(RenderCallbacks* /*callbacks*/)
{
    OpenGLDeviceContext* context = OpenGLDeviceContext::current();
    // A pass without inputs is deliberately never classified, and publishes nothing.
    if (m_uniforms.size() != m_inputs.size()) {
        classifyPorts();
    }

    bool clear = m_clear;
    QSize size(0, 0);
    if (m_viewportInput >= 0) {
        size = m_inputs[static_cast<size_t>(m_viewportInput)].value.toRect().size();
    }
    QVarLengthArray<Texture*, 256> textures(static_cast<qsizetype>(m_inputs.size()));
    for (const int i : m_textureInputs) {
        Texture* texture = getInputPointer<Texture>(i);
        if (texture && size.width() == 0) {
            const AutoBinder binder(texture);
            glGetTexLevelParameteriv(GL_TEXTURE_2D, 0, GL_TEXTURE_WIDTH, &size.rwidth());
            glGetTexLevelParameteriv(GL_TEXTURE_2D, 0, GL_TEXTURE_HEIGHT, &size.rheight());
        }
        textures[i] = texture ? texture : transparentTexture();
    }
    DrawBuffers* geometry = m_geometryInput >= 0 ? getInputPointer<DrawBuffers>(m_geometryInput) : nullptr;

    if (!m_framebuffer) {
        m_framebuffer = std::make_unique<FramebufferObject>(nullptr);
    }
    const int width = size.width() == 0 ? 1 : size.width();
    const int height = size.height() == 0 ? 1 : size.height();
    if (width != m_width || height != m_height) {
        m_width = width;
        m_height = height;
        clear = true;
    }

    const AutoBinder framebufferBinder(m_framebuffer.get());
    for (size_t k = 0; k < m_textureOutputs.size(); ++k) {
        Texture* target = TextureManager::Instance()->tempTexture(TextureFormat::RGBA8, width, height, -1);
        m_framebuffer->attach(target, GL_COLOR_ATTACHMENT0 + static_cast<unsigned int>(k), 0);
    }
    if (!m_program) {
        buildProgram();
    }
    if (!geometry && !m_fullScreenBatch) {
        m_fullScreenBatch = context->fullScreenTriangle();
        enableArrays(m_fullScreenBatch, m_program.get());
    }

    m_framebuffer->setDrawBuffers();
    context->disable(GL_DEPTH_TEST);
    applyBlendMode();
    if (clear) {
        glClear(GL_COLOR_BUFFER_BIT);
    }
    {
        const AutoBinder programBinder(m_program.get());
        for (const int i : m_textureInputs) {
            textures[i]->bind();
            sampleLinearly(textures[i]);
            m_program->setUniform(m_uniforms[static_cast<size_t>(i)], textures[i]->unit());
        }
        setUniforms();
        context->setViewport(0, 0, width, height);
        if (geometry) {
            const AutoEnabler pointSize(GL_PROGRAM_POINT_SIZE);
            drawBatch(geometry);
        } else {
            drawBatch(m_fullScreenBatch.data());
        }
        for (auto i = m_textureInputs.rbegin(); i != m_textureInputs.rend(); ++i) {
            textures[*i]->release();
        }
        if (m_blendMode != BlendMode::None) {
            context->disable(GL_BLEND);
        }
    }
    releaseInputs();
    publishTargets();
}

void ShaderRenderPass::classifyPorts()
{
    // The two index lists grow by a second copy when inputs are added after the first start: deliberate. Its
    // effect is that outputs are then rendered twice, and the references of the first copies are lost to the
    // pool, so all ports belong before the first start.
    m_uniformNames.clear();
    m_plainInputs.clear();
    for (int i = 0; i < numInputs(); ++i) {
        const QString name = inputName(i);
        QString uniform = name;
        if (name.startsWith(texturePrefix)) {
            m_textureInputs.push_back(i);
            uniform = u"u_"_s + name.sliced(texturePrefix.size());
        } else if (name.startsWith(geometryPrefix)) {
            m_geometryInput = i;
            uniform = u"u_"_s + name.sliced(geometryPrefix.size());
        } else {
            m_plainInputs.push_back(i);
        }
        m_uniformNames.push_back(uniform.toUtf8());
    }
    for (int j = 0; j < numOutputs(); ++j) {
        if (outputName(j).startsWith(texturePrefix)) {
            m_textureOutputs.push_back(j);
        }
    }
    m_viewportInput = findInput(u"Qel_QRect_Viewport"_s);
    m_uniforms.clear();
    for (const QByteArray& name : m_uniformNames) {
        m_uniforms.emplace_back(name.constData());
    }
}

void ShaderRenderPass::buildProgram()
{
    QStringList fragDataLocations;
    for (const int j : m_textureOutputs) {
        fragDataLocations.append(u"o_"_s + outputName(j).sliced(texturePrefix.size()));
    }
    m_program = std::make_unique<ShaderProgram>(nullptr);
    m_program->setFragDataLocations(fragDataLocations);
    m_program->addShader(GL_VERTEX_SHADER, m_vertexSource, {});
    m_program->addShader(GL_FRAGMENT_SHADER, m_fragmentSource, {});
    const auto addOptional = [&](unsigned int stage, const QString& source) {
        if (!source.isEmpty()) {
            m_program->addShader(stage, source, {});
        }
    };
    addOptional(GL_GEOMETRY_SHADER, m_geometrySource);
    addOptional(GL_TESS_CONTROL_SHADER, m_tessellationControlSource);
    addOptional(GL_TESS_EVALUATION_SHADER, m_tessellationEvaluationSource);
    Qel::buildProgram(m_program.get());
}

void ShaderRenderPass::applyBlendMode()
{
    OpenGLDeviceContext* context = OpenGLDeviceContext::current();
    context->setEnabled(GL_BLEND, m_blendMode != BlendMode::None);
    if (m_blendMode == BlendMode::Add) {
        glBlendFunc(GL_ONE, GL_ONE);
    } else if (m_blendMode != BlendMode::None) {
        glBlendFunc(GL_ONE_MINUS_SRC_ALPHA, GL_SRC_ALPHA);
    }
}

void ShaderRenderPass::setUniforms()
{
    for (const int i : m_plainInputs) {
        const QVariant& value = m_inputs[static_cast<size_t>(i)].value;
        switch (value.typeId()) {
        case QMetaType::Bool:
        case QMetaType::Int:
        case QMetaType::Double:
        case QMetaType::Float:
        case QMetaType::QColor:
        case QMetaType::QSize:
        case QMetaType::QRect:
        case QMetaType::QMatrix4x4:
        case QMetaType::QVector2D:
        case QMetaType::QVector3D:
        case QMetaType::QVector4D:
            m_program->setUniform(m_uniforms[static_cast<size_t>(i)], value);
            break;
        default:
            break;
        }
    }
}

/// Drops one reference of each texture input, also where the list holds it twice: the latest copy, at its end
/// and in ascending order, holds them all.
void ShaderRenderPass::releaseInputs()
{
    int previous = numInputs();
    for (auto i = m_textureInputs.rbegin(); i != m_textureInputs.rend() && *i < previous; ++i) {
        TextureManager::Instance()->releaseTempTextureRef(getInputPointer<Texture>(*i), 1);
        previous = *i;
    }
}

void ShaderRenderPass::publishTargets()
{
    TextureManager* pool = TextureManager::Instance();
    for (size_t k = 0; k < m_textureOutputs.size(); ++k) {
        Output& output = m_outputs[static_cast<size_t>(m_textureOutputs[k])];
        Texture* target = m_framebuffer->detach(GL_COLOR_ATTACHMENT0 + static_cast<unsigned int>(k));
        output.value = QVariant::fromValue(target);
        pool->addTempTextureRef(target, output.users);
        pool->releaseTempTextureRef(target, 1);
    }
}

} // namespace Morvane::Qel
