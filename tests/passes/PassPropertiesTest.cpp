// What every pass must keep, whatever it does: run for each registered type.

#include <QMatrix4x4>

#include <array>
#include <set>

#include <stdlib.h>

#include <epoxy/gl.h>

#include "support/GLTest.h"
#include "support/Models.h"
#include "support/Pixels.h"
#include <Qel/core/MetaTypes.h>
#include <Qel/gl/DrawBuffers.h>
#include <Qel/gl/Guards.h>
#include <Qel/gl/ResourceScope.h>
#include <Qel/gl/Texture.h>
#include <Qel/gl/TextureManager.h>
#include <Qel/graph/PassRegistry.h>
#include <Qel/model/GPUModel.h>

namespace Morvane::Qel::Test {
namespace {

/// Every GL object of the kinds that passes make.
std::set<std::pair<int, unsigned int>> livingObjects()
{
    constexpr unsigned int highestName = 2000;
    std::set<std::pair<int, unsigned int>> objects;
    for (unsigned int name = 1; name <= highestName; ++name) {
        const std::array<bool, 6> exists{
            glIsTexture(name) == GL_TRUE, glIsFramebuffer(name) == GL_TRUE, glIsProgram(name) == GL_TRUE,
            glIsBuffer(name) == GL_TRUE,  glIsVertexArray(name) == GL_TRUE, glIsRenderbuffer(name) == GL_TRUE,
        };
        for (size_t kind = 0; kind < exists.size(); ++kind) {
            if (exists[kind]) {
                objects.insert({static_cast<int>(kind), name});
            }
        }
    }
    return objects;
}

/// What an application might have left behind.
void makeStateDirty()
{
    for (const GLenum capability : {GL_BLEND, GL_CULL_FACE, GL_DEPTH_TEST, GL_SCISSOR_TEST, GL_STENCIL_TEST,
                                    GL_DEPTH_CLAMP, GL_POLYGON_OFFSET_FILL}) {
        glEnable(capability);
    }
    glScissor(1, 2, 3, 4);
    glDepthMask(GL_FALSE);
    glDepthFunc(GL_GREATER);
    glColorMask(GL_TRUE, GL_FALSE, GL_FALSE, GL_FALSE);
    glStencilMask(0x12);
    glStencilFunc(GL_NEVER, 3, 0x0f);
    glBlendFunc(GL_DST_COLOR, GL_ONE_MINUS_DST_COLOR);
    glBlendEquation(GL_FUNC_REVERSE_SUBTRACT);
    glCullFace(GL_FRONT_AND_BACK);
    glFrontFace(GL_CW);
    glClearColor(0.3F, 0.6F, 0.9F, 0.2F);
    glClearDepth(0.25);
    glClearStencil(7);
    glPixelStorei(GL_UNPACK_ALIGNMENT, 1);
    glViewport(5, 6, 7, 8);
}

/// Drives one pass as a host does, with inputs that suit its ports.
class PassHost
{
public:
    PassHost(OpenGLDeviceContext& context, const QString& type)
        : m_context(context)
        , m_scope(&context)
    {
        const ResourceScope::Activation outside(&context, nullptr);
        m_model = makeCubeModel();
        const PassRegistry& registry = PassRegistry::builtin();
        const PassDescription& description = *registry.description(type);
        PassOptions options;
        for (const OptionDescription& option : description.options) {
            options[option.name] = option.defaultValue;
        }
        if (description.hostDeclaresPorts) {
            options[QStringLiteral("inputs")] =
                QStringList{QStringLiteral("Qel_QRect_Viewport"), QStringLiteral("Qel_QelTexture*_Input")};
            options[QStringLiteral("outputs")] = QStringList{QStringLiteral("Qel_QelTexture*_Output")};
        }
        const ResourceScope::Activation inside(&context, &m_scope);
        QString error;
        m_pass = registry.create(type, options, &error);
        EXPECT_TRUE(m_pass) << qPrintable(error);
    }

    ~PassHost()
    {
        const ResourceScope::Activation inside(&m_context, &m_scope);
        m_pass->teardown(nullptr);
        m_pass.reset();
        delete m_cubemap;
        delete m_headPointers;
        delete m_nodes;
    }

    RenderPass& pass() { return *m_pass; }
    int& width() { return m_width; }
    int& height() { return m_height; }

    /// Sets every input that suits its port.
    void connectInputs()
    {
        m_values.clear();
        for (int i = 0; i < m_pass->numInputs(); ++i) {
            m_values.push_back(value(i));
            m_pass->setInput(i, m_values.back());
        }
    }

    /// Takes an input away, with the reference that its consumer would have dropped.
    void disconnectInput(int index)
    {
        auto* texture = pointerFromVariant<Texture>(m_values[static_cast<size_t>(index)]);
        TextureManager::Instance()->releaseTempTextureRef(texture, 1);
        m_pass->setInput(index, {});
    }

    /// Sets no input or each to a value of another type.
    void setInputs(const QVariant& everywhere)
    {
        for (int i = 0; i < m_pass->numInputs(); ++i) {
            m_pass->setInput(i, everywhere);
        }
    }

    /// A frame with one user of every output; returns the pictures of the outputs that are colour textures.
    std::vector<Pixels> runFrame()
    {
        const ResourceScope::Activation inside(&m_context, &m_scope);
        m_pass->resetNumOutputUsers();
        for (int i = 0; i < m_pass->numOutputs(); ++i) {
            m_pass->setNumOutputUsers(i, 1);
        }
        if (!m_isSetUp) {
            m_pass->setup(nullptr);
            m_isSetUp = true;
        }
        m_context.applyBaseState();
        m_pass->beginFrame(nullptr);
        m_pass->start(nullptr);
        m_pass->endFrame(nullptr);
        std::vector<Pixels> pictures;
        for (int i = 0; i < m_pass->numOutputs(); ++i) {
            auto* texture = qobject_cast<Texture*>(m_pass->output(i).value<QObject*>());
            if (texture && texture->target() == GL_TEXTURE_2D && !texture->size().isEmpty()) {
                pictures.push_back(readTexture(texture));
            }
            TextureManager::Instance()->releaseTempTextureRef(texture, 1);
        }
        TextureManager::Instance()->endFrame();
        return pictures;
    }

private:
    QVariant value(int index)
    {
        const PortName name = PortName::parse(m_pass->inputName(index));
        if (name.type == QLatin1StringView("QRect")) {
            return QRect(0, 0, m_width, m_height);
        }
        if (name.type == QLatin1StringView("QMatrix4x4")) {
            QMatrix4x4 matrix;
            if (name.name.startsWith(QLatin1StringView("Projection"))) {
                matrix.perspective(50.0F, 1.25F, 0.5F, 20.0F);
            } else {
                matrix.lookAt({2.0F, 1.5F, 3.0F}, {0.0F, 0.0F, 0.0F}, {0.0F, 1.0F, 0.0F});
            }
            return matrix;
        }
        if (name.type == QLatin1StringView("QelTexture*")) {
            return QVariant::fromValue<QObject*>(texture(name.name));
        }
        if (name.type == QLatin1StringView("QelGPUModel*")) {
            return QVariant::fromValue(m_model.get());
        }
        if (name.type == QLatin1StringView("QelDrawBuffers*")) {
            return QVariant::fromValue<QObject*>(m_model->drawBuffers(0));
        }
        if (name.type == QLatin1StringView("QString")) {
            return QStringLiteral(QEL_SOURCE_DIR "/examples/scenes/sky/%1.png")
                .arg(name.name.contains(u"Cubemap") ? QStringLiteral("posx") : QStringLiteral("latlong"));
        }
        const QVariant initial = m_pass->defaultValue(index);
        if (initial.isValid()) {
            return initial;
        }
        if (name.type.compare(QLatin1StringView("bool"), Qt::CaseInsensitive) == 0) {
            return name.name != QLatin1StringView("Dirty");
        }
        if (name.type == QLatin1StringView("int")) {
            return 3;
        }
        if (name.type == QLatin1StringView("float")) {
            return name.name == QLatin1StringView("BlurRadius") ? 3.0F : 0.5F;
        }
        if (name.type == QLatin1StringView("QVector2D")) {
            return QVector2D(0.5F, 0.5F);
        }
        if (name.type == QLatin1StringView("QVector3D")) {
            return name.name.endsWith(QLatin1StringView("Min")) ? QVector3D(-1, -1, -1) : QVector3D(1, 1, 1);
        }
        return {};
    }

    /// A pooled texture with the one reference that its consumer drops, or one of the kinds that the pool
    /// does not have.
    Texture* texture(const QString& name)
    {
        TextureManager* pool = TextureManager::Instance();
        if (name == QLatin1StringView("Cubemap")) {
            if (!m_cubemap) {
                m_cubemap = new Texture;
                m_cubemap->setTarget(GL_TEXTURE_CUBE_MAP);
                m_cubemap->setFilter(GL_LINEAR, GL_LINEAR);
                constexpr std::array<unsigned char, 4> orange{255, 128, 0, 255};
                for (unsigned int face = 0; face < 6; ++face) {
                    m_cubemap->setFaceImage(GL_TEXTURE_CUBE_MAP_POSITIVE_X + face, 0, GL_RGBA8, 1, 1, GL_RGBA,
                                            GL_UNSIGNED_BYTE, orange.data());
                }
            }
            return m_cubemap;
        }
        if (name == QLatin1StringView("HeadPointers")) {
            return integerTexture(m_headPointers, GL_R32UI, GL_RED_INTEGER);
        }
        if (name == QLatin1StringView("NodeBuffer")) {
            return integerTexture(m_nodes, GL_RGBA32UI, GL_RGBA_INTEGER);
        }
        if (name == QLatin1StringView("Depth")) {
            Texture* depth = pool->tempTexture(TextureFormat::Depth24Stencil8, m_width, m_height);
            const std::vector<unsigned int> texels(static_cast<size_t>(m_width * m_height), 0xC0000000U);
            const AutoBinder binder(depth);
            glTexSubImage2D(GL_TEXTURE_2D, 0, 0, 0, m_width, m_height, GL_DEPTH_STENCIL, GL_UNSIGNED_INT_24_8,
                            texels.data());
            return depth;
        }
        Texture* colour = pool->tempTexture(TextureFormat::RGBA16F, m_width, m_height);
        const Pixels picture = Pixels::generate(m_width, m_height, [](int x, int y) {
            return QVector4D(static_cast<float>(x % 7) / 7.0F, static_cast<float>(y % 5) / 5.0F,
                             (x / 4 + y / 4) % 2 == 0 ? 0.9F : 0.1F, 1.0F);
        });
        const AutoBinder binder(colour);
        glTexSubImage2D(GL_TEXTURE_2D, 0, 0, 0, m_width, m_height, GL_RGBA, GL_FLOAT, picture.values.data());
        return colour;
    }

    Texture* integerTexture(Texture*& slot, unsigned int internalFormat, unsigned int format) const
    {
        if (!slot) {
            const std::vector<unsigned int> zeroes(static_cast<size_t>(64 * 64 * 4));
            slot = new Texture;
            slot->setFilter(GL_NEAREST, GL_NEAREST);
            slot->setImage2D(0, internalFormat, 64, 64, format, GL_UNSIGNED_INT, zeroes.data());
        }
        return slot;
    }

    OpenGLDeviceContext& m_context;
    std::unique_ptr<GPUModel> m_model;
    Texture* m_cubemap = nullptr;
    Texture* m_headPointers = nullptr;
    Texture* m_nodes = nullptr;
    ResourceScope m_scope;
    std::unique_ptr<RenderPass> m_pass;
    std::vector<QVariant> m_values;
    bool m_isSetUp = false;
    int m_width = 40;
    int m_height = 32;
};

class PassProperties : public GLTest, public testing::WithParamInterface<QString>
{
};

TEST_P(PassProperties, DrawsTheSameWhateverTheStateWasAndReturnsItsTextures)
{
    constexpr int numFrames = 4;
    // The random offsets of the jitter pass repeat with the seed.
    srand48(1);
    std::vector<std::vector<Pixels>> clean;
    std::vector<Pixels> cleanScreens;
    {
        PassHost host(context(), GetParam());
        for (int frame = 0; frame < numFrames; ++frame) {
            host.connectInputs();
            clean.push_back(host.runFrame());
            cleanScreens.push_back(readScreen(host.width(), host.height()));
            EXPECT_EQ(TextureManager::Instance()->numReferences(), 0) << "after frame " << frame;
        }
    }
    srand48(1);
    PassHost host(context(), GetParam());
    for (size_t frame = 0; frame < numFrames; ++frame) {
        host.connectInputs();
        makeStateDirty();
        context().makeCurrent();
        const std::vector<Pixels> dirty = host.runFrame();
        ASSERT_EQ(dirty.size(), clean[frame].size());
        for (size_t i = 0; i < dirty.size(); ++i) {
            EXPECT_TRUE(equal(dirty[i], clean[frame][i])) << "output " << i << " of frame " << frame;
        }
        EXPECT_TRUE(equal(readScreen(host.width(), host.height()), cleanScreens[frame]));
    }
}

TEST_P(PassProperties, SurvivesMissingAndWrongInputs)
{
    PassHost host(context(), GetParam());
    QObject notATexture;
    for (const QVariant& everywhere :
         {QVariant(), QVariant(QStringLiteral("no such thing")), QVariant(-3), QVariant(QRect(0, 0, 8, 8)),
          QVariant::fromValue<QObject*>(&notATexture), QVariant::fromValue<QObject*>(nullptr)}) {
        host.setInputs(everywhere);
        host.runFrame();
        host.runFrame();
        EXPECT_EQ(TextureManager::Instance()->numReferences(), 0);
    }
    // One input missing at a time.
    for (int missing = 0; missing < host.pass().numInputs(); ++missing) {
        host.connectInputs();
        host.disconnectInput(missing);
        host.runFrame();
        EXPECT_EQ(TextureManager::Instance()->numReferences(), 0) << "without input " << missing;
    }
    if (GetParam() == QLatin1StringView("CubemapLoaderRenderPass")) {
        // The texel that stands in for one face does not fit the other five, which GL is left to report.
        expectMessage(QStringLiteral("GL_INVALID_OPERATION in glGenerateMipmap"));
        expectMessage(QStringLiteral("CubemapLoaderRenderPass:185\\] OpenGL error GL_INVALID_OPERATION"));
    }
}

TEST_P(PassProperties, FollowsAHundredSizesAndLeavesNoObject)
{
    {
        // What the context and the pool make once for all passes.
        PassHost warmUp(context(), GetParam());
        warmUp.connectInputs();
        warmUp.runFrame();
    }
    TextureManager::Instance()->releaseFreeTextures();
    const auto before = livingObjects();
    {
        PassHost host(context(), GetParam());
        for (int i = 0; i < 100; ++i) {
            host.width() = 1 + (i * 37) % 61;
            host.height() = 1 + (i * 23) % 53;
            host.connectInputs();
            for (const Pixels& picture : host.runFrame()) {
                EXPECT_GT(picture.width, 0);
            }
            EXPECT_EQ(TextureManager::Instance()->numReferences(), 0);
        }
        EXPECT_LT(TextureManager::Instance()->numTextures(), 40) << "the pool keeps sizes that nobody uses";
    }
    TextureManager::Instance()->releaseFreeTextures();
    EXPECT_EQ(livingObjects(), before);
}

INSTANTIATE_TEST_SUITE_P(Every, PassProperties, testing::ValuesIn(PassRegistry::builtin().types()),
                         [](const auto& instance) { return instance.param.toStdString(); });

} // namespace
} // namespace Morvane::Qel::Test
