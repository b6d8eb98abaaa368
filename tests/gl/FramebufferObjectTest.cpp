#include <array>
#include <memory>
#include <optional>

#include <epoxy/gl.h>

#include <Qel/gl/FramebufferObject.h>
#include <Qel/gl/Guards.h>
#include <Qel/gl/Texture.h>

#include "support/GLState.h"
#include "support/GLTest.h"
#include "support/Pixels.h"

using namespace Qt::StringLiterals;

namespace Morvane::Qel::Test {

namespace {

const QVector4D red(1.0F, 0.0F, 0.0F, 1.0F);
const QVector4D green(0.0F, 1.0F, 0.0F, 0.0F);
const QVector4D blue(0.0F, 0.0F, 1.0F, 1.0F);

std::unique_ptr<Texture> makeColor(int width, int height)
{
    return makeTexture(Pixels::filled(width, height, {}), GL_RGBA8);
}

void clearColor(const QVector4D& value)
{
    glClearColor(value.x(), value.y(), value.z(), value.w());
    glClear(GL_COLOR_BUFFER_BIT);
}

testing::AssertionResult isFilled(Texture* texture, const QVector4D& value, int level = 0)
{
    const Pixels pixels = readTexture(texture, level);
    return equal(pixels, Pixels::filled(pixels.width, pixels.height, value));
}

/// Any GL error fails a test, since the context is a debug context.
class FramebufferObjectTest : public GLTest
{
protected:
    /// Whether GL has something at a point of the draw framebuffer, which must be complete.
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

TEST_F(FramebufferObjectTest, RecordsAttachmentsAndDrawsIntoAllOfThem)
{
    const auto first = makeColor(16, 8);
    const auto third = makeColor(16, 8);
    FramebufferObject framebuffer;
    EXPECT_EQ(framebuffer.detach(GL_COLOR_ATTACHMENT0), nullptr);
    framebuffer.attach(third.get(), GL_COLOR_ATTACHMENT7 + 1, 0);
    expectMessage(u"0x8ce8 is not an attachment point"_s);
    framebuffer.attach(first.get(), GL_COLOR_ATTACHMENT0, 0);
    framebuffer.attach(third.get(), GL_COLOR_ATTACHMENT2, 0);
    framebuffer.attach(third.get(), GL_COLOR_ATTACHMENT7, 0);
    EXPECT_EQ(framebuffer.detach(GL_COLOR_ATTACHMENT7), third.get());
    EXPECT_EQ(framebuffer.attachment(GL_COLOR_ATTACHMENT0), first.get());
    EXPECT_EQ(framebuffer.attachment(GL_COLOR_ATTACHMENT2), third.get());
    EXPECT_FALSE(framebuffer.hasAttachment(GL_COLOR_ATTACHMENT7));
    EXPECT_FALSE(framebuffer.hasAttachment(GL_DEPTH_ATTACHMENT));
    {
        const AutoBinder binder(&framebuffer);
        framebuffer.setDrawBuffers();
        EXPECT_EQ(viewportInGL(), QRect(0, 0, 16, 8));
        clearColor(red);
        // Despite the gap, output 2 goes to attachment 2.
        const std::array<float, 4> value{blue.x(), blue.y(), blue.z(), blue.w()};
        glClearBufferfv(GL_COLOR, 2, value.data());
    }
    EXPECT_TRUE(isFilled(first.get(), red));
    EXPECT_TRUE(isFilled(third.get(), blue));
    framebuffer.attach(nullptr, GL_COLOR_ATTACHMENT0, 0);
    EXPECT_FALSE(framebuffer.hasAttachment(GL_COLOR_ATTACHMENT0));

    Texture readOnly;
    readOnly.setReadOnly();
    framebuffer.attach(&readOnly, GL_COLOR_ATTACHMENT0, 0);
    expectMessage(u"a read-only texture cannot be rendered into"_s);
    EXPECT_FALSE(framebuffer.hasAttachment(GL_COLOR_ATTACHMENT0));
}

TEST_F(FramebufferObjectTest, AttachesSingleLevelsAndLayers)
{
    const auto mipmapped = makeColor(16, 8);
    mipmapped->setFilter(GL_NEAREST_MIPMAP_NEAREST, GL_NEAREST);
    mipmapped->generateMipmap();
    FramebufferObject framebuffer;
    const AutoBinder binder(&framebuffer);
    for (const auto& [level, size] : {std::pair(2, QSize(4, 2)), std::pair(4, QSize(1, 1))}) {
        framebuffer.attach(mipmapped.get(), GL_COLOR_ATTACHMENT0, level);
        framebuffer.setDrawBuffers();
        EXPECT_EQ(viewportInGL(), QRect(QPoint(0, 0), size)) << level;
        clearColor(green);
        EXPECT_TRUE(isFilled(mipmapped.get(), green, level));
    }
    EXPECT_TRUE(isFilled(mipmapped.get(), {}));

    Texture array;
    array.setTarget(GL_TEXTURE_2D_ARRAY);
    array.setFilter(GL_NEAREST, GL_NEAREST);
    array.setImage3D(GL_RGBA32F, 2, 2, 3, GL_RGBA, GL_FLOAT, nullptr);
    const auto expectLayers = [&](const std::array<QVector4D, 3>& colors) {
        const std::vector<Pixels> layers = readLayers(&array);
        for (size_t i = 0; i < 3; ++i) {
            EXPECT_TRUE(equal(layers[i], Pixels::filled(2, 2, colors[i]))) << "layer " << i;
        }
    };
    const std::array colors{red, green, blue};
    for (int layer = 0; layer < 3; ++layer) {
        framebuffer.attach3D(&array, GL_COLOR_ATTACHMENT0, layer, 0);
        framebuffer.setDrawBuffers();
        clearColor(colors[static_cast<size_t>(layer)]);
    }
    expectLayers(colors);
    framebuffer.attach3D(&array, GL_COLOR_ATTACHMENT0, 0, 0);
    framebuffer.attach3D(&array, GL_COLOR_ATTACHMENT1, 2, 0);
    framebuffer.setDrawBuffers();
    clearColor(green);
    expectLayers({green, green, green});
}

TEST_F(FramebufferObjectTest, LeavesDetachedTexturesAloneAndAttachesTheirSuccessors)
{
    const auto kept = makeColor(4, 4);
    const auto detached = makeColor(4, 4);
    FramebufferObject framebuffer;
    framebuffer.attach(kept.get(), GL_COLOR_ATTACHMENT0, 0);
    framebuffer.attach(detached.get(), GL_COLOR_ATTACHMENT1, 0);
    {
        const AutoBinder binder(&framebuffer);
        framebuffer.setDrawBuffers();
        clearColor(red);
        framebuffer.detach(GL_COLOR_ATTACHMENT1);
        framebuffer.setDrawBuffers();
        EXPECT_FALSE(isAttachedInGL(GL_COLOR_ATTACHMENT1));
        clearColor(green);
        EXPECT_TRUE(isFilled(kept.get(), green));
        EXPECT_TRUE(isFilled(detached.get(), red));

        // The same texture again, as a pooled one in every frame, then another one.
        for (Texture* texture : {kept.get(), detached.get()}) {
            framebuffer.detach(GL_COLOR_ATTACHMENT0);
            framebuffer.attach(texture, GL_COLOR_ATTACHMENT0, 0);
            framebuffer.setDrawBuffers();
            clearColor(blue);
            EXPECT_TRUE(isFilled(texture, blue));
            clearColor(red);
        }
        EXPECT_TRUE(isFilled(kept.get(), red));
        framebuffer.detach(GL_COLOR_ATTACHMENT0);
    }

    // A successor with the address of a deleted texture, and with some drivers its GL name. GL removes a
    // deleted texture only from the framebuffer that is bound.
    std::optional<Texture> texture;
    const auto make = [&](int width, int height) {
        texture.emplace();
        texture->setFilter(GL_NEAREST, GL_NEAREST);
        texture->setImage2D(0, GL_RGBA8, width, height, GL_RGBA, GL_UNSIGNED_BYTE, nullptr);
        framebuffer.attach(&*texture, GL_COLOR_ATTACHMENT0, 0);
    };
    make(4, 4);
    {
        const AutoBinder binder(&framebuffer);
        framebuffer.setDrawBuffers();
    }
    texture.reset();
    EXPECT_FALSE(framebuffer.hasAttachment(GL_COLOR_ATTACHMENT0));
    make(8, 2);
    const AutoBinder binder(&framebuffer);
    framebuffer.setDrawBuffers();
    EXPECT_EQ(viewportInGL(), QRect(0, 0, 8, 2));
    clearColor(blue);
    EXPECT_TRUE(isFilled(&*texture, blue));
    texture.reset();
    framebuffer.setDrawBuffers();
    EXPECT_FALSE(isAttachedInGL(GL_COLOR_ATTACHMENT0));
}

TEST_F(FramebufferObjectTest, TheCombinedPointTakesDepthWithAndWithoutStencil)
{
    const auto combined = makeTexture(Pixels::filled(4, 4, {}), GL_DEPTH24_STENCIL8);
    const auto depth = makeTexture(Pixels::filled(4, 4, {}), GL_DEPTH_COMPONENT32F);
    FramebufferObject framebuffer;
    const AutoBinder binder(&framebuffer);
    const auto expectAttached = [&](bool hasDepth, bool hasStencil) {
        framebuffer.setDrawBuffers();
        EXPECT_EQ(isAttachedInGL(GL_DEPTH_ATTACHMENT), hasDepth);
        EXPECT_EQ(isAttachedInGL(GL_STENCIL_ATTACHMENT), hasStencil);
        EXPECT_EQ(framebuffer.hasAttachment(GL_STENCIL_ATTACHMENT), hasStencil);
    };
    framebuffer.attach(combined.get(), GL_DEPTH_STENCIL_ATTACHMENT, 0);
    expectAttached(true, true);
    EXPECT_EQ(viewportInGL(), QRect(0, 0, 4, 4));
    glClearDepth(1.0);
    glClear(GL_DEPTH_BUFFER_BIT | GL_STENCIL_BUFFER_BIT);
    EXPECT_TRUE(isFilled(combined.get(), {1.0F, 1.0F, 1.0F, 1.0F}));

    framebuffer.attach(depth.get(), GL_DEPTH_STENCIL_ATTACHMENT, 0);
    expectAttached(true, false);
    glClearDepth(0.25);
    glClear(GL_DEPTH_BUFFER_BIT | GL_STENCIL_BUFFER_BIT);
    EXPECT_TRUE(isFilled(depth.get(), {0.25F, 0.25F, 0.25F, 0.25F}));

    framebuffer.attach(combined.get(), GL_DEPTH_STENCIL_ATTACHMENT, 0);
    EXPECT_EQ(framebuffer.detach(GL_DEPTH_STENCIL_ATTACHMENT), combined.get());
    expectAttached(false, false);
}

TEST_F(FramebufferObjectTest, ClearingWithoutTexelsIsNoError)
{
    constexpr unsigned int everything = GL_COLOR_BUFFER_BIT | GL_DEPTH_BUFFER_BIT | GL_STENCIL_BUFFER_BIT;
    FramebufferObject none;
    const AutoBinder binder(&none);
    none.setDrawBuffers();
    glClear(everything);

    const auto empty = makeColor(0, 4);
    none.attach(empty.get(), GL_COLOR_ATTACHMENT0, 0);
    none.setDrawBuffers();
    glClear(everything);
    EXPECT_EQ(none.attachment(GL_COLOR_ATTACHMENT0), empty.get());

    // The texture gets its image after it was attached; another one beside it never does.
    empty->setImage2D(0, GL_RGBA8, 2, 2, GL_RGBA, GL_UNSIGNED_BYTE, nullptr);
    Texture withoutImage;
    none.attach(&withoutImage, GL_COLOR_ATTACHMENT1, 0);
    none.setDrawBuffers();
    clearColor(red);
    EXPECT_TRUE(isFilled(empty.get(), red));
    EXPECT_EQ(viewportInGL(), QRect(0, 0, 2, 2));

    none.detach(GL_COLOR_ATTACHMENT0);
    none.detach(GL_COLOR_ATTACHMENT1);
    none.setDrawBuffers();
    glClear(everything);
}

TEST_F(FramebufferObjectTest, ReleaseAndDestructionRestoreFramebuffersAndViewport)
{
    const auto large = makeColor(32, 32);
    const auto small = makeColor(8, 8);
    FramebufferObject outer;
    auto inner = std::make_unique<FramebufferObject>();
    const auto expectBound = [&](unsigned int draw, unsigned int read, const QRect& viewport) {
        EXPECT_EQ(stateInGL(GL_DRAW_FRAMEBUFFER_BINDING), draw);
        EXPECT_EQ(stateInGL(GL_READ_FRAMEBUFFER_BINDING), read);
        EXPECT_EQ(viewportInGL(), viewport);
        EXPECT_EQ(context().viewport(), viewport);
    };
    outer.attach(large.get(), GL_COLOR_ATTACHMENT0, 0);
    context().setViewport(1, 2, 30, 40);
    const unsigned int outerName = outer.getFBO();
    context().bindFramebuffer(GL_READ_FRAMEBUFFER, outerName);
    outer.bind();
    outer.setDrawBuffers();
    context().setViewport(3, 4, 5, 6);
    // Attaching to a framebuffer that is not bound leaves the bound one in place.
    inner->attach(small.get(), GL_COLOR_ATTACHMENT0, 0);
    expectBound(outerName, outerName, {3, 4, 5, 6});
    {
        const AutoBinder binder(inner.get());
        inner->setDrawBuffers();
        expectBound(inner->getFBO(), inner->getFBO(), {0, 0, 8, 8});
    }
    expectBound(outerName, outerName, {3, 4, 5, 6});
    // Destroyed while bound.
    inner->bind();
    inner.reset();
    expectBound(outerName, outerName, {3, 4, 5, 6});
    outer.release();
    expectBound(0, outerName, {1, 2, 30, 40});
    context().bindFramebuffer(GL_FRAMEBUFFER, 0);

    // Destroyed below another one.
    auto below = std::make_unique<FramebufferObject>();
    below->attach(small.get(), GL_COLOR_ATTACHMENT0, 0);
    below->bind();
    below->setDrawBuffers();
    outer.bind();
    below.reset();
    EXPECT_EQ(stateInGL(GL_DRAW_FRAMEBUFFER_BINDING), outerName);
    outer.release();
    expectBound(0, 0, {1, 2, 30, 40});
    EXPECT_TRUE(glIsTexture(small->textureID())) << "a framebuffer does not own its textures";
}

} // namespace

} // namespace Morvane::Qel::Test
