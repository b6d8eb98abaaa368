// Properties that hold for every pass, run for each registered type.

#include <array>
#include <map>
#include <random>
#include <string>
#include <tuple>

#include <stdlib.h>

#include <QColor>
#include <QVector3D>

#include <epoxy/gl.h>

#include "support/GLState.h"
#include "support/GLTest.h"
#include "support/PassHost.h"
#include "support/Pixels.h"
#include <Qel/core/MetaTypes.h>
#include <Qel/gl/GLErrors.h>
#include <Qel/gl/TextureManager.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel::Test {
namespace {

/// The number of pooled textures that a pass holds from frame to frame.
int numKeptTextures(const std::string& type)
{
    return type == "TemporalAARenderPass" ? 1 : 0;
}

class PassProperties : public GLTest, public testing::WithParamInterface<std::string>
{
};

TEST_P(PassProperties, DrawsTheSameFromAnyStateAndKeepsReferencesBalancedForAnyNumberOfUsers)
{
    std::array<std::vector<std::vector<Pixels>>, 2> images;
    for (const size_t isDirty : {0, 1}) {
        // Makes the random offsets of the jitter pass repeat.
        srand48(1);
        PassHost host(GetParam());
        for (const int users : {1, 2, 0, 1}) {
            host.setNumUsers(users);
            host.connectInputs();
            if (isDirty != 0) {
                leaveForeignState();
                context().makeCurrent();
            }
            images[isDirty].push_back(host.runFrame());
            images[isDirty].back().push_back(readScreen(host.size().width(), host.size().height()));
            // Every user has released its reference: one too many is reported as critical, one too few stays.
            EXPECT_EQ(TextureManager::Instance()->numReferences(), numKeptTextures(GetParam()));
        }
    }
    for (size_t frame = 0; frame < images[0].size(); ++frame) {
        ASSERT_EQ(images[1][frame].size(), images[0][frame].size());
        for (size_t i = 0; i < images[0][frame].size(); ++i) {
            EXPECT_TRUE(equal(images[1][frame][i], images[0][frame][i]))
                << "image " << i << " of frame " << frame;
        }
    }
}

TEST_P(PassProperties, SurvivesMissingAndRandomInputs)
{
    const unsigned int seed = std::random_device()();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    PassHost host(GetParam());
    QObject notATexture;
    const QVariantList values{{},
                              u"no such thing"_s,
                              -3,
                              0.25F,
                              40,
                              true,
                              QRect(-5, 3, 70, 9),
                              QColor(Qt::red),
                              {},
                              QVector3D(1, 2, 3),
                              QVariant::fromValue<QObject*>(&notATexture),
                              QVariant::fromValue<QObject*>(nullptr)};
    for (int frame = 0; frame < 300; ++frame) {
        host.size() = QSize(1 + static_cast<int>(random() % 64), 1 + static_cast<int>(random() % 64));
        host.connectInputs();
        Texture texture;
        texture.setImage2D(0, std::array{GL_RGBA8, GL_R8, GL_RGBA32F, GL_SRGB8_ALPHA8}[random() % 4],
                           1 + static_cast<int>(random() % 64), 1 + static_cast<int>(random() % 64), GL_RGBA,
                           GL_UNSIGNED_BYTE, nullptr);
        Texture withoutImage;
        const auto integers = makeIntegerTexture(2, 3, GL_RGBA32UI, std::vector(4UL * 2 * 3, 7U));
        Texture cube;
        cube.setTarget(GL_TEXTURE_CUBE_MAP);
        const auto numFaces = static_cast<unsigned int>(random() % 7);
        for (unsigned int face = 0; face < numFaces; ++face) {
            cube.setFaceImage(GL_TEXTURE_CUBE_MAP_POSITIVE_X + face, 0, GL_RGBA8, 4, 4, GL_RGBA,
                              GL_UNSIGNED_BYTE, nullptr);
        }
        const std::array textures{&texture, &texture, &withoutImage, integers.get(), &cube};
        for (int i = 0; i < host.numInputs(); ++i) {
            // A third of the inputs keep their suitable value.
            const auto choice = static_cast<qsizetype>(random() % 24);
            if (choice < values.size()) {
                host.replaceInput(i, values[choice]);
            } else if (choice < 16) {
                host.replaceInput(i, Input(textures[random() % textures.size()]).value());
            }
        }
        // Some publish an input, which may be one that cannot be read.
        host.runFrame([](RenderPass& pass) { pass.start(nullptr); });
        EXPECT_EQ(TextureManager::Instance()->numReferences(), numKeptTextures(GetParam())) << frame;
        host.setInputs({});
    }
    checkGLError(__FILE__, __LINE__);
    // What passes may report about such inputs. GL reports colour textures as depth, faces of different
    // sizes, and frames that cannot be drawn into or copied to the screen.
    const std::map<std::string, QString> documented{
        {"CubemapLoaderRenderPass",
         u"must be square and of one size|GL_INVALID_OPERATION( in glGenerateMipmap|$)"_s},
        {"ScalableAmbientObscuranceRenderPass", u"Unhandled depth format|GL_INVALID_FRAMEBUFFER_OPERATION"_s},
        {"ShadowMapRenderPass", u"Input Geometry is (NULL|not a 'GPUModel\\*')"_s},
        {"SkyboxRenderPass", u"GL_INVALID_FRAMEBUFFER_OPERATION"_s},
        {"TextureToScreenRenderPass", u"GL_INVALID_(FRAMEBUFFER_)?OPERATION"_s},
        {"VisibilityDeferredRenderPass", u"the lists are ignored"_s},
        {"VisibilitySortRenderPass", u"the lists are ignored"_s}};
    if (const auto messages = documented.find(GetParam()); messages != documented.end()) {
        takeMessages(messages->second);
    }
}

TEST_P(PassProperties, KeepsTheFiltersAndWrapModesOfItsInputs)
{
    const auto parametersOf = [](const std::vector<Texture*>& textures) {
        std::vector<int> parameters;
        for (Texture* texture : textures) {
            for (const GLenum name : {GL_TEXTURE_MIN_FILTER, GL_TEXTURE_MAG_FILTER, GL_TEXTURE_WRAP_S,
                                      GL_TEXTURE_WRAP_T, GL_TEXTURE_WRAP_R, GL_TEXTURE_MAX_LEVEL}) {
                parameters.push_back(texture->parameter(name));
            }
        }
        return parameters;
    };
    PassHost host(GetParam());
    for (const auto& [filter, wrap, isInteger] :
         {std::tuple(GL_NEAREST, GL_REPEAT, false), std::tuple(GL_LINEAR, GL_CLAMP_TO_EDGE, false),
          std::tuple(GL_LINEAR, GL_MIRRORED_REPEAT, true)}) {
        std::vector<std::unique_ptr<Texture>> integers;
        std::vector<Texture*> textures;
        const std::vector<QVariant>& values = host.connectInputs();
        for (int i = 0; i < host.numInputs(); ++i) {
            auto* texture = pointerFromVariant<Texture>(values[static_cast<size_t>(i)]);
            if (isInteger && texture && texture->internalFormat() == GL_RGBA16F) {
                const std::vector<unsigned int> texels(4UL * 40 * 32, 1);
                texture = integers.emplace_back(makeIntegerTexture(40, 32, GL_RGBA32UI, texels)).get();
                host.replaceInput(i, Input(texture).value());
            }
            if (texture) {
                texture->setFilter(filter, GL_NEAREST);
                texture->setWrap(wrap);
                textures.push_back(texture);
            }
        }
        const std::vector<int> before = parametersOf(textures);
        host.runFrame([&](RenderPass& pass) {
            pass.start(nullptr);
            EXPECT_EQ(parametersOf(textures), before);
        });
    }
}

TEST_P(PassProperties, FollowsAHundredSizesAndLeavesNoObject)
{
    {
        // Creates what the context and the pool share between passes.
        PassHost warmUp(GetParam());
        warmUp.connectInputs();
        warmUp.runFrame();
    }
    TextureManager::Instance()->releaseFreeTextures();
    const auto before = liveObjects();
    {
        PassHost host(GetParam());
        for (int i = 0; i < 100; ++i) {
            host.size() = QSize(1 + (i * 37) % 61, 1 + (i * 23) % 53);
            host.connectInputs();
            for (const Pixels& image : host.runFrame()) {
                EXPECT_GT(image.width, 0);
            }
            EXPECT_EQ(TextureManager::Instance()->numReferences(), numKeptTextures(GetParam()));
        }
        EXPECT_LT(TextureManager::Instance()->numTextures(), 60) << "the pool keeps unused sizes";
    }
    TextureManager::Instance()->releaseFreeTextures();
    EXPECT_EQ(liveObjects(), before);
}

INSTANTIATE_TEST_SUITE_P(Every, PassProperties, testing::ValuesIn(builtinTypes()),
                         [](const auto& instance) { return instance.param; });

} // namespace
} // namespace Morvane::Qel::Test
