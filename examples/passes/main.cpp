// Runs two passes without a graph, on a model, and writes the image:
//   qel-two-passes MODEL OUTPUT.png

#include <QMatrix4x4>

#include <cstdio>

#include <Qel/RenderPasses/framework/InputPointers.h>
#include <Qel/RenderPasses/geometry/ForwardRenderPass.h>
#include <Qel/RenderPasses/postprocessing/FastApproximateAntiAliasingRenderPass.h>
#include <Qel/gl/HeadlessContext.h>
#include <Qel/gl/ResourceScope.h>
#include <Qel/gl/TextureManager.h>
#include <Qel/graph/ImageIO.h>
#include <Qel/model/GPUModel.h>

using namespace Morvane::Qel;

namespace {

int fail(const QString& message)
{
    std::fprintf(stderr, "qel-two-passes: %s\n", qPrintable(message));
    return 1;
}

/// A forward pass whose frame is anti-aliased.
class Renderer
{
public:
    explicit Renderer(OpenGLDeviceContext& context)
        : m_context(context)
    {
    }

    /// Renders a frame. Its texture is pooled, and the caller drops its reference.
    Texture* render(GPUModel& model, const QSize& size, const QMatrix4x4& projection,
                    const QMatrix4x4& camera)
    {
        const ResourceScope::Activation activation(&m_scope);
        const QRect viewport(QPoint(0, 0), size);
        m_forward.setInput(ForwardRenderPass::Viewport, viewport);
        m_forward.setInput(ForwardRenderPass::ProjectionMatrix, projection);
        m_forward.setInput(ForwardRenderPass::CameraMatrix, camera);
        m_forward.setInput(ForwardRenderPass::Geometry, QVariant::fromValue(&model));
        m_forward.setNumOutputUsers(ForwardRenderPass::Frame, 1);
        m_context.applyBaseState();
        m_forward.start(nullptr);

        m_antiAliasing.setInput(AntiAliasing::Viewport, viewport);
        m_antiAliasing.setInput(AntiAliasing::Frame, m_forward.output(ForwardRenderPass::Frame));
        m_antiAliasing.setNumOutputUsers(AntiAliasing::AntiAliasedFrame, 1);
        m_context.applyBaseState();
        m_antiAliasing.start(nullptr);

        TextureManager::Instance()->endFrame();
        return pointerFromVariant<Texture>(m_antiAliasing.output(AntiAliasing::AntiAliasedFrame));
    }

private:
    using AntiAliasing = FastApproximateAntiAliasingRenderPass;

    OpenGLDeviceContext& m_context;
    /// Deletes what the passes leave behind on purpose.
    ResourceScope m_scope;
    ForwardRenderPass m_forward;
    AntiAliasing m_antiAliasing;
};

} // namespace

int main(int argc, char** argv)
{
    if (argc != 3) {
        return fail("usage: qel-two-passes MODEL OUTPUT.png");
    }
    QString error;
    const auto context = HeadlessContext::create({}, &error);
    if (!context) {
        return fail(error);
    }
    const auto data = importModel(QString::fromLocal8Bit(argv[1]), &error);
    if (!data) {
        return fail(error);
    }
    GPUModel model(*data);

    const auto [lower, upper] = model.bounds();
    const QVector3D center = (lower + upper) / 2.0F;
    const float radius = (upper - lower).length() / 2.0F;
    const QSize size(640, 360);
    QMatrix4x4 projection;
    projection.perspective(45.0F, float(size.width()) / float(size.height()), 0.5F * radius, 5.0F * radius);
    QMatrix4x4 camera;
    camera.lookAt(center + 3.0F * radius * QVector3D(0.4F, 0.3F, 0.85F), center, {0.0F, 1.0F, 0.0F});

    Renderer renderer(*context);
    Texture* image = renderer.render(model, size, projection, camera);
    const bool isWritten = writeImage(readTexture(image).front(), QString::fromLocal8Bit(argv[2]), &error);
    TextureManager::Instance()->releaseTempTextureRef(image, 1);
    return isWritten ? 0 : fail(error);
}
