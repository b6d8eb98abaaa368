#include <Qel/RenderPasses/framework/ShaderRenderPass.h>

#include <QMatrix4x4>
#include <QRegularExpression>

#include <algorithm>
#include <array>

#include <epoxy/gl.h>

#include <Qel/RenderPasses/framework/ModelPrograms.h>
#include <Qel/RenderPasses/framework/PassFrame.h>
#include <Qel/RenderPasses/framework/ShaderPortCheck.h>
#include <Qel/core/Diagnostics.h>
#include <Qel/model/GPUModel.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

const QString texturePrefix = u"Qel_QelTexture*_"_s;
const QString geometryPrefix = u"Qel_QelDrawBuffers*_"_s;
const QString modelPrefix = u"Qel_QelGPUModel*_"_s;

struct OutputFormat
{
    QLatin1StringView name;
    TextureFormat format;
};

constexpr std::array outputFormats{
    OutputFormat{QLatin1StringView("rgba8"), TextureFormat::RGBA8},
    OutputFormat{QLatin1StringView("r16f"), TextureFormat::R16F},
    OutputFormat{QLatin1StringView("rg16f"), TextureFormat::RG16F},
    OutputFormat{QLatin1StringView("rgba16f"), TextureFormat::RGBA16F},
    OutputFormat{QLatin1StringView("r32f"), TextureFormat::R32F},
    OutputFormat{QLatin1StringView("rg32f"), TextureFormat::RG32F},
    OutputFormat{QLatin1StringView("rgba32f"), TextureFormat::RGBA32F},
    OutputFormat{QLatin1StringView("r32ui"), TextureFormat::R32UI},
    OutputFormat{QLatin1StringView("rg32ui"), TextureFormat::RG32UI},
    OutputFormat{QLatin1StringView("rgba32ui"), TextureFormat::RGBA32UI},
    OutputFormat{QLatin1StringView("r32i"), TextureFormat::R32I},
    OutputFormat{QLatin1StringView("rgba32i"), TextureFormat::RGBA32I},
};

QString nameOf(TextureFormat format)
{
    const auto* found =
        std::find_if(outputFormats.begin(), outputFormats.end(),
                     [=](const OutputFormat& candidate) { return candidate.format == format; });
    return found == outputFormats.end() ? QString() : QString(found->name);
}

QStringList formatNames()
{
    QStringList names;
    for (const OutputFormat& format : outputFormats) {
        names.append(format.name);
    }
    return names;
}

bool isSignedInteger(TextureFormat format)
{
    return format == TextureFormat::R32I || format == TextureFormat::RGBA32I;
}

bool isUnsignedInteger(TextureFormat format)
{
    return format == TextureFormat::R32UI || format == TextureFormat::RG32UI ||
           format == TextureFormat::RGBA32UI;
}

// Deliberate: the output's name is not one of the "o_" names that are bound to draw buffers. As the only
// output it goes to draw buffer 0 anyway.
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
        return OptionDescription{.name = name, .meaning = meaning, .defaultValue = QString(), .isFile = true};
    };
    static const PassDescription description{
        .type = u"ShaderRenderPass"_s,
        .summary = u"Runs user-written GLSL full-screen, on a geometry input or on a model, with ports that "
                   "the graph declares."_s,
        .inputs = {},
        .outputs = {},
        .options =
            {{.name = u"inputs"_s,
              .meaning = u"full names of the input ports"_s,
              .defaultValue = QStringList()},
             {.name = u"outputs"_s,
              .meaning = u"full names of the output ports"_s,
              .defaultValue = QStringList()},
             {.name = u"formats"_s,
              .meaning = u"formats of texture outputs by name, such as {\"Frame\": \"rgba16f\"}; rgba8 for "
                         "those that are not listed; ui and i hold unsigned and signed integers, which need "
                         "fragment outputs such as uvec4 and ivec4"_s,
              .defaultValue = QVariantMap(),
              .choices = formatNames(),
              .isPerOutput = true},
             file(u"vertexShader"_s,
                  u"GLSL file of the vertex stage; without it, va_TexCoord is passed on as vo_TexCoord"_s),
             file(u"fragmentShader"_s, u"GLSL file of the fragment stage; without it, u_Input is copied"_s),
             file(u"geometryShader"_s, u"GLSL file of the geometry stage"_s),
             file(u"tessellationControlShader"_s, u"GLSL file of the tessellation control stage"_s),
             file(u"tessellationEvaluationShader"_s, u"GLSL file of the tessellation evaluation stage"_s),
             {.name = u"clear"_s,
              .meaning = u"whether the outputs are cleared before the draw; always after a change of size"_s,
              .defaultValue = true},
             {.name = u"blend"_s,
              .meaning = u"how the draw is blended into the outputs: none; keepByAlpha, source * (1 - source "
                         "alpha) + destination * source alpha; add, source + destination"_s,
              .defaultValue = u"none"_s,
              .choices = {u"none"_s, u"keepByAlpha"_s, u"add"_s}},
             {.name = u"fullScreenBatch"_s,
              .meaning =
                  u"what is drawn without a geometry input or model: triangle, one oversized triangle "
                  "with corners at -1 and 3 and texture coordinates of 0 and 2; quad, two triangles with "
                  "corners at -1 and 1 and texture coordinates of 0 and 1, for vertex stages that need "
                  "these corners"_s,
              .defaultValue = u"triangle"_s,
              .choices = {u"triangle"_s, u"quad"_s}}},
        .hostDeclaresPorts = true};
    return description;
}

ShaderRenderPass::ShaderRenderPass()
    : m_vertexSource(fullScreenVertexSource)
    , m_fragmentSource(defaultFragmentSource)
{
}

ShaderRenderPass::~ShaderRenderPass()
{
    deleteTarget(m_framebuffer.get(), GL_DEPTH_ATTACHMENT);
}

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

void ShaderRenderPass::setFullScreenQuad(bool quad)
{
    m_drawsQuad = quad;
}

void ShaderRenderPass::setOutputFormat(const QString& output, TextureFormat format)
{
    m_formatsByName[output] = format;
}

std::optional<TextureFormat> ShaderRenderPass::formatFromName(const QString& name)
{
    const auto* found = std::find_if(outputFormats.begin(), outputFormats.end(),
                                     [&](const OutputFormat& candidate) { return candidate.name == name; });
    return found == outputFormats.end() ? std::nullopt : std::optional(found->format);
}

Texture* ShaderRenderPass::transparentTexture()
{
    return orTransparent(nullptr, m_transparentTexture);
}

void ShaderRenderPass::start(RenderCallbacks* /*callbacks*/)
{
    // Deliberate: a pass without inputs is never classified and publishes nothing.
    if (m_uniforms.size() != m_inputs.size()) {
        classifyPorts();
    }
    const QSize size = renderSize();
    const bool isNewSize = size != QSize(m_width, m_height);
    m_width = size.width();
    m_height = size.height();

    const AutoBinder framebufferBinder(&provide(m_framebuffer));
    attachTargets();
    if (m_modelInput >= 0 && isNewSize) {
        replaceTargets(*m_framebuffer, size, {depthTarget});
    }
    if (!m_program) {
        buildProgram();
        checkPorts();
    }
    m_framebuffer->setDrawBuffers();
    OpenGLDeviceContext* context = OpenGLDeviceContext::current();
    context->disable(GL_DEPTH_TEST);
    applyBlendMode();
    if (m_clear || isNewSize) {
        clearTargets();
    }
    if (m_modelInput >= 0) {
        glClear(GL_DEPTH_BUFFER_BIT);
    }
    {
        const AutoBinder programBinder(m_program.get());
        drawWithInputs(0);
    }
    if (m_blendMode != BlendMode::None) {
        context->disable(GL_BLEND);
    }
    releaseInputs();
    publishTargets();
}

void ShaderRenderPass::classifyPorts()
{
    // Deliberate: after inputs are added later, both index lists are appended to a second time. Every output
    // then gets two textures, the first of which never returns to the pool. Add all ports before the first
    // start.
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
        } else if (name.startsWith(modelPrefix)) {
            m_modelInput = i;
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
    limitOutputs();
    m_formats.clear();
    for (const int j : m_textureOutputs) {
        m_formats.push_back(m_formatsByName.value(outputName(j), TextureFormat::RGBA8));
    }
    m_viewportInput = findInput(u"Qel_QRect_Viewport"_s);
    m_uniforms.clear();
    for (const QByteArray& name : m_uniformNames) {
        m_uniforms.emplace_back(name.constData());
    }
}

/// Drops the texture outputs that the driver has no draw buffers for.
void ShaderRenderPass::limitOutputs()
{
    const auto limit = static_cast<size_t>(FramebufferObject::maxColorAttachments());
    if (m_textureOutputs.size() > limit) {
        logCritical(
            __FILE__, __LINE__,
            u"%1 texture outputs are too many for this driver, which draws into %2 at once; %3 and those "
            "after it stay empty"_s.arg(m_textureOutputs.size())
                .arg(limit)
                .arg(outputName(m_textureOutputs[limit])));
        m_textureOutputs.resize(limit);
    }
}

/// Returns the size of the viewport or else of the first connected texture; a width or height of 0 becomes 1.
QSize ShaderRenderPass::renderSize()
{
    QSize size(0, 0);
    if (m_viewportInput >= 0) {
        size = m_inputs[static_cast<size_t>(m_viewportInput)].value.toRect().size();
    }
    for (const int i : m_textureInputs) {
        if (auto* texture = getInputPointer<Texture>(i); texture && size.width() == 0) {
            const AutoBinder binder(texture);
            glGetTexLevelParameteriv(GL_TEXTURE_2D, 0, GL_TEXTURE_WIDTH, &size.rwidth());
            glGetTexLevelParameteriv(GL_TEXTURE_2D, 0, GL_TEXTURE_HEIGHT, &size.rheight());
        }
    }
    if (!m_program && size.width() == 0) {
        const QString remedy = m_viewportInput < 0 ? u"add the input Qel_QRect_Viewport"_s
                                                   : u"the input Qel_QRect_Viewport is empty"_s;
        m_notices.push_back(
            {{}, u"no viewport and no texture gives a size, so the outputs are 1 x 1; "_s + remedy});
    }
    return {size.width() == 0 ? 1 : size.width(), size.height() == 0 ? 1 : size.height()};
}

/// Attaches a new pooled texture for each texture output.
void ShaderRenderPass::attachTargets()
{
    unsigned int attachment = GL_COLOR_ATTACHMENT0;
    for (size_t k = 0; k < m_textureOutputs.size(); ++k) {
        m_framebuffer->attach(TextureManager::Instance()->tempTexture(m_formats[k], m_width, m_height, -1),
                              attachment++, 0);
    }
}

void ShaderRenderPass::buildProgram()
{
    QStringList fragDataLocations;
    for (const int j : m_textureOutputs) {
        fragDataLocations.append(u"o_"_s + outputName(j).sliced(texturePrefix.size()));
    }
    provide(m_program).setFragDataLocations(fragDataLocations);
    addStage(GL_VERTEX_SHADER, m_vertexSource);
    addStage(GL_FRAGMENT_SHADER, m_fragmentSource);
    const auto addOptional = [&](unsigned int stage, const QString& source) {
        if (!source.isEmpty()) {
            addStage(stage, source);
        }
    };
    addOptional(GL_GEOMETRY_SHADER, m_geometrySource);
    addOptional(GL_TESS_CONTROL_SHADER, m_tessellationControlSource);
    addOptional(GL_TESS_EVALUATION_SHADER, m_tessellationEvaluationSource);
    Qel::buildProgram(*m_program);
}

void ShaderRenderPass::addStage(unsigned int stage, const QString& source)
{
    static const QRegularExpression version(uR"(^[ \t]*#[ \t]*version\b)"_s,
                                            QRegularExpression::MultilineOption);
    const bool tessellates = stage == GL_TESS_CONTROL_SHADER || stage == GL_TESS_EVALUATION_SHADER;
    QString versioned = source;
    if (!version.match(source).hasMatch()) {
        const QString added = tessellates ? u"#version 400"_s : u"#version 150"_s;
        // Messages count from the user's first line. Up to version 1.50 #line numbers its own line.
        versioned = u"%1\n#line %2\n%3"_s.arg(added, tessellates ? u"1"_s : u"0"_s, source);
        m_notices.push_back({{}, u"the %1 has no #version; \"%2\" is added"_s.arg(stageName(stage), added)});
    }
    m_program->addShader(stage, versioned, {});
    // Compilers want the layout of a tessellation stage in each of its sources.
    if (m_modelInput >= 0 && !tessellates) {
        addModelAccessors(*m_program, stage);
    }
}

void ShaderRenderPass::checkPorts()
{
    if (!m_program->isValid()) {
        return;
    }
    ShaderPortCheck check(*m_program);
    for (const int i : m_textureInputs) {
        const Texture* texture = orTransparent(getInputPointer<Texture>(i), m_transparentTexture);
        check.checkTexture(inputName(i), QString::fromUtf8(m_uniformNames[static_cast<size_t>(i)]), *texture);
    }
    for (const int i : m_plainInputs) {
        // The viewport is there for the size.
        if (i != m_viewportInput || m_program->hasUniform(inputName(i))) {
            check.checkPlain(inputName(i));
        }
    }
    std::vector<ShaderPortCheck::Output> outputs;
    for (size_t k = 0; k < m_textureOutputs.size(); ++k) {
        const QString port = outputName(m_textureOutputs[k]);
        const TextureFormat format = m_formats[k];
        outputs.push_back({port, u"o_"_s + port.sliced(texturePrefix.size()), nameOf(format),
                           isUnsignedInteger(format) ? u"u"_s
                           : isSignedInteger(format) ? u"i"_s
                                                     : QString()});
    }
    check.checkOutputs(outputs);
    check.checkVaryings();
    for (Notice& notice : check.takeNotices()) {
        m_notices.push_back(std::move(notice));
    }
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

/// Clears the colour targets: integers to 0, all others to the clear colour in force.
void ShaderRenderPass::clearTargets()
{
    glClear(GL_COLOR_BUFFER_BIT);
    // What glClear leaves in targets of integers is undefined.
    for (size_t k = 0; k < m_formats.size(); ++k) {
        if (isUnsignedInteger(m_formats[k])) {
            constexpr std::array<GLuint, 4> zero{};
            glClearBufferuiv(GL_COLOR, static_cast<GLint>(k), zero.data());
        } else if (isSignedInteger(m_formats[k])) {
            constexpr std::array<GLint, 4> zero{};
            glClearBufferiv(GL_COLOR, static_cast<GLint>(k), zero.data());
        }
    }
}

/// Binds texture input k and all after it, then draws. Recursive, so that any number of samplers lives on the
/// stack, without an allocation, and is released in reverse order.
void ShaderRenderPass::drawWithInputs(size_t k)
{
    if (k < m_textureInputs.size()) {
        const int input = m_textureInputs[k];
        Texture* texture = orTransparent(getInputPointer<Texture>(input), m_transparentTexture);
        const BoundSampler sampler(*m_program, m_uniforms[static_cast<size_t>(input)], texture,
                                   Sampling::Linear);
        drawWithInputs(k + 1);
        return;
    }
    setUniforms();
    OpenGLDeviceContext::current()->setViewport(0, 0, m_width, m_height);
    if (auto* geometry = m_geometryInput < 0 ? nullptr : getInputPointer<DrawBuffers>(m_geometryInput)) {
        const AutoEnabler pointSize(GL_PROGRAM_POINT_SIZE);
        drawBatch(geometry);
        return;
    }
    if (auto* model = m_modelInput < 0 ? nullptr : getInputPointer<GPUModel>(m_modelInput)) {
        const AutoEnabler pointSize(GL_PROGRAM_POINT_SIZE);
        const AutoEnabler depthTest(GL_DEPTH_TEST);
        model->draw(m_program.get(), 0, 0, WindingType::CounterClockwise);
        return;
    }
    if (!m_fullScreenBatch) {
        provideScreenBatch(m_fullScreenBatch, *m_program, m_drawsQuad ? Screen::Quad : Screen::Triangle);
    }
    drawBatch(m_fullScreenBatch);
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

/// Drops one reference of each texture input. The index list may hold several copies (see classifyPorts);
/// only the last copy, which is complete, counts.
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
