#include <Qel/RenderPasses/visibility/VisibilityDeferredRenderPass.h>

#include <QMatrix4x4>

#include <array>

#include <epoxy/gl.h>

#include <Qel/RenderPasses/framework/CommonPorts.h>
#include <Qel/RenderPasses/framework/PassFrame.h>
#include <Qel/RenderPasses/support/FragmentLists.h>
#include <Qel/gl/GLSLMacroProcessor.h>
#include <Qel/gl/InstanceData.h>
#include <Qel/gl/VertexArrayObject.h>
#include <Qel/model/GPUModel.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

// What is the same for all pixels is computed here and passed on in flat outputs, because software
// rasterisers pay for every uniform that a pixel reads.
const QString vertexSource = uR"(#version 150
#include "VisibilityBuffer.glslh"
#instancedata "InstanceInfo"
#instancedata "OBJMaterial"
uniform mat4 u_CameraMatrix;
uniform mat4 u_NormalMatrix;
in vec3 va_Vertex;
in vec2 va_TexCoord;
out vec2 vo_TexCoord;
flat out VisibilityBufferDraw vo_Draw;
flat out mat4x3 vo_NormalMatrix;       // from object space to eye space
flat out vec4 vo_Diffuse;              // and dissolve
flat out vec4 vo_Specular;             // and exponent

void main()
{
    gl_Position = vec4(va_Vertex, 1.0);
    vo_TexCoord = va_TexCoord;
    vo_Draw = getVisibilityBufferDraw();
    vo_NormalMatrix = mat4x3(u_NormalMatrix * getModelNormalMatrix());
    vo_Diffuse = vec4(getKd(), getD());
    vo_Specular = vec4(getKs(), getNs());
}
)"_s;

// Both deliberate: the normal is extended with w = 1, so the last column of the normal matrix takes part,
// which is not 0 for a camera matrix that is not affine; and the blending sequence, in which each line reads
// what the line before it wrote.
const QString fragmentSource = uR"(#version 150
#include "VisibilityBuffer.glslh"
#include "TextureManager.glslh"
#instancedata "InstanceInfo"
#instancedata "OBJMaterial"
#include "DirectionalLight.glslh"
in vec2 vo_TexCoord;
flat in VisibilityBufferDraw vo_Draw;
flat in mat4x3 vo_NormalMatrix;
flat in vec4 vo_Diffuse;
flat in vec4 vo_Specular;
out vec4 out_FragColor;

void main()
{
    // Alpha starts at 1, as front-to-back compositing needs.
    vec4 result = vec4(0.0, 0.0, 0.0, 1.0);
    uint pointer;
    initializeVisibilityBufferQuery(vo_Draw, vo_TexCoord, pointer);
    if (!doesVisibilityBufferHaveFragment(pointer)) {
        // The node buffer was full.
        discard;
    }
    vec3 L = normalize(vec3(100.0, 100.0, 100.0));
    float alpha = vo_Diffuse.a;
    // Software rasterisers run a loop that tests first once more than it has iterations.
    do {
        vec3 position;
        vec3 normal;
        vec2 texCoord;
        float depth;
        getFragmentInfo(vo_TexCoord, pointer, position, depth, normal, texCoord);
        vec2 dx;
        vec2 dy;
        getFragmentTexCoordGradients(dx, dy);

        vec3 Kd = vo_Diffuse.rgb * managedTexture(getMap_Kd(), texCoord, dx, dy).rgb;
        vec3 Ks = vo_Specular.rgb * managedTexture(getMap_Ks(), texCoord, dx, dy).rgb;
        vec3 N = vo_NormalMatrix * vec4(normal, 1.0);
        vec3 colour = directionalLight(Kd, Ks, vo_Specular.a, N, L);

        result.rgb = mix(result.rgb, colour, alpha);
        result.a = clamp(alpha + (1.0 - alpha) * result.a, 0.0, 1.0);
        result.rgb = result.a * alpha * colour + result.rgb;
        result.a = (1.0 - alpha) * result.a;
    } while (alpha < 1.0 && doesVisibilityBufferHaveFragment(pointer));
    out_FragColor = result;
}
)"_s;

} // namespace

const PassDescription& VisibilityDeferredRenderPass::description()
{
    static const PassDescription description{
        .type = u"VisibilityDeferredRenderPass"_s,
        .summary =
            u"Shades fragment lists with geometry from the model's buffers and blends the layers in order."_s,
        .inputs = {viewportInput(u"size of the frame; the origin is ignored"_s, u"no texture is made"_s),
                   {.name = u"Qel_QMatrix4x4_ProjectionMatrix"_s,
                    .meaning = u"eye space to clip space, as for the lists"_s,
                    .whenMissing = u"identity"_s},
                   {.name = u"Qel_QMatrix4x4_CameraMatrix"_s,
                    .meaning = u"world space to eye space, as for the lists"_s,
                    .whenMissing = u"identity"_s},
                   {.name = u"Qel_QelTexture*_HeadPointers"_s,
                    .meaning = u"head pointers, R32UI"_s,
                    .whenMissing = u"the output is cleared"_s,
                    .encoding = Encoding::Data},
                   {.name = u"Qel_QelTexture*_NodeBuffer"_s,
                    .meaning = u"nodes, RGBA32UI"_s,
                    .whenMissing = u"the output is cleared"_s,
                    .encoding = Encoding::Data},
                   {.name = u"Qel_int_NodeBufferWidth"_s,
                    .meaning = u"nodes in a row of the node buffer"_s,
                    .whenMissing = u"the output is cleared"_s,
                    .range = u"1 or more"_s,
                    .limits = {1.0}},
                   modelInput(u"the model that the lists were drawn from, of triangles, with 32-bit indices "
                              "or none; every fragment is shaded as part of its first batch"_s,
                              u"the output is cleared"_s)},
        .outputs = {{.name = u"Qel_QelTexture*_Frame"_s,
                     .meaning = u"blended colours, clamped to 0 to 1, with the alpha that the blending "
                                "sequence leaves; GL_RGBA, owned by the pass"_s,
                     .encoding = Encoding::AsMaterials,
                     .alpha = AlphaMeaning::Data}}};
    return description;
}

VisibilityDeferredRenderPass::VisibilityDeferredRenderPass()
{
    declarePorts(description());
}

VisibilityDeferredRenderPass::~VisibilityDeferredRenderPass()
{
    deleteTarget(m_framebuffer.get(), GL_COLOR_ATTACHMENT0);
}

void VisibilityDeferredRenderPass::start(RenderCallbacks* /*callbacks*/)
{
    const QRect viewport = m_inputs[Viewport].value.toRect();
    auto* headPointers = getInputPointer<Texture>(HeadPointers);
    auto* nodes = getInputPointer<Texture>(NodeBuffer);
    auto* model = getInputPointer<GPUModel>(Geometry);
    const InputReferences inputs(headPointers, nodes);
    if (viewport.isEmpty()) {
        m_outputs[Frame].value.clear();
        return;
    }

    provideTargets(m_framebuffer, m_width, m_height, viewport,
                   {{GL_COLOR_ATTACHMENT0, GL_RGBA, GL_BGRA, GL_FLOAT}});
    provideProgram();
    const AutoBinder framebufferBinder(m_framebuffer.get());
    m_framebuffer->setDrawBuffers();
    glClear(GL_COLOR_BUFFER_BIT);
    if (areFragmentLists(headPointers, nodes, &m_hasReportedLists) &&
        m_inputs[NodeBufferWidth].value.toInt() > 0 && model && model->numBatches() > 0 &&
        model->drawBuffers(0)->VAO()) {
        shade(headPointers, nodes, model);
    }
    m_outputs[Frame].value = textureVariant(m_framebuffer->attachment(GL_COLOR_ATTACHMENT0));
}

void VisibilityDeferredRenderPass::provideProgram()
{
    if (m_program) {
        return;
    }
    // Buffer textures of three components need OpenGL 4.0 or the extension.
    const OpenGLDeviceContext* context = OpenGLDeviceContext::current();
    m_hasThreeComponents =
        context->version() >= 40 || context->hasExtension("ARB_texture_buffer_object_rgb32");
    GLSLMacroProcessor processor;
    if (!m_hasThreeComponents) {
        processor.addDefine(u"QEL_VECTORS_AS_FLOATS"_s, u"1"_s);
    }
    ShaderProgram& program = provide(m_program);
    program.setMacroProcessor(&processor);
    program.setFragDataLocations({u"out_FragColor"_s});
    program.addShader(GL_VERTEX_SHADER, vertexSource, {});
    program.addShader(GL_FRAGMENT_SHADER, fragmentSource, {});
    program.addShaderFromFile(GL_FRAGMENT_SHADER, u"TextureManager.glslc"_s);
    for (const unsigned int stage : {GL_VERTEX_SHADER, GL_FRAGMENT_SHADER}) {
        program.addShaderFromFile(stage, u"VisibilityBuffer.glslc"_s);
        for (const QString& plan : {u"InstanceInfo"_s, u"OBJMaterial"_s}) {
            program.addShader(stage, InstanceDataRegistry::Instance()->getPlan(plan)->glslc(), {});
        }
    }
    buildProgram(program);
    program.setMacroProcessor(nullptr);
    provideScreenBatch(m_fullScreenBatch, program, Screen::Triangle);

    constexpr std::array<float, 3> zeroes{};
    m_zeroes = QSharedPointer<BufferObject>::create();
    m_zeroes->upload(zeroes.data(), static_cast<int>(zeroes.size()), GL_STATIC_DRAW);
}

/// Points the buffer textures at the batch's buffers if those changed.
void VisibilityDeferredRenderPass::updateBufferTextures(DrawBuffers* batch)
{
    if (m_shownBatch == batch && m_shownVertexArray == batch->VAO() &&
        m_numUploadsShown == batch->VAO()->numUploads() && m_shownIndices == batch->indexBO()) {
        return;
    }
    m_shownBatch = batch;
    m_shownVertexArray = batch->VAO();
    m_numUploadsShown = batch->VAO()->numUploads();
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
    updateBufferTextures(batch);

    const AutoDisabler depthTest(GL_DEPTH_TEST);
    const AutoEnabler stencilTest(GL_STENCIL_TEST);
    const FragmentLists lists{headPointers, nodes, m_inputs[NodeBufferWidth].value.toInt()};
    const ListDraw listDraw(provide(m_listMask), *m_framebuffer, lists,
                            m_inputs[Viewport].value.toRect().size(), headPointers->size());
    const AutoBinder programBinder(m_program.get());
    const BoundSampler headPointerSampler(*m_program, m_headPointerSampler, headPointers, Sampling::Nearest);
    const BoundSampler nodeSampler(*m_program, m_nodeSampler, nodes, Sampling::Nearest);
    const AutoBinder positionBinder(m_positions.get());
    const AutoBinder texCoordBinder(m_texCoords.get());
    const AutoBinder normalBinder(m_normals.get());
    const AutoBinder indexBinder(m_indices.get());
    m_program->setUniform(m_nodeBufferWidth, lists.nodeBufferWidth);
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
    drawBatch(m_fullScreenBatch);
    model->objectData(0)->unbind(nullptr);
    model->materialData(0)->unbind(nullptr);
}

/// Sets every matrix that the shader files may declare.
void VisibilityDeferredRenderPass::setMatrices()
{
    const auto projection = m_inputs[ProjectionMatrix].value.value<QMatrix4x4>();
    const auto camera = m_inputs[CameraMatrix].value.value<QMatrix4x4>();
    const QMatrix4x4 inverseCamera = camera.inverted();
    m_program->setUniform(m_cameraMatrix, camera);
    m_program->setUniform(m_projectionMatrix, projection);
    m_program->setUniform(m_viewProjection, projection * camera);
    m_program->setUniform(m_normalMatrix, inverseCamera.transposed());
    m_program->setUniform(m_inverseProjection, projection.inverted());
    m_program->setUniform(m_inverseCamera, inverseCamera);
}

} // namespace Morvane::Qel
