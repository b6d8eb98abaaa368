// The pass of docs/writing-a-pass.md, in a graph.

#include "DimRenderPass.h"

#include "support/GLTest.h"
#include "support/Pixels.h"
#include <Qel/graph/RenderGraph.h>

namespace Morvane::Qel::Test {
namespace {

class ManualTest : public GLTest
{
};

TEST_F(ManualTest, TheWrittenPassRuns)
{
    GraphDescription description;
    description.viewport = {5, 3};
    PassSetting source{QStringLiteral("source"), QStringLiteral("GradientRenderPass"), {}, {}};
    source.inputs = {{QStringLiteral("ColorTop"), QStringLiteral("#ff8000")},
                     {QStringLiteral("ColorBottom"), {}}};
    const PassSetting dim{
        QStringLiteral("dim"),
        QStringLiteral("DimRenderPass"),
        {{QStringLiteral("Frame"), QStringLiteral("@source.Frame")}, {QStringLiteral("Factor"), 0.25}},
        {}};
    description.passes = {source, dim};
    description.output = QStringLiteral("@dim.Frame");

    PassRegistry registry = PassRegistry::builtin();
    registry.add<DimRenderPass>();
    QStringList faults;
    const auto graph = RenderGraph::create(description, registry, {}, &faults);
    ASSERT_TRUE(graph) << qPrintable(faults.join(u'\n'));
    QString error;
    ASSERT_TRUE(graph->renderFrame(&error)) << qPrintable(error);
    // A quarter of 255 and of 128, rounded to 8 bits.
    EXPECT_TRUE(
        equal(readTexture(graph->picture()),
              Pixels::generate(
                  5, 3, [](int, int) { return QVector4D(64.0F / 255.0F, 32.0F / 255.0F, 0.0F, 1.0F); }),
              1e-6F));
}

} // namespace
} // namespace Morvane::Qel::Test
