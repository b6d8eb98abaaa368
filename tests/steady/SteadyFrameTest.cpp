// A steady frame allocates nothing on the heap and creates no GL object: run for each registered type.

#include <QLoggingCategory>

#include <memory>

#include "SteadyCounter.h"
#include "support/GLTest.h"
#include "support/PassHost.h"
#include <Qel/graph/RenderGraph.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel::Test {
namespace {

/// Allocates and makes an object in start.
TEST(SteadyCounter, CountsWhatItMust)
{
    const SteadyCounter counter;
    auto number = std::make_unique<int>(3);
    QString text = QString::number(*number);
    text += QLatin1Char('x');
    EXPECT_GE(SteadyCounter::numAllocations(), 2);
}

/// With the debug channel off, as in programs that nobody debugs: every message is a string.
class SteadyFrame : public GLTest, public testing::WithParamInterface<std::string>
{
protected:
    void SetUp() override
    {
        QLoggingCategory::setFilterRules(u"default.debug=false"_s);
        GLTest::SetUp();
    }
};

TEST_P(SteadyFrame, AllocatesAndCreatesNothing)
{
    PassHost host(context(), QString::fromStdString(GetParam()));
    constexpr int warmUpFrames = 4;
    for (int frame = 0; frame < warmUpFrames; ++frame) {
        host.connectInputs();
        host.runFrame([](RenderPass& pass) { pass.start(nullptr); });
    }
    int allocations = 0;
    int objects = 0;
    for (int frame = 0; frame < 3; ++frame) {
        host.connectInputs();
        host.runFrame([&](RenderPass& pass) {
            const SteadyCounter counter;
            pass.start(nullptr);
            allocations += SteadyCounter::numAllocations();
            objects += SteadyCounter::numObjects();
        });
    }
    EXPECT_EQ(allocations, 0);
    EXPECT_EQ(objects, 0);
}

INSTANTIATE_TEST_SUITE_P(Every, SteadyFrame, testing::ValuesIn(builtinTypes()),
                         [](const auto& instance) { return instance.param; });

/// Counts the runner of graphs too, with the debug channel off.
class SteadyGraph : public GLTest
{
protected:
    void SetUp() override
    {
        QLoggingCategory::setFilterRules(u"default.debug=false"_s);
        GLTest::SetUp();
    }
};

TEST_F(SteadyGraph, AllocatesAndCreatesNothing)
{
    GraphDescription description;
    description.viewport = {16, 16};
    description.passes = {
        {u"sky"_s, u"GradientRenderPass"_s, {}, {}},
        {u"screen"_s, u"TextureToScreenRenderPass"_s, {{u"Texture"_s, u"@sky.Frame"_s}}, {}}};
    description.output = u"@sky.Frame"_s;
    QStringList errors;
    const auto graph = RenderGraph::create(description, PassRegistry::builtin(), {}, &errors);
    ASSERT_TRUE(graph) << qPrintable(errors.join(u'\n'));
    QString error;
    for (int frame = 0; frame < 4; ++frame) {
        ASSERT_TRUE(graph->renderFrame(&error)) << qPrintable(error);
    }
    const SteadyCounter counter;
    for (int frame = 0; frame < 3; ++frame) {
        graph->renderFrame(&error);
    }
    EXPECT_EQ(SteadyCounter::numAllocations(), 0);
    EXPECT_EQ(SteadyCounter::numObjects(), 0);
}

} // namespace
} // namespace Morvane::Qel::Test
