// Runs the pass of docs/writing-a-pass.md in a graph.

#include "DimRenderPass.h"

#include "support/GLTest.h"
#include "support/Pixels.h"
#include <Qel/graph/RenderGraph.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel::Test {
namespace {

class ManualTest : public GLTest
{
};

TEST_F(ManualTest, TheExamplePassDimsItsInput)
{
    GraphDescription description;
    description.viewport = {5, 3};
    PassSetting source{u"source"_s, u"GradientRenderPass"_s, {}, {}};
    source.inputs = {{u"ColorTop"_s, u"#ff8000"_s}, {u"ColorBottom"_s, {}}};
    const PassSetting dim{
        u"dim"_s, u"DimRenderPass"_s, {{u"Frame"_s, u"@source.Frame"_s}, {u"Factor"_s, 0.25}}, {}};
    description.passes = {source, dim};
    description.output = u"@dim.Frame"_s;

    PassRegistry registry = PassRegistry::builtin();
    registry.add<DimRenderPass>();
    QStringList errors;
    const auto graph = RenderGraph::create(description, registry, {}, &errors);
    ASSERT_TRUE(graph) << qPrintable(errors.join(u'\n'));
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
