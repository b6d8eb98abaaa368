#include <Qel/graph/PassRegistry.h>

#include <QFile>
#include <QRegularExpression>

#include <optional>
#include <utility>

#include <Qel/RenderPasses/compositing/BlendRenderPass.h>
#include <Qel/RenderPasses/compositing/CubemapLoaderRenderPass.h>
#include <Qel/RenderPasses/compositing/GradientRenderPass.h>
#include <Qel/RenderPasses/compositing/SkyboxRenderPass.h>
#include <Qel/RenderPasses/compositing/TextureLoaderRenderPass.h>
#include <Qel/RenderPasses/compositing/TextureToScreenRenderPass.h>
#include <Qel/RenderPasses/framework/ShaderRenderPass.h>
#include <Qel/RenderPasses/geometry/CameraSpaceZBufferRenderPass.h>
#include <Qel/RenderPasses/geometry/ForwardRenderPass.h>
#include <Qel/RenderPasses/geometry/ModelRenderPass.h>
#include <Qel/RenderPasses/geometry/WireframeRenderPass.h>
#include <Qel/RenderPasses/lighting/ScalableAmbientObscuranceRenderPass.h>
#include <Qel/RenderPasses/postprocessing/BlurAndCombineRenderPass.h>
#include <Qel/RenderPasses/postprocessing/DepthOfFieldRenderPass.h>
#include <Qel/RenderPasses/postprocessing/FastApproximateAntiAliasingRenderPass.h>
#include <Qel/RenderPasses/postprocessing/GaussianBlurRenderPass.h>
#include <Qel/RenderPasses/postprocessing/LuminanceAverageRenderPass.h>
#include <Qel/RenderPasses/postprocessing/SMAARenderPass.h>
#include <Qel/RenderPasses/postprocessing/TemporalAAJitterPass.h>
#include <Qel/RenderPasses/postprocessing/TemporalAARenderPass.h>

namespace Morvane::Qel {

namespace {

/// A source that stands for a GLSL file: the file's #version and an include of it. So the driver's messages
/// name the file and its lines, and its own includes are searched beside it.
std::optional<QString> stageSource(const QString& path, QString* error)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        *error = QStringLiteral("%1: cannot be read: %2").arg(path, file.errorString());
        return {};
    }
    static const QRegularExpression version(QStringLiteral(R"(^[ \t]*#[ \t]*version[ \t]+\d+(?:[ \t]+\w+)?)"),
                                            QRegularExpression::MultilineOption);
    const QString text = QString::fromUtf8(file.readAll());
    return QStringLiteral("%1\n#include \"%2\"\n").arg(version.match(text).captured(), path);
}

std::unique_ptr<RenderPass> makeShaderPass(const PassOptions& options, QString* error)
{
    using Pass = ShaderRenderPass;
    auto pass = std::make_unique<Pass>();
    for (const QString& port : options[QStringLiteral("inputs")].toStringList()) {
        pass->addInput(port);
    }
    for (const QString& port : options[QStringLiteral("outputs")].toStringList()) {
        pass->addOutput(port);
    }
    const std::pair<QString, void (Pass::*)(const QString&)> stages[] = {
        {QStringLiteral("vertexShader"), &Pass::setVertexShaderSource},
        {QStringLiteral("fragmentShader"), &Pass::setFragmentShaderSource},
        {QStringLiteral("geometryShader"), &Pass::setGeometryShaderSource},
        {QStringLiteral("tessellationControlShader"), &Pass::setTessellationControlShaderSource},
        {QStringLiteral("tessellationEvaluationShader"), &Pass::setTessellationEvaluationShaderSource},
    };
    for (const auto& [option, setSource] : stages) {
        const QString path = options[option].toString();
        if (path.isEmpty()) {
            continue;
        }
        const std::optional<QString> source = stageSource(path, error);
        if (!source) {
            return nullptr;
        }
        (pass.get()->*setSource)(*source);
    }
    pass->setClear(options[QStringLiteral("clear")].toBool());
    const QString blend = options[QStringLiteral("blend")].toString();
    pass->setBlend(blend == QLatin1StringView("add")           ? Pass::BlendMode::Add
                   : blend == QLatin1StringView("keepByAlpha") ? Pass::BlendMode::KeepByAlpha
                                                               : Pass::BlendMode::None);
    return pass;
}

std::unique_ptr<RenderPass> makeBlendPass(const PassOptions& options, QString* /*error*/)
{
    // The choices stand in the order of the modes' values.
    const OptionDescription& mode = BlendRenderPass::description().options.front();
    return std::make_unique<BlendRenderPass>(
        static_cast<BlendRenderPass::BlendMode>(mode.choices.indexOf(options[mode.name].toString())));
}

std::unique_ptr<RenderPass> makeModelPass(const PassOptions& options, QString* /*error*/)
{
    auto pass = std::make_unique<ModelRenderPass>();
    pass->setDiscardOnDiffuseAlpha(options[QStringLiteral("discardOnDiffuseAlpha")].toBool());
    return pass;
}

std::unique_ptr<RenderPass> makeObscurancePass(const PassOptions& options, QString* /*error*/)
{
    using Pass = ScalableAmbientObscuranceRenderPass;
    const OptionDescription& normals = Pass::description().options.front();
    auto pass = std::make_unique<Pass>();
    pass->setNormalProcessing(
        static_cast<Pass::NormalProcessing>(normals.choices.indexOf(options[normals.name].toString())));
    return pass;
}

} // namespace

const PassRegistry& PassRegistry::builtin()
{
    static const PassRegistry registry = [] {
        PassRegistry passes;
        passes.add(BlendRenderPass::description(), makeBlendPass);
        passes.add<BlurAndCombineRenderPass>();
        passes.add<CameraSpaceZBufferRenderPass>();
        passes.add<CubemapLoaderRenderPass>();
        passes.add<DepthOfFieldRenderPass>();
        passes.add<FastApproximateAntiAliasingRenderPass>();
        passes.add<ForwardRenderPass>();
        passes.add<GaussianBlurRenderPass>();
        passes.add<GradientRenderPass>();
        passes.add<LuminanceAverageRenderPass>();
        passes.add(ModelRenderPass::description(), makeModelPass);
        passes.add<SMAARenderPass>();
        passes.add(ScalableAmbientObscuranceRenderPass::description(), makeObscurancePass);
        passes.add(ShaderRenderPass::description(), makeShaderPass);
        passes.add<SkyboxRenderPass>();
        passes.add<TemporalAAJitterPass>();
        passes.add<TemporalAARenderPass>();
        passes.add<TextureLoaderRenderPass>();
        passes.add<TextureToScreenRenderPass>();
        passes.add<WireframeRenderPass>();
        return passes;
    }();
    return registry;
}

} // namespace Morvane::Qel
