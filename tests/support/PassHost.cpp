#include "support/PassHost.h"

#include <QMatrix4x4>
#include <QRect>
#include <QVector2D>

#include <array>

#include <gtest/gtest.h>

#include <epoxy/gl.h>

#include "support/Models.h"
#include <Qel/core/MetaTypes.h>
#include <Qel/gl/DrawBuffers.h>
#include <Qel/gl/OpenGLDeviceContext.h>
#include <Qel/gl/Texture.h>
#include <Qel/gl/TextureManager.h>
#include <Qel/graph/PassRegistry.h>

#include "support/Paths.h"

using namespace Qt::StringLiterals;

namespace Morvane::Qel::Test {

namespace {

/// Lists of three fragments each, the middle one nearest, of the primitives of a cube.
Lists makeLists()
{
    // At least the largest viewport of the property tests.
    constexpr int side = 64;
    Lists lists{side, side, {}};
    for (unsigned int pixel = 0; pixel < side * side; ++pixel) {
        lists.pixels.push_back(
            {{1 + pixel % 12, 0.9F, 0}, {1 + (pixel + 5) % 12, 0.3F, 0}, {1 + (pixel + 7) % 12, 0.6F, 0}});
    }
    return lists;
}

} // namespace

std::vector<std::string> builtinTypes()
{
    std::vector<std::string> types;
    for (const QString& type : PassRegistry::builtin().types()) {
        types.push_back(type.toStdString());
    }
    return types;
}

PassHost::PassHost(OpenGLDeviceContext& context, const QString& type)
    : m_context(context)
    , m_model(makeCubeModel())
    , m_lists(makeListTextures(makeLists()))
    , m_scope(&context)
{
    m_lights[1].type = ShadowMapManager::LightType::Spot;
    m_lights[2].type = ShadowMapManager::LightType::Point;
    for (ShadowMapManager::Light& light : m_lights) {
        light.position = {0.0F, 1.5F, 0.0F};
    }
    const PassRegistry& registry = PassRegistry::builtin();
    const PassDescription& description = *registry.description(type);
    PassOptions options;
    for (const OptionDescription& option : description.options) {
        options[option.name] = option.defaultValue;
        if (!option.members.empty()) {
            // Lists get one element, so that none is empty.
            QVariantMap element;
            for (const OptionDescription& member : option.members) {
                element[member.name] = member.defaultValue;
            }
            options[option.name] = QVariantList{element};
        }
    }
    if (description.hostDeclaresPorts) {
        options[u"inputs"_s] = QStringList{u"Qel_QRect_Viewport"_s, u"Qel_QelTexture*_Input"_s};
        options[u"outputs"_s] = QStringList{u"Qel_QelTexture*_Output"_s};
    }
    const ResourceScope::Activation inside(&context, &m_scope);
    QString error;
    m_pass = registry.create(type, options, &error);
    EXPECT_TRUE(m_pass) << qPrintable(error);
    m_runner = std::make_unique<PassRunner>(*m_pass);
}

PassHost::~PassHost()
{
    m_runner.reset();
    m_pass.reset();
}

void PassHost::connectInputs()
{
    m_values.clear();
    for (int i = 0; i < m_pass->numInputs(); ++i) {
        m_values.push_back(value(i));
        m_pass->setInput(i, m_values.back());
    }
}

void PassHost::disconnectInput(int index)
{
    auto* texture = pointerFromVariant<Texture>(m_values[static_cast<size_t>(index)]);
    TextureManager::Instance()->releaseTempTextureRef(texture, 1);
    m_pass->setInput(index, {});
}

void PassHost::setInputs(const QVariant& everywhere)
{
    for (int i = 0; i < m_pass->numInputs(); ++i) {
        m_pass->setInput(i, everywhere);
    }
}

void PassHost::runFrame(const std::function<void(RenderPass&)>& callStart)
{
    const ResourceScope::Activation inside(&m_context, &m_scope);
    m_runner->runAround(callStart);
    m_runner->releaseOutputs();
    TextureManager::Instance()->endFrame();
}

std::vector<Pixels> PassHost::runFrame()
{
    std::vector<Pixels> images;
    runFrame([&](RenderPass& pass) {
        pass.start(nullptr);
        images = readOutputs();
    });
    return images;
}

std::vector<Pixels> PassHost::readOutputs() const
{
    std::vector<Pixels> images;
    Texture* headPointers = outputTexture(QLatin1StringView("HeadPointers"));
    Texture* nodes = outputTexture(QLatin1StringView("NodeBuffer"));
    for (int i = 0; i < m_pass->numOutputs(); ++i) {
        Texture* texture = m_runner->texture(i);
        if (!texture || texture->target() != GL_TEXTURE_2D || texture->size().isEmpty() || texture == nodes) {
            continue;
        }
        if (texture == headPointers) {
            if (const int width = nodes ? m_pass->output(2).toInt() : 0; width > 0) {
                images.push_back(readLists(headPointers, nodes, width).sorted().layers());
            }
        } else {
            images.push_back(readTexture(texture));
        }
    }
    return images;
}

/// The texture on the output with this last part of a name, null where there is none.
Texture* PassHost::outputTexture(QLatin1StringView name) const
{
    for (int i = 0; i < m_pass->numOutputs(); ++i) {
        if (PortName::parse(m_pass->outputName(i)).name == name) {
            return m_runner->texture(i);
        }
    }
    return nullptr;
}

QVariant PassHost::value(int input)
{
    const PortName port = PortName::parse(m_pass->inputName(input));
    if (port.type == QLatin1StringView("QRect")) {
        return QRect(QPoint(0, 0), m_size);
    }
    if (port.type == QLatin1StringView("QMatrix4x4")) {
        QMatrix4x4 matrix;
        if (port.name.startsWith(QLatin1StringView("Projection"))) {
            matrix.perspective(50.0F, 1.25F, 0.5F, 20.0F);
        } else {
            matrix.lookAt({2.0F, 1.5F, 3.0F}, {0.0F, 0.0F, 0.0F}, {0.0F, 1.0F, 0.0F});
        }
        return matrix;
    }
    if (port.type == QLatin1StringView("QelTexture*")) {
        return QVariant::fromValue<QObject*>(texture(port.name));
    }
    if (port.type == QLatin1StringView("QelGPUModel*")) {
        return QVariant::fromValue(m_model.get());
    }
    if (port.name == QLatin1StringView("Lights")) {
        QVariantList lights;
        for (ShadowMapManager::Light& light : m_lights) {
            lights.append(QVariant::fromValue(&light));
        }
        return lights;
    }
    if (port.type == QLatin1StringView("QelDrawBuffers*")) {
        return QVariant::fromValue<QObject*>(m_model->drawBuffers(0));
    }
    if (port.type == QLatin1StringView("QString")) {
        return sourcePath(u"examples/scenes/sky/%1.png"_s)
            .arg(port.name.contains(u"Cubemap") ? u"posx"_s : u"latlong"_s);
    }
    if (QVariant initial = m_pass->defaultValue(input); initial.isValid()) {
        return initial;
    }
    if (port.type.compare(QLatin1StringView("bool"), Qt::CaseInsensitive) == 0) {
        return port.name != QLatin1StringView("Dirty");
    }
    if (port.type == QLatin1StringView("int")) {
        return port.name == QLatin1StringView("NodeBufferWidth") ? m_lists.nodeBufferWidth : 3;
    }
    if (port.type == QLatin1StringView("float")) {
        return port.name == QLatin1StringView("BlurRadius") ? 3.0F : 0.5F;
    }
    if (port.type == QLatin1StringView("QVector2D")) {
        return QVector2D(0.5F, 0.5F);
    }
    if (port.type == QLatin1StringView("QVector3D")) {
        return port.name.endsWith(QLatin1StringView("Min")) ? QVector3D(-1, -1, -1) : QVector3D(1, 1, 1);
    }
    return {};
}

Texture* PassHost::texture(const QString& name)
{
    const int width = m_size.width();
    const int height = m_size.height();
    if (name == QLatin1StringView("Cubemap")) {
        if (!m_cubemap) {
            m_cubemap = std::make_unique<Texture>();
            m_cubemap->setTarget(GL_TEXTURE_CUBE_MAP);
            m_cubemap->setFilter(GL_LINEAR, GL_LINEAR);
            constexpr std::array<unsigned char, 4> orange{255, 128, 0, 255};
            for (unsigned int face = 0; face < 6; ++face) {
                m_cubemap->setFaceImage(GL_TEXTURE_CUBE_MAP_POSITIVE_X + face, 0, GL_RGBA8, 1, 1, GL_RGBA,
                                        GL_UNSIGNED_BYTE, orange.data());
            }
        }
        return m_cubemap.get();
    }
    if (name == QLatin1StringView("HeadPointers")) {
        return m_lists.headPointers.get();
    }
    if (name == QLatin1StringView("NodeBuffer")) {
        return m_lists.nodes.get();
    }
    if (name == QLatin1StringView("Depth")) {
        return makePooledTexture(Pixels::filled(width, height, {0.75F, 0.0F, 0.0F, 0.0F}),
                                 TextureFormat::Depth24Stencil8);
    }
    return makePooledTexture(Pixels::generate(width, height,
                                              [](int x, int y) {
                                                  return QVector4D(static_cast<float>(x % 7) / 7.0F,
                                                                   static_cast<float>(y % 5) / 5.0F,
                                                                   (x / 4 + y / 4) % 2 == 0 ? 0.9F : 0.1F,
                                                                   1.0F);
                                              }),
                             TextureFormat::RGBA16F);
}

} // namespace Morvane::Qel::Test
