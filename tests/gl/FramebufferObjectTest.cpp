#include <array>
#include <memory>
#include <optional>
#include <vector>

#include <epoxy/gl.h>

#include <Qel/gl/Formats.h>
#include <Qel/gl/FramebufferObject.h>
#include <Qel/gl/Guards.h>
#include <Qel/gl/Texture.h>

#include "support/GLTest.h"
#include "support/Pixels.h"

using namespace Qt::StringLiterals;

namespace Morvane::Qel::Test {

namespace {

const QVector4D red(1.0F, 0.0F, 0.0F, 1.0F);
const QVector4D green(0.0F, 1.0F, 0.0F, 0.0F);
const QVector4D blue(0.0F, 0.0F, 1.0F, 1.0F);

Pixels plain(int width, int height, const QVector4D& value)
{
    return Pixels::generate(width, height, [&](int, int) { return value; });
}

std::unique_ptr<Texture> makeColor(int width, int height)
{
    return std::unique_ptr<Texture>(makeTexture(plain(width, height, {}), GL_RGBA8));
}

std::unique_ptr<Texture> makeDepth(unsigned int internalFormat, int width, int height)
{
    auto texture = std::make_unique<Texture>();
    texture->setFilter(GL_NEAREST, GL_NEAREST);
    texture->setImage2D(0, internalFormat, width, height, formatFromInternalFormat(internalFormat),
                        typeFromInternalFormat(internalFormat), nullptr);
    return texture;
}

void clearColor(const QVector4D& value)
{
    glClearColor(value.x(), value.y(), value.z(), value.w());
    glClear(GL_COLOR_BUFFER_BIT);
}

unsigned int stateInGL(GLenum name)
{
    int value = -1;
    glGetIntegerv(name, &value);
    return static_cast<unsigned int>(value);
}

QRect viewportInGL()
{
    std::array<int, 4> viewport{};
    glGetIntegerv(GL_VIEWPORT, viewport.data());
    return {viewport[0], viewport[1], viewport[2], viewport[3]};
}

/// Fails on GL errors by itself, since the context is a debug one.
class FramebufferObjectTest : public GLTest
{
protected:
    /// Whether the framebuffer that draws go to is complete and holds something at the point.
    static bool isAttachedInGL(unsigned int attachment)
    {
        EXPECT_EQ(glCheckFramebufferStatus(GL_DRAW_FRAMEBUFFER),
                  static_cast<unsigned int>(GL_FRAMEBUFFER_COMPLETE));
        int type = 0;
        glGetFramebufferAttachmentParameteriv(GL_DRAW_FRAMEBUFFER, attachment,
                                              GL_FRAMEBUFFER_ATTACHMENT_OBJECT_TYPE, &type);
        return type != GL_NONE;
    }
};

TEST_F(FramebufferObjectTest, TellsWhatIsAttached)
{
    const auto color = makeColor(4, 4);
    const auto other = makeColor(4, 4);
    FramebufferObject framebuffer;
    EXPECT_EQ(framebuffer.detach(GL_COLOR_ATTACHMENT0), nullptr);
    framebuffer.attach(color.get(), GL_COLOR_ATTACHMENT0, 0);
    framebuffer.attach(other.get(), GL_COLOR_ATTACHMENT7, 0);
    EXPECT_EQ(framebuffer.attachment(GL_COLOR_ATTACHMENT0), color.get());
    EXPECT_EQ(framebuffer.attachment(GL_COLOR_ATTACHMENT7), other.get());
    EXPECT_FALSE(framebuffer.hasAttachment(GL_COLOR_ATTACHMENT6));
    EXPECT_FALSE(framebuffer.hasAttachment(GL_DEPTH_ATTACHMENT));

    EXPECT_EQ(framebuffer.detach(GL_COLOR_ATTACHMENT7), other.get());
    EXPECT_FALSE(framebuffer.hasAttachment(GL_COLOR_ATTACHMENT7));
    EXPECT_EQ(framebuffer.detach(GL_COLOR_ATTACHMENT7), nullptr);
    framebuffer.attach(nullptr, GL_COLOR_ATTACHMENT0, 0);
    EXPECT_EQ(framebuffer.attachment(GL_COLOR_ATTACHMENT0), nullptr);

    framebuffer.attach(color.get(), GL_COLOR_ATTACHMENT7 + 1, 0);
    expectMessage(u"0x8ce8 is not an attachment point"_s);
}

TEST_F(FramebufferObjectTest, DrawBuffersAndViewportFollowTheAttachments)
{
    const auto first = makeColor(16, 8);
    const auto third = makeColor(16, 8);
    FramebufferObject framebuffer;
    framebuffer.attach(first.get(), GL_COLOR_ATTACHMENT0, 0);
    framebuffer.attach(third.get(), GL_COLOR_ATTACHMENT2, 0);
    {
        const AutoBinder binder(&framebuffer);
        framebuffer.setDrawBuffers();
        EXPECT_EQ(viewportInGL(), QRect(0, 0, 16, 8));
        clearColor(red);
        // Over a gap, output 2 still goes to attachment 2.
        const std::array<float, 4> value{blue.x(), blue.y(), blue.z(), blue.w()};
        glClearBufferfv(GL_COLOR, 2, value.data());
    }
    EXPECT_TRUE(equal(readTexture(first.get()), plain(16, 8, red)));
    EXPECT_TRUE(equal(readTexture(third.get()), plain(16, 8, blue)));

    // A smaller level; the other levels keep their contents.
    const auto mipmapped = makeColor(16, 8);
    mipmapped->setFilter(GL_NEAREST_MIPMAP_NEAREST, GL_NEAREST);
    mipmapped->generateMipmap();
    FramebufferObject small;
    const AutoBinder binder(&small);
    for (const auto& [level, size] : {std::pair(2, QSize(4, 2)), std::pair(4, QSize(1, 1))}) {
        small.attach(mipmapped.get(), GL_COLOR_ATTACHMENT0, level);
        small.setDrawBuffers();
        EXPECT_EQ(viewportInGL(), QRect(QPoint(0, 0), size)) << level;
        clearColor(green);
        std::vector<QVector4D> texels(static_cast<size_t>(size.width() * size.height()));
        const AutoBinder textureBinder(mipmapped.get());
        glGetTexImage(GL_TEXTURE_2D, level, GL_RGBA, GL_FLOAT, texels.data());
        EXPECT_EQ(texels, std::vector<QVector4D>(texels.size(), green)) << level;
    }
    EXPECT_TRUE(equal(readTexture(mipmapped.get()), plain(16, 8, {})));
}

TEST_F(FramebufferObjectTest, NothingIsDrawnIntoADetachedTexture)
{
    const auto kept = makeColor(4, 4);
    const auto detached = makeColor(4, 4);
    FramebufferObject framebuffer;
    framebuffer.attach(kept.get(), GL_COLOR_ATTACHMENT0, 0);
    framebuffer.attach(detached.get(), GL_COLOR_ATTACHMENT1, 0);
    const AutoBinder binder(&framebuffer);
    framebuffer.setDrawBuffers();
    clearColor(red);
    framebuffer.detach(GL_COLOR_ATTACHMENT1);
    framebuffer.setDrawBuffers();
    EXPECT_FALSE(isAttachedInGL(GL_COLOR_ATTACHMENT1));
    clearColor(green);
    EXPECT_TRUE(equal(readTexture(kept.get()), plain(4, 4, green)));
    EXPECT_TRUE(equal(readTexture(detached.get()), plain(4, 4, red)));

    // Detached and attached again, as with a pooled texture every frame; then another one in its place.
    framebuffer.detach(GL_COLOR_ATTACHMENT0);
    framebuffer.attach(kept.get(), GL_COLOR_ATTACHMENT0, 0);
    framebuffer.setDrawBuffers();
    clearColor(blue);
    EXPECT_TRUE(equal(readTexture(kept.get()), plain(4, 4, blue)));
    framebuffer.detach(GL_COLOR_ATTACHMENT0);
    framebuffer.attach(detached.get(), GL_COLOR_ATTACHMENT0, 0);
    framebuffer.setDrawBuffers();
    clearColor(green);
    EXPECT_TRUE(equal(readTexture(kept.get()), plain(4, 4, blue)));
    EXPECT_TRUE(equal(readTexture(detached.get()), plain(4, 4, green)));
}

TEST_F(FramebufferObjectTest, ATextureInThePlaceOfADeletedOneIsAttachedAnew)
{
    // The successor has the same address, and with some drivers the same GL name.
    std::optional<Texture> texture;
    const auto make = [&](int width, int height) {
        texture.emplace();
        texture->setFilter(GL_NEAREST, GL_NEAREST);
        texture->setImage2D(0, GL_RGBA8, width, height, GL_RGBA, GL_UNSIGNED_BYTE, nullptr);
    };
    FramebufferObject framebuffer;
    make(4, 4);
    framebuffer.attach(&*texture, GL_COLOR_ATTACHMENT0, 0);
    {
        const AutoBinder binder(&framebuffer);
        framebuffer.setDrawBuffers();
        clearColor(red);
    }
    // GL takes a deleted texture from the framebuffer that is bound, and only from that.
    texture.reset();
    EXPECT_FALSE(framebuffer.hasAttachment(GL_COLOR_ATTACHMENT0));
    make(8, 2);
    framebuffer.attach(&*texture, GL_COLOR_ATTACHMENT0, 0);
    const AutoBinder binder(&framebuffer);
    framebuffer.setDrawBuffers();
    EXPECT_EQ(viewportInGL(), QRect(0, 0, 8, 2));
    clearColor(blue);
    EXPECT_TRUE(equal(readTexture(&*texture), plain(8, 2, blue)));

    // Deleted without a successor.
    texture.reset();
    framebuffer.setDrawBuffers();
    EXPECT_FALSE(isAttachedInGL(GL_COLOR_ATTACHMENT0));
    clearColor(red);
}

TEST_F(FramebufferObjectTest, TheCombinedPointTakesDepthWithAndWithoutStencil)
{
    const auto combined = makeDepth(GL_DEPTH24_STENCIL8, 4, 4);
    const auto depth = makeDepth(GL_DEPTH_COMPONENT32F, 4, 4);
    FramebufferObject framebuffer;
    const AutoBinder binder(&framebuffer);
    framebuffer.attach(combined.get(), GL_DEPTH_STENCIL_ATTACHMENT, 0);
    framebuffer.setDrawBuffers();
    EXPECT_TRUE(isAttachedInGL(GL_DEPTH_ATTACHMENT));
    EXPECT_TRUE(isAttachedInGL(GL_STENCIL_ATTACHMENT));
    EXPECT_EQ(viewportInGL(), QRect(0, 0, 4, 4));
    glClearDepth(1.0);
    glClearStencil(0x5a);
    glClear(GL_DEPTH_BUFFER_BIT | GL_STENCIL_BUFFER_BIT);
    std::vector<unsigned int> values(16);
    {
        const AutoBinder textureBinder(combined.get());
        glGetTexImage(GL_TEXTURE_2D, 0, GL_DEPTH_STENCIL, GL_UNSIGNED_INT_24_8, values.data());
    }
    EXPECT_EQ(values, std::vector<unsigned int>(16, 0xffffff5aU));

    // Another one in the place of both.
    framebuffer.attach(depth.get(), GL_DEPTH_STENCIL_ATTACHMENT, 0);
    framebuffer.setDrawBuffers();
    EXPECT_TRUE(isAttachedInGL(GL_DEPTH_ATTACHMENT));
    EXPECT_FALSE(isAttachedInGL(GL_STENCIL_ATTACHMENT));
    EXPECT_FALSE(framebuffer.hasAttachment(GL_STENCIL_ATTACHMENT));
    glClearDepth(0.25);
    glClear(GL_DEPTH_BUFFER_BIT | GL_STENCIL_BUFFER_BIT);
    EXPECT_TRUE(equal(readTexture(depth.get()), plain(4, 4, QVector4D(0.25F, 0.25F, 0.25F, 0.25F))));

    framebuffer.attach(combined.get(), GL_DEPTH_STENCIL_ATTACHMENT, 0);
    EXPECT_EQ(framebuffer.detach(GL_DEPTH_STENCIL_ATTACHMENT), combined.get());
    framebuffer.setDrawBuffers();
    EXPECT_FALSE(isAttachedInGL(GL_DEPTH_ATTACHMENT));
    EXPECT_FALSE(isAttachedInGL(GL_STENCIL_ATTACHMENT));
}

TEST_F(FramebufferObjectTest, LayersOfAnArrayAreAttachedOneByOne)
{
    Texture array;
    array.setTarget(GL_TEXTURE_2D_ARRAY);
    array.setFilter(GL_NEAREST, GL_NEAREST);
    array.setImage3D(GL_RGBA32F, 2, 2, 3, GL_RGBA, GL_FLOAT, nullptr);
    FramebufferObject framebuffer;
    const AutoBinder binder(&framebuffer);
    const std::array<QVector4D, 3> colors{red, green, blue};
    for (int layer = 0; layer < 3; ++layer) {
        framebuffer.attach3D(&array, GL_COLOR_ATTACHMENT0, layer, 0);
        framebuffer.setDrawBuffers();
        clearColor(colors[static_cast<size_t>(layer)]);
    }
    std::vector<QVector4D> texels(12);
    const auto read = [&] {
        const AutoBinder textureBinder(&array);
        glGetTexImage(GL_TEXTURE_2D_ARRAY, 0, GL_RGBA, GL_FLOAT, texels.data());
    };
    read();
    for (size_t i = 0; i < texels.size(); ++i) {
        EXPECT_EQ(texels[i], colors[i / 4]) << i;
    }

    framebuffer.attach3D(&array, GL_COLOR_ATTACHMENT0, 0, 0);
    framebuffer.attach3D(&array, GL_COLOR_ATTACHMENT1, 2, 0);
    framebuffer.setDrawBuffers();
    clearColor(green);
    read();
    EXPECT_EQ(texels, std::vector<QVector4D>(12, green));
}

TEST_F(FramebufferObjectTest, ClearingWithoutTexelsIsNoError)
{
    constexpr unsigned int everything = GL_COLOR_BUFFER_BIT | GL_DEPTH_BUFFER_BIT | GL_STENCIL_BUFFER_BIT;
    FramebufferObject none;
    const AutoBinder binder(&none);
    none.setDrawBuffers();
    glClear(everything);

    const auto empty = makeDepth(GL_RGBA8, 0, 4);
    none.attach(empty.get(), GL_COLOR_ATTACHMENT0, 0);
    none.setDrawBuffers();
    glClear(everything);
    EXPECT_EQ(none.attachment(GL_COLOR_ATTACHMENT0), empty.get());

    // It gets its image only now.
    empty->setImage2D(0, GL_RGBA8, 2, 2, GL_RGBA, GL_UNSIGNED_BYTE, nullptr);
    none.setDrawBuffers();
    clearColor(red);
    EXPECT_TRUE(equal(readTexture(empty.get()), plain(2, 2, red)));
    EXPECT_EQ(viewportInGL(), QRect(0, 0, 2, 2));

    // One without any image beside one that has one.
    Texture withoutImage;
    none.attach(&withoutImage, GL_COLOR_ATTACHMENT1, 0);
    none.setDrawBuffers();
    clearColor(blue);
    EXPECT_TRUE(equal(readTexture(empty.get()), plain(2, 2, blue)));

    none.detach(GL_COLOR_ATTACHMENT0);
    none.detach(GL_COLOR_ATTACHMENT1);
    none.setDrawBuffers();
    glClear(everything);
}

TEST_F(FramebufferObjectTest, ReleaseRestoresFramebuffersAndViewport)
{
    const auto large = makeColor(32, 32);
    const auto small = makeColor(8, 8);
    FramebufferObject outer;
    FramebufferObject inner;
    outer.attach(large.get(), GL_COLOR_ATTACHMENT0, 0);
    context().setViewport(1, 2, 30, 40);
    const unsigned int outerName = outer.getFBO();
    context().bindFramebuffer(GL_READ_FRAMEBUFFER, outerName);
    outer.bind();
    outer.setDrawBuffers();
    context().setViewport(3, 4, 5, 6);
    {
        // Attaching to one that is not bound leaves the bound one in place.
        inner.attach(small.get(), GL_COLOR_ATTACHMENT0, 0);
        EXPECT_EQ(stateInGL(GL_DRAW_FRAMEBUFFER_BINDING), outerName);
        const AutoBinder binder(&inner);
        inner.setDrawBuffers();
        EXPECT_EQ(stateInGL(GL_DRAW_FRAMEBUFFER_BINDING), inner.getFBO());
        EXPECT_EQ(stateInGL(GL_READ_FRAMEBUFFER_BINDING), inner.getFBO());
        EXPECT_EQ(viewportInGL(), QRect(0, 0, 8, 8));
    }
    EXPECT_EQ(stateInGL(GL_DRAW_FRAMEBUFFER_BINDING), outerName);
    EXPECT_EQ(stateInGL(GL_READ_FRAMEBUFFER_BINDING), outerName);
    EXPECT_EQ(viewportInGL(), QRect(3, 4, 5, 6));
    EXPECT_EQ(context().viewport(), QRect(3, 4, 5, 6));
    outer.release();
    EXPECT_EQ(stateInGL(GL_DRAW_FRAMEBUFFER_BINDING), 0U);
    EXPECT_EQ(stateInGL(GL_READ_FRAMEBUFFER_BINDING), outerName);
    EXPECT_EQ(viewportInGL(), QRect(1, 2, 30, 40));
    context().bindFramebuffer(GL_FRAMEBUFFER, 0);
}

TEST_F(FramebufferObjectTest, ADestroyedFramebufferLeavesTheStack)
{
    const auto color = makeColor(8, 8);
    context().setViewport(0, 0, 64, 64);
    auto bound = std::make_unique<FramebufferObject>();
    bound->attach(color.get(), GL_COLOR_ATTACHMENT0, 0);
    bound->bind();
    bound->setDrawBuffers();
    bound.reset();
    EXPECT_EQ(stateInGL(GL_DRAW_FRAMEBUFFER_BINDING), 0U);
    EXPECT_EQ(viewportInGL(), QRect(0, 0, 64, 64));

    // Underneath another one.
    auto outer = std::make_unique<FramebufferObject>();
    outer->attach(color.get(), GL_COLOR_ATTACHMENT0, 0);
    FramebufferObject inner;
    inner.attach(color.get(), GL_COLOR_ATTACHMENT0, 0);
    outer->bind();
    outer->setDrawBuffers();
    inner.bind();
    outer.reset();
    EXPECT_EQ(stateInGL(GL_DRAW_FRAMEBUFFER_BINDING), inner.getFBO());
    inner.release();
    EXPECT_EQ(stateInGL(GL_DRAW_FRAMEBUFFER_BINDING), 0U);
    EXPECT_EQ(viewportInGL(), QRect(0, 0, 64, 64));
    EXPECT_TRUE(glIsTexture(color->textureID())) << "a framebuffer does not own its textures";
}

} // namespace

} // namespace Morvane::Qel::Test
