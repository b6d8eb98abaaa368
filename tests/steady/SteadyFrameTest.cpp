// A steady frame allocates nothing on the heap and creates no GL object: run for each registered type.

#include <QLoggingCategory>

#include <memory>

#include "SteadyCounter.h"
#include "support/GLTest.h"
#include "support/PassHost.h"

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

} // namespace
} // namespace Morvane::Qel::Test
