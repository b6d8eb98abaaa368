#include "support/PassHost.h"

#include <QHash>
#include <QMatrix4x4>
#include <QRect>
#include <QVector2D>

#include <algorithm>

#include <gtest/gtest.h>

#include <epoxy/gl.h>

#include "support/Paths.h"
#include <Qel/core/MetaTypes.h>
#include <Qel/gl/OpenGLDeviceContext.h>
#include <Qel/graph/PassRegistry.h>

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

PassHost::PassHost(const std::string& typeName)
    : m_lists(makeListTextures(makeLists()))
{
    m_lights[1].type = ShadowMapManager::LightType::Spot;
    m_lights[2].type = ShadowMapManager::LightType::Point;
    for (ShadowMapManager::Light& light : m_lights) {
        light.position = {0.0F, 1.5F, 0.0F};
    }
    makeShadows();
    const QString type = QString::fromStdString(typeName);
    const PassRegistry& registry = PassRegistry::builtin();
    const PassDescription& description = *registry.description(type);
    PassOptions options;
    for (const OptionDescription& option : description.options) {
        if (!option.members.empty()) {
            // Lists get one element, so that none is empty.
            options[option.name] = QVariantList{QVariantMap()};
        }
    }
    if (description.hostDeclaresPorts) {
        options[u"inputs"_s] = QStringList{u"Qel_QRect_Viewport"_s, u"Qel_QelTexture*_Input"_s};
        options[u"outputs"_s] = QStringList{u"Qel_QelTexture*_Output"_s};
    }
    const ResourceScope::Activation inside(&m_scope);
    QString error;
    m_pass = registry.create(type, options, &error);
    EXPECT_TRUE(m_pass) << qPrintable(error);
    m_runner = std::make_unique<PassRunner>(*m_pass);
}

const std::vector<QVariant>& PassHost::connectInputs()
{
    m_values.clear();
    for (int i = 0; i < numInputs(); ++i) {
        m_values.push_back(value(m_pass->inputName(i), m_pass->defaultValue(i)));
        m_pass->setInput(i, m_values.back());
    }
    return m_values;
}

void PassHost::replaceInput(int index, const QVariant& value)
{
    QVariant& current = m_values[static_cast<size_t>(index)];
    TextureManager::Instance()->releaseTempTextureRef(pointerFromVariant<Texture>(current), 1);
    current = value;
    m_pass->setInput(index, value);
}

void PassHost::setInputs(const QVariant& everywhere)
{
    for (int i = 0; i < numInputs(); ++i) {
        m_pass->setInput(i, everywhere);
    }
}

void PassHost::runFrame(const std::function<void(RenderPass&)>& callStart)
{
    const ResourceScope::Activation inside(&m_scope);
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
    for (int i = 0; i < m_pass->numOutputs(); ++i) {
        Texture* texture = m_runner->texture(i);
        if (!texture || texture->target() != GL_TEXTURE_2D || texture->size().isEmpty()) {
            continue;
        }
        if (m_pass->outputName(i).endsWith(u"_HeadPointers")) {
            // The node buffer and its width follow.
            if (Texture* nodes = m_runner->texture(i + 1); nodes && m_pass->output(i + 2).toInt() > 0) {
                images.push_back(readLists(texture, nodes, m_pass->output(i + 2).toInt()).sorted().layers());
            }
        } else if (!m_pass->outputName(i).endsWith(u"_NodeBuffer")) {
            images.push_back(readTexture(texture));
        }
    }
    return images;
}

QVariantList PassHost::lights()
{
    QVariantList lights;
    for (ShadowMapManager::Light& light : m_lights) {
        lights.append(QVariant::fromValue(&light));
    }
    return lights;
}

/// Makes maps in which everything at a depth above one half is in shadow.
void PassHost::makeShadows()
{
    ShadowMapManager::processLights(lights(), m_shadows, nullptr, nullptr, nullptr);
    std::vector<float> moments;
    for (int layer = 0; layer < m_shadows.numLayers(); ++layer) {
        moments.insert(moments.end(), {0.5F, 0.25F});
    }
    m_shadowMaps = std::make_unique<Texture>();
    m_shadowMaps->setTarget(GL_TEXTURE_2D_ARRAY);
    m_shadowMaps->setImage3D(GL_RG32F, 1, 1, m_shadows.numLayers(), GL_RG, GL_FLOAT, moments.data());
    m_shadows.setProjectionTexture(m_shadowMaps.get());
}

QVariant PassHost::value(const QString& portName, const QVariant& defaultValue)
{
    const auto [type, name] = PortName::parse(portName);
    if (type == u"QelTexture*") {
        return Input(texture(name)).value();
    }
    QMatrix4x4 projection;
    projection.perspective(50.0F, 1.25F, 0.5F, 20.0F);
    QMatrix4x4 camera;
    camera.lookAt({2.0F, 1.5F, 3.0F}, {0.0F, 0.0F, 0.0F}, {0.0F, 1.0F, 0.0F});
    const QString image = sourcePath(u"examples/scenes/sky/%1.png"_s);
    const QHash<QString, QVariant> always{
        {u"QRect"_s, QRect(QPoint(0, 0), m_size)},
        {u"QMatrix4x4"_s, name.startsWith(u"Projection") ? projection : camera},
        {u"QelGPUModel*"_s, QVariant::fromValue(m_model.get())},
        {u"QelDrawBuffers*"_s, Input(m_model->drawBuffers(0)).value()},
        {u"QList_QelShadowMapManagerLight*"_s, lights()},
        {u"QVariant"_s, QVariant::fromValue<QObject*>(&m_shadows)},
        {u"QString"_s, image.arg(name.contains(u"Cubemap") ? u"posx"_s : u"latlong"_s)},
    };
    const float corner = name.endsWith(u"Min") ? -1.0F : 1.0F;
    const QHash<QString, QVariant> withoutDefault{
        {u"bool"_s, name != u"Dirty"},
        {u"Bool"_s, true},
        {u"int"_s, name == u"NodeBufferWidth" ? m_lists.nodeBufferWidth : 3},
        {u"float"_s, name == u"BlurRadius" ? 3.0F : 0.5F},
        {u"QVector2D"_s, QVector2D(0.5F, 0.5F)},
        {u"QVector3D"_s, QVector3D(corner, corner, corner)},
    };
    return always.value(type, defaultValue.isValid() ? defaultValue : withoutDefault.value(type));
}

Texture* PassHost::texture(const QString& name)
{
    if (name == u"Cubemap") {
        m_cubemap = std::make_unique<Texture>();
        m_cubemap->setTarget(GL_TEXTURE_CUBE_MAP);
        m_cubemap->setFilter(GL_LINEAR, GL_LINEAR);
        constexpr std::array<unsigned char, 4> orange{255, 128, 0, 255};
        for (unsigned int face = 0; face < 6; ++face) {
            m_cubemap->setFaceImage(GL_TEXTURE_CUBE_MAP_POSITIVE_X + face, 0, GL_RGBA8, 1, 1, GL_RGBA,
                                    GL_UNSIGNED_BYTE, orange.data());
        }
        return m_cubemap.get();
    }
    if (name == u"HeadPointers") {
        return m_lists.headPointers.get();
    }
    if (name == u"NodeBuffer") {
        return m_lists.nodes.get();
    }
    const auto texel = [](int x, int y) {
        return QVector4D(static_cast<float>(x % 7) / 7.0F, static_cast<float>(y % 5) / 5.0F,
                         (x / 4 + y / 4) % 2 == 0 ? 0.9F : 0.1F, 1.0F);
    };
    return name == u"Depth"
               ? makePooledTexture(Pixels::filled(m_size.width(), m_size.height(), {0.75F, 0, 0, 0}),
                                   TextureFormat::Depth24Stencil8)
               : makePooledTexture(Pixels::generate(m_size.width(), m_size.height(), texel),
                                   TextureFormat::RGBA16F);
}

} // namespace Morvane::Qel::Test
