#include <memory>
#include <optional>

#include <epoxy/gl.h>

#include <Qel/gl/BindingRecord.h>
#include <Qel/gl/BufferObject.h>
#include <Qel/gl/Guards.h>
#include <Qel/gl/MemoryAccount.h>
#include <Qel/gl/Texture.h>

#include "support/GLState.h"
#include "support/GLTest.h"
#include "support/Pixels.h"

using namespace Qt::StringLiterals;

namespace Morvane::Qel::Test {

namespace {

using TextureManagerTest = GLTest;

TextureManager& pool()
{
    return *TextureManager::Instance();
}

/// Takes a texture, releases it at once and returns it.
Texture* borrow(TextureFormat format, int width, int height)
{
    Texture* texture = pool().tempTexture(format, width, height);
    pool().releaseTempTextureRef(texture, 1);
    return texture;
}

QSize sizeInGL(Texture* texture, int level = 0)
{
    const Pixels pixels = readTexture(texture, level);
    return {pixels.width, pixels.height};
}

TEST_F(TextureManagerTest, MemoryBelongsToTheAccountUnderWhichItIsAllocated)
{
    MemoryAccount mine;
    auto array = std::make_unique<Texture>();
    BufferObject buffer;
    {
        const MemoryAccount::Activation accounting(&mine);
        // 4x2, 2x1 and 1x1 texels of 16 bytes.
        borrow(TextureFormat::RGBA32FMipmapped, 4, 2);
        borrow(TextureFormat::Depth24Stencil8, 3, 5);
        array->setTarget(GL_TEXTURE_2D_ARRAY);
        array->setImage3D(GL_RG16F, 3, 5, 7, GL_RG, GL_HALF_FLOAT, nullptr);
        buffer.uploadBytes(nullptr, 1000, GL_STATIC_DRAW);
        buffer.uploadBytes(nullptr, 24, GL_STATIC_DRAW);
    }
    constexpr qint64 pooled = 11 * 16 + 15 * 4;
    EXPECT_EQ(MemoryAccount::ofPool().numBytes(), pooled);
    EXPECT_EQ(mine.numBytes(), 3 * 5 * 7 * 4 + 24);
    EXPECT_EQ(mine.takeLoans().numBytes, pooled);
    EXPECT_EQ(mine.takeLoans().numTextures, 0);
    array.reset();
    EXPECT_EQ(mine.numBytes(), 24);
}

TEST_F(TextureManagerTest, ReusesATextureOfTheSameKindOnceItsReferencesAreReleased)
{
    Texture* texture = pool().tempTexture(TextureFormat::RGBA8, 8, 4, 3);
    pool().addTempTextureRef(texture, 2);
    pool().releaseTempTextureRef(texture, 4);
    ASSERT_EQ(pool().loans().size(), 1U);
    EXPECT_EQ(pool().loans()[0].texture, texture);
    EXPECT_EQ(pool().numReferences(), 1);
    EXPECT_NE(borrow(TextureFormat::RGBA8, 8, 4), texture);
    pool().releaseFreeTextures();
    pool().releaseTempTextureRef(texture, 1);
    EXPECT_TRUE(pool().loans().empty());
    EXPECT_NE(borrow(TextureFormat::RGBA8, 4, 8), texture);
    EXPECT_NE(borrow(TextureFormat::RGBA16F, 8, 4), texture);
    EXPECT_EQ(borrow(TextureFormat::RGBA8, 8, 4), texture);

    // Null and textures from elsewhere are ignored.
    Texture own;
    for (Texture* ignored : {&own, static_cast<Texture*>(nullptr)}) {
        pool().addTempTextureRef(ignored, 5);
        pool().releaseTempTextureRef(ignored, 9);
    }
    EXPECT_EQ(pool().numReferences(), 0);

    // One release too many is reported and does not affect the next use.
    pool().addTempTextureRef(texture, 1);
    pool().releaseTempTextureRef(texture, 3);
    expectMessage(u"3 references to a pooled texture are released but only 1 are held"_s);
    EXPECT_EQ(pool().tempTexture(TextureFormat::RGBA8, 8, 4), texture);
    EXPECT_EQ(pool().numReferences(), 1);
    pool().releaseTempTextureRef(texture, 1);
}

TEST_F(TextureManagerTest, ResetsFormatSizeAndParametersOnReuse)
{
    Texture* texture = borrow(TextureFormat::RGBA8, 8, 4);
    const auto expectReset = [&] {
        ASSERT_EQ(borrow(TextureFormat::RGBA8, 8, 4), texture);
        EXPECT_EQ(sizeInGL(texture), QSize(8, 4));
        EXPECT_EQ(texture->internalFormat(), static_cast<unsigned int>(GL_RGBA8));
        const AutoBinder binder(texture);
        for (const auto& [name, expected] : {std::pair(GL_TEXTURE_MIN_FILTER, GL_LINEAR),
                                             {GL_TEXTURE_MAG_FILTER, GL_LINEAR},
                                             {GL_TEXTURE_WRAP_S, GL_CLAMP_TO_EDGE},
                                             {GL_TEXTURE_WRAP_T, GL_CLAMP_TO_EDGE}}) {
            int value = 0;
            glGetTexParameteriv(GL_TEXTURE_2D, static_cast<unsigned int>(name), &value);
            EXPECT_EQ(value, expected) << name;
        }
    };
    expectReset();
    texture->setFilter(GL_NEAREST_MIPMAP_NEAREST, GL_NEAREST);
    texture->setWrap(GL_MIRRORED_REPEAT);
    texture->setImage2D(0, GL_RGBA32F, 8, 4, GL_RGBA, GL_FLOAT, nullptr);
    expectReset();
    texture->setImage2D(0, GL_RGBA8, 2, 4, GL_RGBA, GL_FLOAT, nullptr);
    expectReset();
}

TEST_F(TextureManagerTest, ClampsSizesAndAllocatesMipChains)
{
    const int limit = context().maxTextureSize();
    EXPECT_EQ(sizeInGL(borrow(TextureFormat::RGBA8, -5, 0)), QSize(1, 1));
    EXPECT_EQ(sizeInGL(borrow(TextureFormat::RGBA8, limit, 1)), QSize(limit, 1));
    for (const QSize& tooLarge : {QSize(limit + 1, 2), QSize(2, limit + 1)}) {
        Texture* texture = borrow(TextureFormat::RGBA8, tooLarge.width(), tooLarge.height());
        EXPECT_EQ(sizeInGL(texture), QSize(1, 1));
        // No path of the machine that built the library.
        expectMessage(
            u"^\\[src/Qel/gl/TextureManager.cpp:\\d+\\] a texture of .* exceeds the driver's limit of %1"_s
                .arg(limit));
    }
    // The mip chain goes down to one texel.
    Texture* mipmapped = borrow(TextureFormat::RGBA32FMipmapped, 13, 5);
    for (const auto& [level, size] : {std::pair(0, QSize(13, 5)),
                                      {1, QSize(6, 2)},
                                      {2, QSize(3, 1)},
                                      {3, QSize(1, 1)},
                                      {4, QSize(0, 0)}}) {
        EXPECT_EQ(sizeInGL(mipmapped, level), size) << level;
    }
}

TEST_F(TextureManagerTest, DeletesTexturesThatAreNoLongerTaken)
{
    Texture* held = pool().tempTexture(TextureFormat::RGBA8, 4, 4);
    // A texture that is taken every few frames stays.
    Texture* rare = borrow(TextureFormat::RGBA8, 8, 8);
    for (int i = 0; i < 10; ++i) {
        for (int frame = 0; frame < 4; ++frame) {
            pool().endFrame();
        }
        ASSERT_EQ(pool().numTextures(), 2) << i;
        ASSERT_EQ(borrow(TextureFormat::RGBA8, 8, 8), rare);
    }
    for (int frame = 0; frame < 60; ++frame) {
        pool().endFrame();
    }
    EXPECT_EQ(pool().numTextures(), 1);
    pool().releaseTempTextureRef(held, 1);
    pool().releaseFreeTextures();
    EXPECT_EQ(pool().numTextures(), 0);
}

TEST_F(TextureManagerTest, KeepsContextsApart)
{
    Texture* held = pool().tempTexture(TextureFormat::RGBA8, 4, 4);
    Texture standIn;
    pool().setManagedTextureStandIn(&standIn);

    // Wraps the native context of the fixture without owning it.
    OpenGLDeviceContext second;
    second.makeCurrent();
    EXPECT_EQ(pool().numTextures(), 0);
    EXPECT_EQ(pool().setManagedTextureStandIn(nullptr), nullptr);

    context().makeCurrent();
    EXPECT_EQ(pool().setManagedTextureStandIn(nullptr), &standIn);
    pool().releaseTempTextureRef(held, 1);
    second.makeCurrent();
    EXPECT_NE(borrow(TextureFormat::RGBA8, 4, 4), held);
    // A frame of one context does not age the textures of another.
    for (int frame = 0; frame < 60; ++frame) {
        pool().endFrame();
    }
    EXPECT_EQ(pool().numTextures(), 0);
    context().makeCurrent();
    pool().endFrame();
    EXPECT_EQ(borrow(TextureFormat::RGBA8, 4, 4), held);
}

TEST_F(TextureManagerTest, MissingMapsSampleTheStandIn)
{
    const auto boundTo = [](int slot) { return textureAt(BindingRecord::firstManagedUnit + slot); };
    const auto expectWhite = [&](int slot) {
        boundTo(slot);
        QVector4D texel;
        glGetTexImage(GL_TEXTURE_2D, 0, GL_RGBA, GL_FLOAT, &texel);
        EXPECT_EQ(texel, QVector4D(1, 1, 1, 1));
    };
    const auto makeTexel = [] { return makeTexture(Pixels::filled(1, 1, {}), GL_RGBA8); };
    const auto map = makeTexel();
    pool().bindManagedTexture(0, map.get());
    pool().bindManagedTexture(1, nullptr);
    EXPECT_EQ(boundTo(0), map->textureID());
    expectWhite(1);
    pool().bindManagedTexture(0, nullptr);
    expectWhite(0);

    // Slots that hold the stand-in get the new one; maps are left alone.
    auto chosen = makeTexel();
    pool().bindManagedTexture(0, map.get());
    EXPECT_EQ(pool().setManagedTextureStandIn(chosen.get()), nullptr);
    EXPECT_EQ(boundTo(1), chosen->textureID());
    EXPECT_EQ(boundTo(0), map->textureID());

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
    expectWhite(0);
}

} // namespace

} // namespace Morvane::Qel::Test
