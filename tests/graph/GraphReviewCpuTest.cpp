#include <QDir>

#include <gtest/gtest.h>

#include <Qel/gl/Image.h>
#include <Qel/graph/GraphFile.h>
#include <Qel/graph/GraphReview.h>

#include "support/Folder.h"
#include "support/Paths.h"

namespace Morvane::Qel::Test {

namespace {

class GraphReview : public testing::Test, protected Folder
{
protected:
    GraphReview()
    {
        write("m.obj", "v 0 0 0\nv 1 0 0\nv 0 1 0\nf 1 2 3\n");
        write("a.png", Image{1, 1, QStringList{"R", "G", "B"}, std::vector<float>(3)});
        write("a.exr", Image{1, 1, QStringList{"R", "G", "B"}, std::vector<float>(3)});
    }

    GraphPlan planOf(const QString& file)
    {
        QStringList errors;
        const auto graph = loadGraph(file, &errors);
        auto plan = graph ? planGraph(*graph, PassRegistry::builtin(), &errors) : std::nullopt;
        EXPECT_TRUE(plan) << qPrintable(errors.join('\n'));
        return plan.value_or(GraphPlan());
    }
    /// The graph has a model and ends with a pass "last", whose first output it shows.
    GraphPlan plan(const QString& passes, const QString& scene, const QString& output)
    {
        write("g.json", QString(R"({%1 "passes": [%2], "output": "@last.%3"})").arg(scene, passes, output));
        return planOf(path("g.json"));
    }
};

const QString camera = R"("camera": {"eye": [0, 0, 5], "near": %1, "far": 100}, "models": {"m": "m.obj"},)";
const QString material = R"({"name": "material", "type": "ModelRenderPass"},)";

QString last(const QString& type, const QString& inputs, const QString& options = {})
{
    return QString(R"({"name": "last", "type": "%1", "inputs": {%2}, "options": {%3}})")
        .arg(type, inputs, options);
}

} // namespace

TEST_F(GraphReview, WarnsOfWhatCannotBeMeantAndOfNothingElse)
{
    const QString usual = camera.arg(0.1);
    const QString loader =
        R"({"name": "image", "type": "TextureLoaderRenderPass", "inputs": {"TexturePath": "%1"}},)";
    const QString light = R"({"name": "light", "type": "TransparencyRenderPass"},)";
    const QString jitter = R"({"name": "jitter", "type": "TemporalAAJitterPass", "inputs": {"Dirty": false}},
        {"name": "drawn", "type": "ForwardRenderPass", "inputs": {"ProjectionMatrix": %1}},)";
    const QString identity = "\"CameraMatrix\": [1,0,0,0, 0,1,0,0, 0,0,1,0, 0,0,0,1],";
    const QString obscurance = "\"Depth\": \"@material.Depth\", \"Normal\": \"@material.Normal\"";
    const QString lens = "\"Frame\": \"@material.Diffuse\", \"Depth\": \"@material.Depth\"";
    struct Case
    {
        QString scene;
        QString passes;
        QString warning;
        QString output = "Frame";
    };
    const Case cases[] = {
        // Nothing to draw.
        {{},
         last("ForwardRenderPass", {}),
         "last.Geometry: there is nothing to draw: the graph has no model"},
        {usual, last("GBufferRenderPass", {}), "last.Geometry: there is nothing to draw; set it to a model",
         "Id"},
        {usual, last("GBufferRenderPass", "\"Geometry\": \"@m\""), {}, "Id"},
        // Linear light and display-encoded colours.
        {usual, light + last("FastApproximateAntiAliasingRenderPass", "\"Frame\": \"@light.Frame\""),
         "last.Frame: works on display-encoded colours, but \"@light.Frame\" is linear light"},
        {usual,
         light +
             R"({"name": "blur", "type": "GaussianBlurRenderPass", "inputs": {"Input": "@light.Frame"}},)" +
             last("SMAARenderPass", "\"Frame\": \"@blur.Output\""),
         "last.Frame: works on display-encoded colours, but \"@blur.Output\" is linear light"},
        {usual, loader.arg("a.png") + last("LuminanceAverageRenderPass", "\"Texture\": \"@image.Texture\""),
         "last.Texture: wants linear light, but \"@image.Texture\" is display-encoded"},
        {usual,
         loader.arg("a.exr") + last("LuminanceAverageRenderPass", "\"Texture\": \"@image.Texture\""),
         {}},
        {usual, material + last("SMAARenderPass", "\"Frame\": \"@material.Diffuse\""), {}},
        // Data.
        {usual, material + last("CameraSpaceZBufferRenderPass", "\"Frame\": \"@material.Diffuse\""),
         "last.Frame: needs a depth, but \"@material.Diffuse\" holds colours"},
        // Normals of another space; where the pass gets the identity as its camera, both are the same.
        {usual, material + last("DeferredRenderPass", "\"Normal\": \"@material.Normal\""),
         "last.Normal: wants vectors in world space, but \"@material.Normal\" holds them in eye space"},
        {usual, material + last("ModelDeferredPass", "\"Normal\": \"@material.Normal\""), {}},
        {usual, material + last("ScalableAmbientObscuranceRenderPass", obscurance),
         "last.Normal: wants vectors in world space"},
        {usual, material + last("ScalableAmbientObscuranceRenderPass", identity + obscurance), {}},
        {usual,
         material +
             last("ScalableAmbientObscuranceRenderPass", obscurance, "\"normalProcessing\": \"screenspace\""),
         {}},
        // Clipping planes.
        {camera.arg(0.5), material + last("DepthOfFieldRenderPass", lens),
         "last.Depth: the pass assumes clipping planes at 0.1 and 100, but the camera has 0.5 and 100"},
        {"\"models\": {\"m\": \"m.obj\"},", material + last("DepthOfFieldRenderPass", lens),
         "last.Depth: the pass assumes clipping planes at 0.1 and 100, but the fitted camera has others"},
        {usual, material + last("DepthOfFieldRenderPass", lens), {}},
        {usual,
         material + last("ScalableAmbientObscuranceRenderPass",
                         "\"Depth\": \"@material.Depth\", \"NearPlane\": 9, \"FarPlane\": 3"),
         "last.NearPlane: the near plane at 9 is behind the far plane at 3"},
        // Near plane 2 and far plane 1: the entries are (f + n) / (n - f) and 2 f n / (n - f).
        {usual, last("ForwardRenderPass", "\"ProjectionMatrix\": [1,0,0,0, 0,1,0,0, 0,0,3,4, 0,0,-1,0]"),
         "last.ProjectionMatrix: the near plane at 2 is behind the far plane at 1"},
        // Ranges, whose lower end may be excluded.
        {usual, material + last("DepthOfFieldRenderPass", lens + ", \"FocalDepth\": 0"),
         "last.FocalDepth: 0 is outside of its range, metres, above 0"},
        {usual, material + last("DepthOfFieldRenderPass", lens + ", \"Focus\": [0.5, 1.5]"),
         "last.Focus: 1.5 is outside of its range, 0 to 1"},
        {usual,
         material + last("DepthOfFieldRenderPass", lens + ", \"FocalLength\": 0, \"Focus\": [0, 1]"),
         {}},
        // Jitter.
        {usual,
         jitter.arg("\"@ProjectionMatrix\"") + last("TemporalAARenderPass", "\"Frame\": \"@drawn.Frame\""),
         "last.Frame: \"@drawn.Frame\" is drawn without jitter"},
        {usual,
         jitter.arg("\"@jitter.ProjectionMatrix\"") +
             last("TemporalAARenderPass", "\"Frame\": \"@drawn.Frame\""),
         {}},
    };
    for (const Case& example : cases) {
        const QStringList warnings = reviewGraph(plan(example.passes, example.scene, example.output));
        EXPECT_EQ(warnings.size(), example.warning.isEmpty() ? 0 : 1)
            << qPrintable(example.passes + '\n' + warnings.join('\n'));
        EXPECT_TRUE(warnings.value(0).startsWith(example.warning)) << qPrintable(warnings.value(0));
    }
}

TEST_F(GraphReview, HasNothingToSayAboutTheExamples)
{
    const QDir folder(sourcePath("examples/graphs"));
    const QStringList names = folder.entryList({"*.json"});
    EXPECT_FALSE(names.isEmpty());
    for (const QString& name : names) {
        EXPECT_EQ(reviewGraph(planOf(folder.filePath(name))), QStringList()) << qPrintable(name);
    }
}

TEST_F(GraphReview, FollowsAlphaToItsOrigin)
{
    const auto alphaOf = [&](const QString& passes, const QString& output) {
        const GraphPlan graph = plan(passes, camera.arg(0.1), output);
        return meaningOf(graph, graph.outputPass, graph.outputPort).alpha;
    };
    const QString image =
        R"({"name": "image", "type": "TextureLoaderRenderPass", "inputs": {"TexturePath": "a.%1"}},)";
    const QString blur = last("GaussianBlurRenderPass", "\"Input\": \"@image.Texture\"");
    EXPECT_EQ(alphaOf(image.arg("png") + blur, "Output"), AlphaMeaning::Straight);
    EXPECT_EQ(alphaOf(image.arg("exr") + blur, "Output"), AlphaMeaning::Premultiplied);
    EXPECT_EQ(alphaOf(last("BlendRenderPass", {}), "Frame"), AlphaMeaning::Premultiplied);
    EXPECT_EQ(alphaOf(last("GaussianBlurRenderPass", {}), "Output"), AlphaMeaning::Unspecified);
}

} // namespace Morvane::Qel::Test
