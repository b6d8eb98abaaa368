#include <Qel/graph/PassRegistry.h>

#include <QFile>
#include <QRegularExpression>
#include <QVector3D>

#include <algorithm>
#include <optional>
#include <utility>

#include <epoxy/gl.h>

#include <Qel/RenderPasses/compositing/BlendRenderPass.h>
#include <Qel/RenderPasses/compositing/CubemapLoaderRenderPass.h>
#include <Qel/RenderPasses/compositing/GradientRenderPass.h>
#include <Qel/RenderPasses/compositing/SkyboxRenderPass.h>
#include <Qel/RenderPasses/compositing/TextureLoaderRenderPass.h>
#include <Qel/RenderPasses/compositing/TextureToScreenRenderPass.h>
#include <Qel/RenderPasses/framework/ShaderRenderPass.h>
#include <Qel/RenderPasses/geometry/CameraSpaceZBufferRenderPass.h>
#include <Qel/RenderPasses/geometry/DeferredRenderPass.h>
#include <Qel/RenderPasses/geometry/ForwardRenderPass.h>
#include <Qel/RenderPasses/geometry/GBufferRenderPass.h>
#include <Qel/RenderPasses/geometry/ModelDeferredPass.h>
#include <Qel/RenderPasses/geometry/ModelRenderPass.h>
#include <Qel/RenderPasses/geometry/PrimitiveBuilderRenderPass.h>
#include <Qel/RenderPasses/geometry/WireframeRenderPass.h>
#include <Qel/RenderPasses/lighting/ScalableAmbientObscuranceRenderPass.h>
#include <Qel/RenderPasses/lighting/ShadowMapRenderPass.h>
#include <Qel/RenderPasses/lighting/ShadowedForwardRenderPass.h>
#include <Qel/RenderPasses/lighting/TransparencyRenderPass.h>
#include <Qel/RenderPasses/postprocessing/BlurAndCombineRenderPass.h>
#include <Qel/RenderPasses/postprocessing/DepthOfFieldRenderPass.h>
#include <Qel/RenderPasses/postprocessing/FastApproximateAntiAliasingRenderPass.h>
#include <Qel/RenderPasses/postprocessing/GaussianBlurRenderPass.h>
#include <Qel/RenderPasses/postprocessing/LuminanceAverageRenderPass.h>
#include <Qel/RenderPasses/postprocessing/SMAARenderPass.h>
#include <Qel/RenderPasses/postprocessing/TemporalAAJitterPass.h>
#include <Qel/RenderPasses/postprocessing/TemporalAARenderPass.h>
#include <Qel/RenderPasses/visibility/VisibilityBufferRenderPass.h>
#include <Qel/RenderPasses/visibility/VisibilityDeferredRenderPass.h>
#include <Qel/RenderPasses/visibility/VisibilitySortRenderPass.h>
#include <Qel/gl/BindingRecord.h>
#include <Qel/gl/OpenGLDeviceContext.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

/// A source that includes a GLSL file after repeating its #version. Compiler messages then name the file and
/// its lines, and the file's own includes are found beside it.
std::optional<QString> stageSource(const QString& path, QString* error)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        *error = u"%1: cannot be read: %2"_s.arg(path, file.errorString());
        return {};
    }
    static const QRegularExpression version(uR"(^[ \t]*#[ \t]*version[ \t]+\d+(?:[ \t]+\w+)?)"_s,
                                            QRegularExpression::MultilineOption);
    const QString text = QString::fromUtf8(file.readAll());
    return u"%1\n#include \"%2\"\n"_s.arg(version.match(text).captured(), path);
}

/// The error message for more texture ports than the driver has attachments and units; empty if they fit.
QString excessError(const PassOptions& options)
{
    if (!OpenGLDeviceContext::current()) {
        return {};
    }
    const auto limitOf = [](GLenum name) {
        GLint limit = 0;
        glGetIntegerv(name, &limit);
        return limit;
    };
    const auto excess = [&](const QString& ports, const QString& use, int limit) {
        const qsizetype number = options[ports].toStringList().filter(u"Qel_QelTexture*_"_s).size();
        return number <= limit
                   ? QString()
                   : u"%1: there are %2 textures, but the driver %3 at most %4 at once; use several passes"_s
                         .arg(ports)
                         .arg(number)
                         .arg(use)
                         .arg(limit);
    };
    const QString error = excess(u"outputs"_s, u"draws into"_s,
                                 std::min(limitOf(GL_MAX_COLOR_ATTACHMENTS), limitOf(GL_MAX_DRAW_BUFFERS)));
    return error.isEmpty()
               ? excess(u"inputs"_s, u"binds"_s,
                        std::min(limitOf(GL_MAX_COMBINED_TEXTURE_IMAGE_UNITS), BindingRecord::numUnits))
               : error;
}

std::unique_ptr<RenderPass> makeShaderPass(const PassOptions& options, QString* error)
{
    using Pass = ShaderRenderPass;
    *error = excessError(options);
    if (!error->isEmpty()) {
        return nullptr;
    }
    auto pass = std::make_unique<Pass>();
    for (const QString& port : options[u"inputs"_s].toStringList()) {
        pass->addInput(port);
    }
    for (const QString& port : options[u"outputs"_s].toStringList()) {
        pass->addOutput(port);
    }
    const QVariantMap formats = options[u"formats"_s].toMap();
    for (auto format = formats.cbegin(); format != formats.cend(); ++format) {
        if (!options[u"outputs"_s].toStringList().contains(format.key())) {
            *error = u"formats: there is no output \"%1\"; write its full name"_s.arg(format.key());
            return nullptr;
        }
        pass->setOutputFormat(format.key(), *Pass::formatFromName(format->toString()));
    }
    const std::pair<QString, void (Pass::*)(const QString&)> stages[] = {
        {u"vertexShader"_s, &Pass::setVertexShaderSource},
        {u"fragmentShader"_s, &Pass::setFragmentShaderSource},
        {u"geometryShader"_s, &Pass::setGeometryShaderSource},
        {u"tessellationControlShader"_s, &Pass::setTessellationControlShaderSource},
        {u"tessellationEvaluationShader"_s, &Pass::setTessellationEvaluationShaderSource},
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
    pass->setClear(options[u"clear"_s].toBool());
    const QString blend = options[u"blend"_s].toString();
    pass->setBlend(blend == QLatin1StringView("add")           ? Pass::BlendMode::Add
                   : blend == QLatin1StringView("keepByAlpha") ? Pass::BlendMode::KeepByAlpha
                                                               : Pass::BlendMode::None);
    pass->setFullScreenQuad(options[u"fullScreenBatch"_s] == QLatin1StringView("quad"));
    return pass;
}

std::unique_ptr<RenderPass> makeBlendPass(const PassOptions& options, QString* /*error*/)
{
    // The choices are in the order of the enumeration.
    const OptionDescription& mode = BlendRenderPass::description().options.front();
    return std::make_unique<BlendRenderPass>(
        static_cast<BlendRenderPass::BlendMode>(mode.choices.indexOf(options[mode.name].toString())));
}

std::unique_ptr<RenderPass> makeModelPass(const PassOptions& options, QString* /*error*/)
{
    auto pass = std::make_unique<ModelRenderPass>();
    pass->setDiscardOnDiffuseAlpha(options[u"discardOnDiffuseAlpha"_s].toBool());
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

std::unique_ptr<RenderPass> makePrimitivesPass(const PassOptions& options, QString* /*error*/)
{
    auto pass = std::make_unique<PrimitiveBuilderRenderPass>();
    pass->setUseIndirectDrawCommands(options[u"useIndirectDrawCommands"_s].toBool());
    for (const QVariant& element : options[u"primitives"_s].toList()) {
        const QVariantMap primitive = element.toMap();
        const float size = primitive[u"size"_s].toFloat();
        const auto position = primitive[u"position"_s].value<QVector3D>();
        if (primitive[u"type"_s] == QLatin1StringView("quad")) {
            pass->addQuad(size, position);
        } else {
            pass->addCube(size, position);
        }
    }
    return pass;
}

std::unique_ptr<RenderPass> makeShadowMapPass(const PassOptions& options, QString* /*error*/)
{
    auto pass = std::make_unique<ShadowMapRenderPass>();
    pass->setInstanceDataPlanName(options[u"instanceDataPlanName"_s].toString());
    return pass;
}

std::unique_ptr<RenderPass> makeTextureLoaderPass(const PassOptions& options, QString* /*error*/)
{
    using Pass = TextureLoaderRenderPass;
    // The choices are in the order of the enumeration.
    const OptionDescription& wrap = Pass::description().options.front();
    auto pass = std::make_unique<Pass>();
    pass->setWrapMode(static_cast<Pass::WrapMode>(wrap.choices.indexOf(options[wrap.name].toString())));
    return pass;
}

std::unique_ptr<RenderPass> makeVisibilityBufferPass(const PassOptions& options, QString* error)
{
    const auto number = [&](const QString& name) -> std::optional<unsigned long long> {
        const QString text = options[name].toString();
        bool isNumber = false;
        const unsigned long long value = text.toULongLong(&isNumber, 0);
        if (!isNumber) {
            *error = u"%1: must be a 64-bit number, such as \"0x1\", not \"%2\""_s.arg(name, text);
            return {};
        }
        return value;
    };
    const auto flags = number(u"drawFlags"_s);
    const auto mask = number(u"drawMask"_s);
    return flags && mask ? std::make_unique<VisibilityBufferRenderPass>(*flags, *mask) : nullptr;
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
        passes.add<DeferredRenderPass>();
        passes.add<DepthOfFieldRenderPass>();
        passes.add<FastApproximateAntiAliasingRenderPass>();
        passes.add<ForwardRenderPass>();
        passes.add<GBufferRenderPass>();
        passes.add<GaussianBlurRenderPass>();
        passes.add<GradientRenderPass>();
        passes.add<LuminanceAverageRenderPass>();
        passes.add<ModelDeferredPass>();
        passes.add(ModelRenderPass::description(), makeModelPass);
        passes.add(PrimitiveBuilderRenderPass::description(), makePrimitivesPass);
        passes.add<SMAARenderPass>();
        passes.add(ScalableAmbientObscuranceRenderPass::description(), makeObscurancePass);
        passes.add(ShaderRenderPass::description(), makeShaderPass);
        passes.add(ShadowMapRenderPass::description(), makeShadowMapPass);
        passes.add<ShadowedForwardRenderPass>();
        passes.add<SkyboxRenderPass>();
        passes.add<TemporalAAJitterPass>();
        passes.add<TemporalAARenderPass>();
        passes.add(TextureLoaderRenderPass::description(), makeTextureLoaderPass);
        passes.add<TextureToScreenRenderPass>();
        passes.add<TransparencyRenderPass>();
        passes.add(VisibilityBufferRenderPass::description(), makeVisibilityBufferPass);
        passes.add<VisibilityDeferredRenderPass>();
        passes.add<VisibilitySortRenderPass>();
        passes.add<WireframeRenderPass>();
        return passes;
    }();
    return registry;
}

} // namespace Morvane::Qel
