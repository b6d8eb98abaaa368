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

/// Clears all attachments of a framebuffer that is bound.
void clear(FramebufferObject& framebuffer, const QVector4D& color, float depth = 1.0F)
{
    framebuffer.setDrawBuffers();
    glClearColor(color.x(), color.y(), color.z(), color.w());
    glClearDepth(depth);
    glClear(GL_COLOR_BUFFER_BIT | GL_DEPTH_BUFFER_BIT | GL_STENCIL_BUFFER_BIT);
}

testing::AssertionResult isFilled(Texture* texture, const QVector4D& value, int level = 0)
{
    const Pixels pixels = readTexture(texture, level);
    return equal(pixels, Pixels::filled(pixels.width, pixels.height, value));
}

/// Whether GL has something at a point of the draw framebuffer.
bool isAttachedInGL(unsigned int attachment)
{
    int type = 0;
    glGetFramebufferAttachmentParameteriv(GL_DRAW_FRAMEBUFFER, attachment,
                                          GL_FRAMEBUFFER_ATTACHMENT_OBJECT_TYPE, &type);
    return type != GL_NONE;
}

/// Any GL error fails a test, since the context is a debug context.
using FramebufferObjectTest = GLTest;

TEST_F(FramebufferObjectTest, RecordsAttachmentsAndDrawsIntoAllOfThem)
{
    const auto first = makeColor(16, 8);
    const auto third = makeColor(16, 8);
    FramebufferObject framebuffer;
    framebuffer.attach(third.get(), GL_COLOR_ATTACHMENT7 + 1, 0);
    expectMessage(u"0x8ce8 is not an attachment point"_s);
    framebuffer.attach(first.get(), GL_COLOR_ATTACHMENT0, 0);
    framebuffer.attach(third.get(), GL_COLOR_ATTACHMENT2, 0);
    framebuffer.attach(third.get(), GL_COLOR_ATTACHMENT7, 0);
    EXPECT_EQ(framebuffer.detach(GL_COLOR_ATTACHMENT7), third.get());
    EXPECT_FALSE(framebuffer.hasAttachment(GL_COLOR_ATTACHMENT7));
    EXPECT_EQ(framebuffer.attachment(GL_COLOR_ATTACHMENT2), third.get());
    {
        const AutoBinder binder(&framebuffer);
        clear(framebuffer, red);
        EXPECT_EQ(viewportInGL(), QRect(0, 0, 16, 8));
        EXPECT_TRUE(isFilled(third.get(), red));
        // Despite the gap, output 2 goes to attachment 2.
        QVector4D value = blue;
        glClearBufferfv(GL_COLOR, 2, &value[0]);
    }
    EXPECT_TRUE(isFilled(first.get(), red));
    EXPECT_TRUE(isFilled(third.get(), blue));

    framebuffer.attach(nullptr, GL_COLOR_ATTACHMENT0, 0);
    first->setReadOnly();
    framebuffer.attach(first.get(), GL_COLOR_ATTACHMENT0, 0);
    expectMessage(u"a read-only texture cannot be rendered into"_s);
    EXPECT_FALSE(framebuffer.hasAttachment(GL_COLOR_ATTACHMENT0));
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
        clear(framebuffer, red);
        framebuffer.detach(GL_COLOR_ATTACHMENT1);
        clear(framebuffer, green);
        EXPECT_TRUE(isFilled(kept.get(), green));
        EXPECT_TRUE(isFilled(detached.get(), red));
    }

    // A successor with the address of a deleted texture, and with some drivers its GL name. GL removes a
    // deleted texture only from the framebuffer that is bound.
    std::optional<Texture> texture;
    for (const int width : {4, 8}) {
        EXPECT_EQ(framebuffer.hasAttachment(GL_COLOR_ATTACHMENT0), width == 4);
        texture.emplace();
        texture->setFilter(GL_NEAREST, GL_NEAREST);
        texture->setImage2D(0, GL_RGBA8, width, 2, GL_RGBA, GL_UNSIGNED_BYTE, nullptr);
        framebuffer.attach(&*texture, GL_COLOR_ATTACHMENT0, 0);
        {
            const AutoBinder binder(&framebuffer);
            clear(framebuffer, blue);
            EXPECT_EQ(viewportInGL(), QRect(0, 0, width, 2));
            EXPECT_TRUE(isFilled(&*texture, blue));
        }
        texture.reset();
    }
    // GL would keep the storage of a deleted texture for the framebuffer.
    const AutoBinder binder(&framebuffer);
    EXPECT_FALSE(isAttachedInGL(GL_COLOR_ATTACHMENT0));
}

TEST_F(FramebufferObjectTest, TheCombinedPointTakesDepthWithAndWithoutStencil)
{
    const auto combined = makeTexture(Pixels::filled(4, 4, {}), GL_DEPTH24_STENCIL8);
    const auto depth = makeTexture(Pixels::filled(4, 4, {}), GL_DEPTH_COMPONENT32F);
    FramebufferObject framebuffer;
    const AutoBinder binder(&framebuffer);
    for (const auto& [texture, hasStencil, value] :
         {std::tuple(combined.get(), true, 1.0F), std::tuple(depth.get(), false, 0.25F)}) {
        framebuffer.attach(texture, GL_DEPTH_STENCIL_ATTACHMENT, 0);
        clear(framebuffer, {}, value);
        EXPECT_TRUE(isFilled(texture, {value, value, value, value}));
        EXPECT_EQ(isAttachedInGL(GL_STENCIL_ATTACHMENT), hasStencil);
        EXPECT_EQ(framebuffer.hasAttachment(GL_STENCIL_ATTACHMENT), hasStencil);
    }
    framebuffer.attach(combined.get(), GL_DEPTH_STENCIL_ATTACHMENT, 0);
    EXPECT_EQ(framebuffer.detach(GL_DEPTH_STENCIL_ATTACHMENT), combined.get());
    framebuffer.setDrawBuffers();
    EXPECT_FALSE(isAttachedInGL(GL_DEPTH_ATTACHMENT));
    EXPECT_FALSE(isAttachedInGL(GL_STENCIL_ATTACHMENT));
}

TEST_F(FramebufferObjectTest, ClearingWithoutTexelsIsNoError)
{
    FramebufferObject framebuffer;
    const AutoBinder binder(&framebuffer);
    clear(framebuffer, red);
    const auto empty = makeColor(0, 4);
    framebuffer.attach(empty.get(), GL_COLOR_ATTACHMENT0, 0);
    clear(framebuffer, red);

    // The texture gets its image after it was attached; another one beside it never does.
    empty->setImage2D(0, GL_RGBA8, 2, 2, GL_RGBA, GL_UNSIGNED_BYTE, nullptr);
    Texture withoutImage;
    framebuffer.attach(&withoutImage, GL_COLOR_ATTACHMENT1, 0);
    clear(framebuffer, red);
    EXPECT_TRUE(isFilled(empty.get(), red));
    EXPECT_EQ(viewportInGL(), QRect(0, 0, 2, 2));
    framebuffer.detach(GL_COLOR_ATTACHMENT0);
    clear(framebuffer, red);
}

TEST_F(FramebufferObjectTest, ReleaseAndDestructionRestoreFramebuffersAndViewport)
{
    const auto texture = makeColor(8, 8);
    FramebufferObject outer;
    auto inner = std::make_unique<FramebufferObject>();
    const auto expectBound = [&](unsigned int draw, unsigned int read, const QRect& viewport) {
        EXPECT_EQ(stateInGL(GL_DRAW_FRAMEBUFFER_BINDING), draw);
        EXPECT_EQ(stateInGL(GL_READ_FRAMEBUFFER_BINDING), read);
        EXPECT_EQ(viewportInGL(), viewport);
        EXPECT_EQ(context().viewport(), viewport);
    };
    context().setViewport(1, 2, 30, 40);
    const unsigned int outerName = outer.getFBO();
    context().bindFramebuffer(GL_READ_FRAMEBUFFER, outerName);
    outer.bind();
    context().setViewport(3, 4, 5, 6);
    // Attaching to a framebuffer that is not bound leaves the bound one in place.
    inner->attach(texture.get(), GL_COLOR_ATTACHMENT0, 0);
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
    below->bind();
    context().setViewport(3, 4, 5, 6);
    outer.bind();
    below.reset();
    EXPECT_EQ(stateInGL(GL_DRAW_FRAMEBUFFER_BINDING), outerName);
    outer.release();
    expectBound(0, 0, {1, 2, 30, 40});
}

} // namespace

} // namespace Morvane::Qel::Test
