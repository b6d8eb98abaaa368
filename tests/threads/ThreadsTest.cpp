// Two threads at once, each with contexts and graphs of its own. In the preset `tsan`, the thread sanitizer
// watches them.

#include <QDir>

#include <array>
#include <thread>

#include <gtest/gtest.h>

#include <epoxy/gl.h>

#include "support/Paths.h"
#include <Qel/gl/FramebufferObject.h>
#include <Qel/gl/Guards.h>
#include <Qel/gl/HeadlessContext.h>
#include <Qel/gl/Texture.h>
#include <Qel/gl/TextureManager.h>
#include <Qel/graph/GraphFile.h>
#include <Qel/graph/ImageIO.h>
#include <Qel/graph/RenderGraph.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel::Test {
namespace {

/// Renders a graph file in two sizes on a context of its own. Returns the image of the first frame; later
/// ones may depend on random numbers.
Image render(const QString& file)
{
    QString error;
    QStringList errors;
    const auto context = HeadlessContext::create({.device = HeadlessContext::Device::Software}, &error);
    std::optional<GraphDescription> description = loadGraph(file, &errors);
    description->viewport = {32, 24};
    auto graph = RenderGraph::create(*description, PassRegistry::builtin(), {.profile = true}, &errors);
    EXPECT_TRUE(graph->renderFrame(&error)) << qPrintable(error);
    Image image = readTexture(graph->image()).at(0);
    for (const int height : {24, 24, 40, 40}) {
        EXPECT_TRUE(graph->setViewport({32, height}, &error) && graph->renderFrame(&error));
    }
    // A third thread destroys the graph while the context is in use here.
    std::thread destroyer([&] { graph.reset(); });
    context->makeCurrent();
    destroyer.join();
    context->makeCurrent();
    EXPECT_EQ(TextureManager::Instance()->numReferences(), 0);
    return image;
}

TEST(Threads, RenderTheSameImagesAtTheSameTime)
{
    const QString folder = sourcePath(u"examples/graphs/"_s);
    const QStringList names = QDir(folder).entryList({u"*.json"_s});
    std::array<std::vector<Image>, 2> images;
    const auto renderAll = [&](size_t thread) {
        for (const QString& name : names) {
            images[thread].push_back(render(folder + name));
        }
    };
    std::thread other(renderAll, 1);
    renderAll(0);
    other.join();
    for (size_t i = 0; i < images[0].size(); ++i) {
        EXPECT_TRUE(images[0][i].samples == images[1][i].samples) << "graph " << i;
    }
}

TEST(Threads, DestroyAttachedTexturesAndFramebuffersBesideTheirUse)
{
    QString error;
    const auto context = HeadlessContext::create({.device = HeadlessContext::Device::Software}, &error);
    const auto makeAttached = [](FramebufferObject& framebuffer, int width) {
        auto texture = std::make_unique<Texture>();
        texture->setImage2D(0, GL_RGBA8, width, 4, GL_RGBA, GL_UNSIGNED_BYTE, nullptr);
        framebuffer.attach(texture.get(), GL_COLOR_ATTACHMENT0, 0);
        return texture;
    };
    FramebufferObject used;
    for (int round = 0; round < 100; ++round) {
        auto destroyed = std::make_unique<FramebufferObject>();
        const auto kept = makeAttached(*destroyed, 4);
        auto attached = makeAttached(used, 8);
        std::thread destroyer([&] {
            attached.reset();
            destroyed.reset();
        });
        for (int i = 0; i < 20; ++i) {
            const AutoBinder binder(&used);
            used.setDrawBuffers();
            glClear(GL_COLOR_BUFFER_BIT);
            FramebufferObject other;
            makeAttached(other, 2);
        }
        destroyer.join();
        EXPECT_EQ(used.attachment(GL_COLOR_ATTACHMENT0), nullptr);
        context->makeCurrent();
        int type = GL_TEXTURE;
        const AutoBinder binder(&used);
        glGetFramebufferAttachmentParameteriv(GL_DRAW_FRAMEBUFFER, GL_COLOR_ATTACHMENT0,
                                              GL_FRAMEBUFFER_ATTACHMENT_OBJECT_TYPE, &type);
        EXPECT_EQ(type, GL_NONE) << "the framebuffer still holds the storage";
    }
    EXPECT_EQ(glGetError(), static_cast<GLenum>(GL_NO_ERROR));
}

} // namespace
} // namespace Morvane::Qel::Test
