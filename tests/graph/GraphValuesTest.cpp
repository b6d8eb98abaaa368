// Parameters and keyed values of a running graph.

#include <algorithm>

#include <gtest/gtest.h>

#include <Qel/graph/GraphFile.h>
#include <Qel/graph/RenderGraph.h>

#include "support/Folder.h"
#include "support/GLTest.h"
#include "support/Pixels.h"

namespace Morvane::Qel::Test {

namespace {

class GraphValuesTest : public GLTest, protected Folder
{
protected:
    void SetUp() override
    {
        GLTest::SetUp();
        write("graph.json", R"({
  "viewport": [4, 4],
  "parameters": {
    "top": {"keys": [[0, "#000000"], [10, "#c86400"]]},
    "bottom": "$top",
    "mode": "add",
    "angle": 40
  },
  "camera": {"eye": {"keys": [[0, [0, 0, 4]], [4, [8, 0, 4]]]}, "fovY": "$angle"},
  "passes": [
    {"name": "fill", "type": "GradientRenderPass", "inputs": {"ColorTop": "$top", "ColorBottom": "$bottom"}},
    {"name": "sum", "type": "BlendRenderPass", "inputs": {"FrameA": "@fill.Frame", "FrameB": "@fill.Frame"},
     "options": {"mode": "$mode"}}
  ],
  "output": "@sum.Frame"
})");
        QStringList errors;
        const auto description = loadGraph(path("graph.json"), &errors);
        graph =
            description ? RenderGraph::create(*description, PassRegistry::builtin(), {}, &errors) : nullptr;
        EXPECT_TRUE(graph) << qPrintable(errors.join('\n'));
    }

    void TearDown() override
    {
        graph.reset();
        GLTest::TearDown();
    }

    /// Renders a frame and expects an image of one colour, the sum of two fills.
    void expectSumOf(const QVector3D& fill)
    {
        ASSERT_TRUE(graph->renderFrame(&error)) << qPrintable(error);
        for (const QVector4D& pixel : readTexture(graph->image()).values) {
            EXPECT_LT((pixel.toVector3D() - 2.0F * fill / 255.0F).length(), 2e-3F)
                << pixel.x() << ' ' << pixel.y();
        }
    }

    std::unique_ptr<RenderGraph> graph;
    QString error;
};

} // namespace

TEST_F(GraphValuesTest, KeysAndParametersReachAllTheirUses)
{
    ASSERT_TRUE(graph);
    expectSumOf({});
    for (const int frame : {5, 2, 10, 99}) {
        graph->setFrameNumber(frame);
        expectSumOf(QVector3D(200, 100, 0) * static_cast<float>(std::min(frame, 10)) / 10.0F);
    }
    graph->setFrameNumber(1);
    EXPECT_EQ(graph->camera().eye, QVector3D(2, 0, 4));
    // A constant replaces the keys and reaches the parameter that stands for this one; the camera moves on.
    ASSERT_TRUE(graph->setParameter("top", "#0a141e", &error)) << qPrintable(error);
    ASSERT_TRUE(graph->setParameter("angle", 60, &error)) << qPrintable(error);
    graph->setFrameNumber(3);
    expectSumOf({10, 20, 30});
    EXPECT_EQ(graph->camera().eye, QVector3D(6, 0, 4));
    EXPECT_EQ(graph->camera().fovY, 60.0F);
}

TEST_F(GraphValuesTest, WrongValuesChangeNothing)
{
    ASSERT_TRUE(graph);
    graph->setFrameNumber(10);
    const std::tuple<const char*, QJsonValue, const char*> wrong[] = {
        {"tip", 1, "parameters.tip: no parameter \"tip\"; did you mean \"top\"?"},
        {"top", "red", "fill.ColorTop: must be a colour"},
        {"angle", 180, "parameters.angle, used in camera.fovY: must be above 0 and below 180 degrees"},
        {"angle", "wide", "camera.fovY: must be a number, not \"wide\""},
        {"mode", "screen", "parameters.mode: is used in sum.mode, which is fixed once the graph is created"},
        {"top", "@fill.Frame", "parameters.top: must be a constant, not \"@fill.Frame\""}};
    for (const auto& [name, value, message] : wrong) {
        EXPECT_FALSE(graph->setParameter(name, value, &error)) << name;
        EXPECT_TRUE(error.contains(message)) << qPrintable(error);
        EXPECT_FALSE(error.contains('\n'));
    }
    expectSumOf({200, 100, 0});
    EXPECT_EQ(graph->camera().fovY, 40.0F);
}

} // namespace Morvane::Qel::Test
