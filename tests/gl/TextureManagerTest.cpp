#include <algorithm>
#include <array>
#include <memory>
#include <optional>

#include <epoxy/egl.h>
#include <epoxy/gl.h>

#include <Qel/gl/BindingRecord.h>
#include <Qel/gl/Guards.h>
#include <Qel/gl/ResourceScope.h>
#include <Qel/gl/Texture.h>
#include <Qel/gl/TextureManager.h>

#include "support/GLState.h"
#include "support/GLTest.h"
#include "support/Pixels.h"

using namespace Qt::StringLiterals;

namespace Morvane::Qel::Test {

namespace {

class TextureManagerTest : public GLTest
{
protected:
    static TextureManager& pool() { return *TextureManager::Instance(); }

    /// Takes a texture, releases it at once and returns it.
    static Texture* borrow(TextureFormat format, int width, int height)
    {
        Texture* texture = pool().tempTexture(format, width, height);
        pool().releaseTempTextureRef(texture, 1);
        return texture;
    }
    static QSize sizeInGL(Texture* texture, int level)
    {
        const Pixels pixels = readTexture(texture, level);
        return {pixels.width, pixels.height};
    }
};

/// Remembers the current native context to return to it.
class NativeContext
{
public:
    NativeContext()
        : m_display(eglGetCurrentDisplay())
        , m_surface(eglGetCurrentSurface(EGL_DRAW))
        , m_context(eglGetCurrentContext())
    {
    }
    void makeCurrent(OpenGLDeviceContext& context) const
    {
        ASSERT_TRUE(eglMakeCurrent(m_display, m_surface, m_surface, m_context));
        context.makeCurrent();
    }

private:
    EGLDisplay m_display;
    EGLSurface m_surface;
    EGLContext m_context;
};

TEST_F(TextureManagerTest, ReusesATextureOfTheSameKindOnceItsReferencesAreReleased)
{
    Texture* texture = pool().tempTexture(TextureFormat::RGBA8, 8, 4, 3);
    pool().addTempTextureRef(texture, 2);
    pool().releaseTempTextureRef(texture, 4);
    ASSERT_EQ(pool().loans().size(), 1U);
    EXPECT_EQ(pool().loans()[0].texture, texture);
    EXPECT_EQ(pool().loans()[0].references, 1);
    EXPECT_EQ(pool().numReferences(), 1);
    EXPECT_NE(borrow(TextureFormat::RGBA8, 8, 4), texture);
    pool().releaseFreeTextures();
    pool().releaseTempTextureRef(texture, 1);
    EXPECT_TRUE(pool().loans().empty());
    EXPECT_NE(borrow(TextureFormat::RGBA8, 4, 8), texture);
    EXPECT_NE(borrow(TextureFormat::RGBA16F, 8, 4), texture);
    EXPECT_EQ(borrow(TextureFormat::RGBA8, 8, 4), texture);
    pool().releaseFreeTextures();

    // Null and textures from elsewhere are ignored.
    Texture own;
    for (Texture* ignored : {&own, static_cast<Texture*>(nullptr)}) {
        pool().addTempTextureRef(ignored, 5);
        pool().releaseTempTextureRef(ignored, 9);
    }
    EXPECT_EQ(pool().numReferences(), 0);

    // One release too many is reported and does not affect the next use.
    Texture* spoiled = pool().tempTexture(TextureFormat::RGBA8, 2, 2);
    pool().releaseTempTextureRef(spoiled, 3);
    expectMessage(u"3 references to a pooled texture are released but only 1 are held"_s);
    EXPECT_EQ(pool().tempTexture(TextureFormat::RGBA8, 2, 2), spoiled);
    EXPECT_EQ(pool().numReferences(), 1);
    EXPECT_NE(borrow(TextureFormat::RGBA8, 2, 2), spoiled);
    pool().releaseTempTextureRef(spoiled, 1);
}

TEST_F(TextureManagerTest, ResetsFormatSizeAndParametersOnReuse)
{
    constexpr std::array<unsigned int, 5> names{GL_TEXTURE_MIN_FILTER, GL_TEXTURE_MAG_FILTER,
                                                GL_TEXTURE_WRAP_S, GL_TEXTURE_WRAP_T, GL_TEXTURE_WRAP_R};
    constexpr std::array<int, 5> expected{GL_LINEAR, GL_LINEAR, GL_CLAMP_TO_EDGE, GL_CLAMP_TO_EDGE,
                                          GL_CLAMP_TO_EDGE};
    const auto parameters = [&](Texture* texture) {
        const AutoBinder binder(texture);
        std::array<int, 5> values{};
        for (size_t i = 0; i < names.size(); ++i) {
            glGetTexParameteriv(GL_TEXTURE_2D, names[i], &values[i]);
        }
        return values;
    };
    Texture* texture = pool().tempTexture(TextureFormat::RGBA8, 8, 4);
    EXPECT_EQ(parameters(texture), expected);
    // An image of another format, then one of another size.
    for (const auto& [format, width] : {std::pair(GL_RGBA32F, 8), std::pair(GL_RGBA8, 2)}) {
        texture->setFilter(GL_NEAREST_MIPMAP_NEAREST, GL_NEAREST);
        texture->setWrap(GL_MIRRORED_REPEAT);
        texture->setImage2D(0, static_cast<unsigned int>(format), width, 4, GL_RGBA, GL_FLOAT, nullptr);
        pool().releaseTempTextureRef(texture, 1);

        ASSERT_EQ(pool().tempTexture(TextureFormat::RGBA8, 8, 4), texture);
        EXPECT_EQ(parameters(texture), expected);
        EXPECT_EQ(sizeInGL(texture, 0), QSize(8, 4)) << width;
        EXPECT_EQ(texture->internalFormat(), static_cast<unsigned int>(GL_RGBA8));
    }
    pool().releaseTempTextureRef(texture, 1);
}

TEST_F(TextureManagerTest, ClampsSizesAndAllocatesMipChains)
{
    const int limit = context().maxTextureSize();
    for (const auto& [size, expected] : {std::pair(QSize(-5, 0), QSize(1, 1)),
                                         {QSize(limit, 1), QSize(limit, 1)},
                                         {QSize(limit + 1, 2), QSize(1, 1)},
                                         {QSize(2, limit + 1), QSize(1, 1)}}) {
        Texture* texture = borrow(TextureFormat::RGBA8, size.width(), size.height());
        EXPECT_EQ(sizeInGL(texture, 0), expected);
        EXPECT_EQ(texture->size(), expected);
        if (std::max(size.width(), size.height()) > limit) {
            expectMessage(
                u"%1x%2 exceeds the driver's limit of %3"_s.arg(size.width()).arg(size.height()).arg(limit));
        }
        EXPECT_TRUE(messages().failures.isEmpty());
    }

    // The mip chain goes down to one texel.
    Texture* mipmapped = borrow(TextureFormat::RGBA32FMipmapped, 13, 5);
    const std::array<QSize, 5> levels{QSize(13, 5), QSize(6, 2), QSize(3, 1), QSize(1, 1), QSize(0, 0)};
    for (size_t level = 0; level < levels.size(); ++level) {
        EXPECT_EQ(sizeInGL(mipmapped, static_cast<int>(level)), levels[level]) << level;
    }
}

TEST_F(TextureManagerTest, DeletesTexturesThatAreNoLongerTaken)
{
    Texture* held = nullptr;
    {
        // Pooled textures outlive the scope in which they were created.
        ResourceScope scope(&context());
        const ResourceScope::Activation activation(&context(), &scope);
        held = pool().tempTexture(TextureFormat::RGBA8, 4, 4);
        pool().bindManagedTexture(0, nullptr);
        EXPECT_EQ(scope.numObjects(), 0);
    }
    // A texture that is taken every few frames stays.
    Texture* rare = borrow(TextureFormat::RGBA8, 8, 8);
    for (int i = 0; i < 10; ++i) {
        for (int frame = 0; frame < 4; ++frame) {
            pool().endFrame();
        }
        ASSERT_EQ(pool().numTextures(), 2) << i;
        ASSERT_EQ(borrow(TextureFormat::RGBA8, 8, 8), rare);
    }
    const unsigned int rareName = rare->textureID();
    for (int frame = 0; frame < 60; ++frame) {
        pool().endFrame();
    }
    EXPECT_EQ(pool().numTextures(), 1);
    EXPECT_FALSE(glIsTexture(rareName));
    EXPECT_TRUE(glIsTexture(held->textureID()));
    pool().releaseTempTextureRef(held, 1);
    pool().releaseFreeTextures();
    EXPECT_EQ(pool().numTextures(), 0);
}

TEST_F(TextureManagerTest, KeepsContextsApart)
{
    const NativeContext firstNative;
    Texture* ofFirst = borrow(TextureFormat::RGBA8, 4, 4);
    Texture* heldByFirst = pool().tempTexture(TextureFormat::RGBA8, 4, 4);
    ASSERT_EQ(heldByFirst, ofFirst);
    Texture standInOfFirst;
    pool().setManagedTextureStandIn(&standInOfFirst);

    HeadlessContext::Options options;
    options.device = HeadlessContext::Device::Software;
    options.debug = true;
    QString error;
    auto second = HeadlessContext::create(options, &error);
    ASSERT_TRUE(second) << qPrintable(error);
    const NativeContext secondNative;
    EXPECT_EQ(pool().numTextures(), 0);
    EXPECT_EQ(pool().numReferences(), 0);
    EXPECT_TRUE(pool().loans().empty());
    EXPECT_EQ(pool().setManagedTextureStandIn(nullptr), nullptr);

    firstNative.makeCurrent(context());
    EXPECT_EQ(pool().setManagedTextureStandIn(nullptr), &standInOfFirst);
    pool().releaseTempTextureRef(heldByFirst, 1);
    secondNative.makeCurrent(*second);
    Texture* ofSecond = borrow(TextureFormat::RGBA8, 4, 4);
    EXPECT_NE(ofSecond, ofFirst);
    EXPECT_EQ(sizeInGL(ofSecond, 0), QSize(4, 4));
    pool().releaseFreeTextures();
    EXPECT_EQ(pool().numTextures(), 0);

    // A frame of one context does not age the textures of another.
    for (int frame = 0; frame < 60; ++frame) {
        pool().endFrame();
    }
    firstNative.makeCurrent(context());
    pool().endFrame();
    EXPECT_EQ(pool().numTextures(), 1);
    EXPECT_EQ(borrow(TextureFormat::RGBA8, 4, 4), ofFirst);

    secondNative.makeCurrent(*second);
    borrow(TextureFormat::RGBA8, 4, 4);
    second.reset();
    firstNative.makeCurrent(context());
    EXPECT_EQ(borrow(TextureFormat::RGBA8, 4, 4), ofFirst);
    EXPECT_TRUE(glIsTexture(ofFirst->textureID()));
    EXPECT_EQ(pool().numTextures(), 1);
}

TEST_F(TextureManagerTest, MissingMapsSampleTheStandIn)
{
    const auto boundTo = [](int slot) { return textureAt(BindingRecord::firstManagedUnit + slot); };
    const auto texelOf = [&](int slot) {
        boundTo(slot);
        std::array<float, 4> texel{};
        glGetTexImage(GL_TEXTURE_2D, 0, GL_RGBA, GL_FLOAT, texel.data());
        return texel;
    };
    constexpr std::array<float, 4> white{1.0F, 1.0F, 1.0F, 1.0F};
    const auto makeTexel = [](const QVector4D& value) {
        return makeTexture(Pixels::filled(1, 1, value), GL_RGBA32F);
    };
    const auto map = makeTexel({0.25F, 0.5F, 0.75F, 0.125F});
    pool().bindManagedTexture(0, map.get());
    pool().bindManagedTexture(1, nullptr);
    EXPECT_EQ(boundTo(0), map->textureID());
    EXPECT_EQ(texelOf(1), white);
    pool().bindManagedTexture(0, nullptr);
    EXPECT_EQ(texelOf(0), white);

    auto chosen = makeTexel({0.5F, 0.0F, 0.0F, 1.0F});
    EXPECT_EQ(pool().setManagedTextureStandIn(chosen.get()), nullptr);
    pool().bindManagedTexture(0, nullptr);
    EXPECT_EQ(boundTo(0), chosen->textureID());
    EXPECT_EQ(boundTo(1), chosen->textureID()) << "a slot that holds the stand-in gets the new one";
    pool().bindManagedTexture(0, map.get());

    // Set around a draw and restored; maps are left alone.
    {
        const auto around = makeTexel({0.0F, 0.5F, 0.0F, 1.0F});
        Texture* former = pool().setManagedTextureStandIn(around.get());
        EXPECT_EQ(former, chosen.get());
        EXPECT_EQ(boundTo(0), map->textureID());
        EXPECT_EQ(boundTo(1), around->textureID());
        pool().setManagedTextureStandIn(former);
        EXPECT_EQ(boundTo(0), map->textureID());
        EXPECT_EQ(boundTo(1), chosen->textureID());
    }

    // A map with the address, and perhaps the GL name, of a deleted one is bound anew.
    std::optional<Texture> reused;
    for (int i = 0; i < 2; ++i) {
        reused.emplace();
        pool().bindManagedTexture(1, &*reused);
        EXPECT_EQ(boundTo(1), reused->textureID()) << i;
    }

    // A deleted stand-in is replaced by white.
    chosen.reset();
    pool().bindManagedTexture(0, nullptr);
    EXPECT_EQ(texelOf(0), white);
    pool().setManagedTextureStandIn(nullptr);
}

} // namespace

} // namespace Morvane::Qel::Test
