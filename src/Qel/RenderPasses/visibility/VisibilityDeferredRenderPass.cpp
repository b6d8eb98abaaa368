#include <Qel/RenderPasses/visibility/VisibilityDeferredRenderPass.h>

#include <QMatrix4x4>
#include <QRect>

#include <array>

#include <epoxy/gl.h>

#include <Qel/RenderPasses/support/FragmentLists.h>
#include <Qel/RenderPasses/support/FullScreen.h>
#include <Qel/RenderPasses/support/Targets.h>
#include <Qel/gl/DrawBuffers.h>
#include <Qel/gl/FramebufferObject.h>
#include <Qel/gl/GLSLMacroProcessor.h>
#include <Qel/gl/Guards.h>
#include <Qel/gl/InstanceData.h>
#include <Qel/gl/OpenGLDeviceContext.h>
#include <Qel/gl/Texture.h>
#include <Qel/gl/VertexArrayObject.h>
#include <Qel/model/GPUModel.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

// The normal is extended with w = 1, so that the last column of the normal matrix takes part, which for other
// than affine camera matrices is not 0. Deliberate, as
// is the sequence by which layers are blended: each line reads what the line before it wrote.
const QString fragmentSource = uR"(#version 150
#include "VisibilityBuffer.glslh"
#include "TextureManager.glslh"
#instancedata "InstanceInfo"
#instancedata "OBJMaterial"
#include "DirectionalLight.glslh"
uniform mat4 u_CameraMatrix;
uniform mat4 u_NormalMatrix;
in vec2 vo_TexCoord;
out vec4 out_FragColor;

void main()
{
    // Alpha begins at 1 for layers that are laid under those before.
    vec4 result = vec4(0.0, 0.0, 0.0, 1.0);
    uint pointer;
    initializeVisibilityBufferQuery(vo_TexCoord, pointer);
    if (!doesVisibilityBufferHaveFragment(pointer)) {
        discard;
    }
    mat4 normalMatrix = transpose(inverse(u_CameraMatrix * getModelMatrix()));
    vec3 L = normalize(vec3(100.0, 100.0, 100.0));
    while (doesVisibilityBufferHaveFragment(pointer)) {
        vec3 position;
        vec3 normal;
        vec2 texCoord;
        float depth;
        getFragmentInfo(vo_TexCoord, pointer, position, depth, normal, texCoord);
        vec2 dx;
        vec2 dy;
        getFragmentTexCoordGradients(dx, dy);

        vec3 Kd = getKd() * managedTexture(getMap_Kd(), texCoord, dx, dy).rgb;
        vec3 Ks = getKs() * managedTexture(getMap_Ks(), texCoord, dx, dy).rgb;
        vec3 N = (normalMatrix * vec4(normal, 1.0)).rgb;
        vec3 colour = directionalLight(Kd, Ks, getNs(), N, L);
        float alpha = getD();

        result.rgb = mix(result.rgb, colour, alpha);
        result.a = clamp(alpha + (1.0 - alpha) * result.a, 0.0, 1.0);
        result.rgb = result.a * alpha * colour + result.rgb;
        result.a = (1.0 - alpha) * result.a;
        if (alpha >= 1.0) {
            break;
        }
    }
    out_FragColor = result;
}
)"_s;

} // namespace

const PassDescription& VisibilityDeferredRenderPass::description()
{
    static const PassDescription description{
        u"VisibilityDeferredRenderPass"_s,
        u"Shades lists of fragments from the model's buffers and blends their layers in order."_s,
        {{u"Qel_QRect_Viewport"_s,
          u"size of the frame; the origin is ignored"_s,
          u"no texture is made"_s,
          {},
          u"pixels"_s},
         {u"Qel_QMatrix4x4_ProjectionMatrix"_s, u"eye space to clip space, as the lists were drawn"_s,
          u"identity"_s},
         {u"Qel_QMatrix4x4_CameraMatrix"_s, u"world space to eye space, as the lists were drawn"_s,
          u"identity"_s},
         {u"Qel_QelTexture*_HeadPointers"_s, u"head pointers, R32UI"_s, u"the frame is clear"_s},
         {u"Qel_QelTexture*_NodeBuffer"_s, u"nodes, RGBA32UI"_s, u"the frame is clear"_s},
         {u"Qel_int_NodeBufferWidth"_s,
          u"nodes in a row of the buffer"_s,
          u"the frame is clear"_s,
          {},
          u"1 or more"_s},
         {u"Qel_QelGPUModel*_Geometry"_s,
          u"the model that the lists were drawn from, of triangles with 32-bit indices or "
          "none; all is shaded as its first batch"_s,
          u"the frame is clear"_s}},
        {{u"Qel_QelTexture*_Frame"_s,
          u"blended colours, with the alpha that the sequence of blending leaves; GL_RGBA, owned by the "
          "pass"_s}}};
    return description;
}

VisibilityDeferredRenderPass::VisibilityDeferredRenderPass()
{
    declarePorts(description());
}

VisibilityDeferredRenderPass::~VisibilityDeferredRenderPass() = default;

void VisibilityDeferredRenderPass::start(RenderCallbacks* /*callbacks*/)
{
    const QRect viewport = m_inputs[Viewport].value.toRect();
    auto* headPointers = getInputPointer<Texture>(HeadPointers);
    auto* nodes = getInputPointer<Texture>(NodeBuffer);
    auto* model = getInputPointer<GPUModel>(Geometry);

    TextureManager* pool = TextureManager::Instance();
    if (viewport.isEmpty()) {
        m_outputs[Frame].value.clear();
        pool->releaseTempTextureRef(headPointers, 1);
        pool->releaseTempTextureRef(nodes, 1);
        return;
    }
    if (!m_framebuffer) {
        makeObjects();
    }
    if (viewport.width() != m_width || viewport.height() != m_height) {
        resize(viewport.width(), viewport.height());
    }
    {
        const AutoBinder framebufferBinder(m_framebuffer.get());
        m_framebuffer->setDrawBuffers();
        glClear(GL_COLOR_BUFFER_BIT);
        if (areFragmentLists(headPointers, nodes, &m_hasReportedLists) &&
            m_inputs[NodeBufferWidth].value.toInt() > 0 && model && model->numBatches() > 0 &&
            model->drawBuffers(0)->VAO()) {
            shade(headPointers, nodes, model);
        }
    }
    m_outputs[Frame].value = textureVariant(m_framebuffer->attachment(GL_COLOR_ATTACHMENT0));
    pool->releaseTempTextureRef(headPointers, 1);
    pool->releaseTempTextureRef(nodes, 1);
}

void VisibilityDeferredRenderPass::makeObjects()
{
    OpenGLDeviceContext* context = OpenGLDeviceContext::current();
    m_framebuffer = std::make_unique<FramebufferObject>();

    // Before OpenGL 4.0 buffers of three components could not be shown as such.
    m_hasThreeComponents =
        context->version() >= 40 || context->hasExtension("ARB_texture_buffer_object_rgb32");
    GLSLMacroProcessor processor;
    if (!m_hasThreeComponents) {
        processor.addDefine(u"QEL_VECTORS_AS_FLOATS"_s, u"1"_s);
    }
    const InstanceDataRegistry* registry = InstanceDataRegistry::Instance();
    m_program = std::make_unique<ShaderProgram>();
    m_program->setMacroProcessor(&processor);
    addFullScreenShaders(m_program.get(), fragmentSource);
    m_program->addShaderFromFile(GL_FRAGMENT_SHADER, u"VisibilityBuffer.glslc"_s);
    m_program->addShaderFromFile(GL_FRAGMENT_SHADER, u"TextureManager.glslc"_s);
    for (const QString& plan : {u"InstanceInfo"_s, u"OBJMaterial"_s}) {
        m_program->addShader(GL_FRAGMENT_SHADER, registry->getPlan(plan)->glslc(), {});
    }
    buildProgram(m_program.get());
    m_program->setMacroProcessor(nullptr);
    m_fullScreenBatch = context->fullScreenTriangle();
    enableArrays(m_fullScreenBatch, m_program.get());

    constexpr std::array<float, 3> zeroes{};
    m_zeroes = QSharedPointer<BufferObject>::create();
    m_zeroes->upload(zeroes.data(), static_cast<int>(zeroes.size()), GL_STATIC_DRAW);
}

void VisibilityDeferredRenderPass::resize(int width, int height)
{
    m_width = width;
    m_height = height;
    const AutoBinder binder(m_framebuffer.get());
    m_framebuffer->detach(GL_COLOR_ATTACHMENT0);
    m_frame.reset(makeTarget(width, height, GL_RGBA, GL_BGRA, GL_FLOAT));
    m_framebuffer->attach(m_frame.get(), GL_COLOR_ATTACHMENT0, 0);
}

void VisibilityDeferredRenderPass::showBuffers(DrawBuffers* batch)
{
    if (m_shownBatch == batch && m_shownVertexArray == batch->VAO() && m_shownIndices == batch->indexBO()) {
        return;
    }
    m_shownBatch = batch;
    m_shownVertexArray = batch->VAO();
    m_shownIndices = batch->indexBO();
    const auto show = [&](std::unique_ptr<Texture>& texture, const QSharedPointer<BufferObject>& buffer,
                          unsigned int format) {
        if (!texture) {
            texture = std::make_unique<Texture>();
            texture->setTarget(GL_TEXTURE_BUFFER);
        }
        texture->setBuffer(format, (buffer ? buffer : m_zeroes).data());
    };
    const VertexArrayObject* vertexArray = batch->VAO().data();
    const unsigned int vectorFormat = m_hasThreeComponents ? GL_RGB32F : GL_R32F;
    show(m_positions, vertexArray->bo(u"va_Vertex"_s), vectorFormat);
    show(m_texCoords, vertexArray->bo(u"va_TexCoord"_s), GL_RG32F);
    show(m_normals, vertexArray->bo(u"va_Normal"_s), vectorFormat);
    show(m_indices, batch->indexBO(), GL_R32I);
}

void VisibilityDeferredRenderPass::shade(Texture* headPointers, Texture* nodes, GPUModel* model)
{
    DrawBuffers* batch = model->drawBuffers(0);
    showBuffers(batch);

    const AutoDisabler depthTest(GL_DEPTH_TEST);
    const AutoBinder programBinder(m_program.get());
    const AutoBinder headPointerBinder(headPointers);
    const AutoBinder nodeBinder(nodes);
    const AutoBinder positionBinder(m_positions.get());
    const AutoBinder texCoordBinder(m_texCoords.get());
    const AutoBinder normalBinder(m_normals.get());
    const AutoBinder indexBinder(m_indices.get());
    m_program->setUniform(m_headPointerSampler, headPointers->unit());
    m_program->setUniform(m_nodeSampler, nodes->unit());
    m_program->setUniform(m_nodeBufferWidth, m_inputs[NodeBufferWidth].value.toInt());
    m_program->setUniform(m_positionSampler, m_positions->unit());
    m_program->setUniform(m_texCoordSampler, m_texCoords->unit());
    m_program->setUniform(m_normalSampler, m_normals->unit());
    m_program->setUniform(m_indexSampler, m_indices->unit());
    m_program->setUniform(m_isIndexed, !batch->indexBO().isNull());
    setMatrices();

    const QSharedPointer<BufferObject> commands = batch->getDrawElementsIndirectCommandsUniformBufferObject();
    const AutoBinder commandBinder(commands.data());
    model->materialData(0)->bind(nullptr);
    model->objectData(0)->bind(nullptr);
    drawBatch(m_fullScreenBatch.data());
    model->objectData(0)->unbind(nullptr);
    model->materialData(0)->unbind(nullptr);
}

/// All that the shader files may ask for, whether or not they do.
void VisibilityDeferredRenderPass::setMatrices()
{
    const auto projection = m_inputs[ProjectionMatrix].value.value<QMatrix4x4>();
    const auto camera = m_inputs[CameraMatrix].value.value<QMatrix4x4>();
    const QMatrix4x4 inverseCamera = camera.inverted();
    m_program->setUniform(m_cameraMatrix, camera);
    m_program->setUniform(m_projectionMatrix, projection);
    m_program->setUniform(m_normalMatrix, inverseCamera.transposed());
    m_program->setUniform(m_inverseProjection, projection.inverted());
    m_program->setUniform(m_inverseCamera, inverseCamera);
}

} // namespace Morvane::Qel
