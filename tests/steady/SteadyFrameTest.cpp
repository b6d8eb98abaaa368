// A steady frame allocates nothing on the heap and creates no GL object: run for each registered type.

#include <QLoggingCategory>

#include <array>
#include <cstring>
#include <utility>

#include <dlfcn.h>

#include <epoxy/gl.h>

#include "support/GLTest.h"
#include "support/PassHost.h"
#include <Qel/graph/RenderGraph.h>

using namespace Qt::StringLiterals;

// The C library's own, by the names that it exports them under for replacements like these.
// NOLINTBEGIN(bugprone-reserved-identifier)
extern "C" {
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* block, size_t size);
}
// NOLINTEND(bugprone-reserved-identifier)

namespace {

bool counting = false;
int allocations = 0;
int objects = 0;

/// Counts an allocation by the libraries of this project, by Qt or by the C++ library; the driver's own do
/// not count.
void count(const void* caller)
{
    if (!counting) {
        return;
    }
    // dladdr must not count itself.
    counting = false;
    Dl_info info{};
    if (dladdr(caller, &info) != 0 && info.dli_fname) {
        for (const char* library : {"libQel", "libQt6", "libstdc++", "qel-steady-tests"}) {
            allocations += std::strstr(info.dli_fname, library) ? 1 : 0;
        }
    }
    counting = true;
}

template<auto& pointer, class Function = std::remove_reference_t<decltype(pointer)>>
struct Creator;

/// Replaces an entry point that creates objects by one that counts them.
template<auto& pointer, class... Arguments>
struct Creator<pointer, void (*)(Arguments...)>
{
    static inline void (*original)(Arguments...) = nullptr;
    /// Counts one call and steps aside, since entry points replace themselves at their first call.
    static void call(Arguments... arguments)
    {
        objects += counting ? 1 : 0;
        pointer = original;
        original(arguments...);
    }
    static void install()
    {
        if (pointer != &call) {
            original = std::exchange(pointer, &call);
        }
    }
};

template<auto&... pointers>
void countCallsOf()
{
    (Creator<pointers>::install(), ...);
}

/// Call it in every frame that counts.
void startCounting()
{
    countCallsOf<epoxy_glGenTextures, epoxy_glGenFramebuffers, epoxy_glGenBuffers, epoxy_glGenVertexArrays,
                 epoxy_glGenRenderbuffers, epoxy_glGenQueries, epoxy_glTexImage2D, epoxy_glTexImage3D,
                 epoxy_glLinkProgram>();
    counting = true;
}

} // namespace

// The program's own take precedence over the C library's in every library that sees them.
#pragma GCC visibility push(default)
extern "C" {

void* malloc(size_t size)
{
    count(__builtin_return_address(0));
    return __libc_malloc(size);
}

void* calloc(size_t number, size_t size)
{
    count(__builtin_return_address(0));
    return __libc_calloc(number, size);
}

void* realloc(void* block, size_t size)
{
    count(__builtin_return_address(0));
    return __libc_realloc(block, size);
}
}
#pragma GCC visibility pop

namespace Morvane::Qel::Test {
namespace {

/// With the debug channel off, as in programs that nobody debugs: every message is a string.
class SteadyGraph : public GLTest
{
protected:
    void SetUp() override
    {
        QLoggingCategory::setFilterRules(u"default.debug=false"_s);
        GLTest::SetUp();
    }
    void TearDown() override
    {
        EXPECT_EQ(allocations, 0);
        EXPECT_EQ(objects, 0);
        GLTest::TearDown();
    }
};

class SteadyFrame : public SteadyGraph, public testing::WithParamInterface<std::string>
{
};

TEST_P(SteadyFrame, AllocatesAndCreatesNothing)
{
    PassHost host(GetParam());
    for (int frame = 0; frame < 7; ++frame) {
        host.connectInputs();
        host.runFrame([&](RenderPass& pass) {
            if (frame >= 4) {
                startCounting();
            }
            pass.start(nullptr);
            counting = false;
        });
    }
}

INSTANTIATE_TEST_SUITE_P(Every, SteadyFrame, testing::ValuesIn(builtinTypes()),
                         [](const auto& instance) { return instance.param; });

/// Counts the runner of graphs too.
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
    for (int frame = 0; frame < 7; ++frame) {
        if (frame >= 4) {
            startCounting();
        }
        const bool isRendered = graph->renderFrame(&error);
        counting = false;
        ASSERT_TRUE(isRendered) << qPrintable(error);
    }
}

TEST_F(SteadyGraph, CountsWhatItMust)
{
    startCounting();
    const QString text = QString::number(3) + u'x';
    Texture texture;
    texture.bind();
    counting = false;
    EXPECT_GT(std::exchange(allocations, 0), 0) << qPrintable(text);
    EXPECT_GT(std::exchange(objects, 0), 0);
}

} // namespace
} // namespace Morvane::Qel::Test
