// Several contexts in one process.

#include <memory>
#include <thread>

#include <epoxy/egl.h>
#include <epoxy/gl.h>

#include <Qel/gl/BufferObject.h>
#include <Qel/gl/DrawBuffers.h>
#include <Qel/gl/FramebufferObject.h>
#include <Qel/gl/Guards.h>
#include <Qel/gl/Texture.h>
#include <Qel/gl/VertexArrayObject.h>

#include "support/GLState.h"
#include "support/GLTest.h"
#include "support/Pixels.h"
#include "support/ScreenProgram.h"

using namespace Qt::StringLiterals;

namespace Morvane::Qel::Test {

namespace {

using Contexts = GLTest;

struct Objects
{
    std::unique_ptr<Texture> texture = makeTexture(Pixels::filled(1, 1, {}), GL_RGBA8);
    FramebufferObject framebuffer;
    VertexArrayObject vertexArray;
    BufferObject buffer;

    Objects()
    {
        texture->bind();
        framebuffer.bind();
        vertexArray.bind();
        buffer.upload(nullptr, 1, GL_STATIC_DRAW);
    }
};

TEST_F(Contexts, AreMadeCurrentNativelyAndDoNotDisturbEachOther)
{
    EGLContext native = eglGetCurrentContext();
    auto other = HeadlessContext::create({}, nullptr);
    EGLContext otherNative = eglGetCurrentContext();
    EXPECT_NE(otherNative, native);
    EXPECT_TRUE(context().resize({8, 8}));
    EXPECT_EQ(eglGetCurrentContext(), otherNative);
    context().makeCurrent();
    EXPECT_EQ(eglGetCurrentContext(), native);

    std::thread([&] {
        context().makeCurrent();
        EXPECT_EQ(OpenGLDeviceContext::current(), nullptr);
        other->makeCurrent();
        EXPECT_EQ(eglGetCurrentContext(), otherNative);
        other->doneCurrent();
        EXPECT_EQ(eglGetCurrentContext(), EGL_NO_CONTEXT);
    }).join();
    expectMessage(u"cannot be made current .*; if it is current on another thread"_s);

    other.reset();
    EXPECT_EQ(eglGetCurrentContext(), native);
    EXPECT_EQ(OpenGLDeviceContext::current(), &context());
}

TEST_F(Contexts, ObjectsAreDeletedOnTheirOwnContextOnly)
{
    const auto other = HeadlessContext::create({}, nullptr);
    const auto nothing = liveObjects();
    auto objects = std::make_unique<Objects>();
    context().makeCurrent();
    // With the same names as the other context's.
    const Objects own;
    const auto before = liveObjects();
    objects.reset();
    EXPECT_EQ(liveObjects(), before);
    other->makeCurrent();
    EXPECT_EQ(liveObjects(), nothing);

    // Destroyed on a thread without the context.
    objects = std::make_unique<Objects>();
    std::thread([&] { objects.reset(); }).join();
    other->makeCurrent();
    EXPECT_EQ(liveObjects(), nothing);
    context().makeCurrent();
}

TEST_F(Contexts, ObjectsOfAnotherContextAreNotUsed)
{
    const auto texture = makeTexture(Pixels::filled(1, 1, {}), GL_RGBA8);
    const auto program = makeScreenProgram({u"#version 150\nvoid main() {}\n"_s});
    ASSERT_TRUE(program->isValid());
    const auto other = HeadlessContext::create({}, nullptr);
    const Objects sameNames;
    {
        const AutoBinder textureBinder(texture.get());
        EXPECT_EQ(textureAt(texture->unit()), 0U);
        const AutoBinder programBinder(program.get());
        EXPECT_FALSE(other->fullScreenTriangle()->draw());
    }
    expectMessage(u"a texture of another OpenGL context is used"_s);
    expectMessage(u"program .* was built on another OpenGL context"_s);
    context().makeCurrent();
}

} // namespace

} // namespace Morvane::Qel::Test
