#pragma once

#include <QString>
#include <QVariant>

#include <array>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "support/Lists.h"
#include "support/Pixels.h"
#include <Qel/core/RenderPass.h>
#include <Qel/gl/ResourceScope.h>
#include <Qel/model/GPUModel.h>
#include <Qel/model/ShadowMapManager.h>

namespace Morvane::Qel {
class OpenGLDeviceContext;
}

namespace Morvane::Qel::Test {

/// The types of passes of this library.
std::vector<std::string> builtinTypes();

/// Drives one pass of a registered type as a host does, with inputs that suit its ports and one user of every
/// output.
class PassHost
{
public:
    PassHost(OpenGLDeviceContext& context, const QString& type);
    ~PassHost();
    PassHost(const PassHost&) = delete;
    PassHost& operator=(const PassHost&) = delete;

    RenderPass& pass() { return *m_pass; }
    QSize& size() { return m_size; }

    /// Sets every input to a value that suits its port, textures with the one reference that the pass drops.
    void connectInputs();
    /// Takes an input away, with the reference that the pass would have dropped.
    void disconnectInput(int index);
    /// Sets all inputs to the same value.
    void setInputs(const QVariant& everywhere);

    /// A frame from the base state; returns the pictures of the outputs that are 2D textures. Lists of
    /// fragments become one picture, in which the order of the nodes, which is left to chance, does not show.
    std::vector<Pixels> runFrame();
    /// The same with something around start, which it must call; no picture is read.
    void runFrame(const std::function<void(RenderPass&)>& callStart);

private:
    QVariant value(int input);
    Texture* texture(const QString& name);
    std::vector<Texture*> outputTextures() const;
    Texture* outputTexture(QLatin1StringView name) const;
    void readOutputs(std::vector<Pixels>* pictures) const;
    void releaseOutputs();

    OpenGLDeviceContext& m_context;
    std::unique_ptr<GPUModel> m_model;
    /// One of each type.
    std::array<ShadowMapManager::Light, 3> m_lights;
    std::unique_ptr<Texture> m_cubemap;
    ListTextures m_lists;
    ResourceScope m_scope;
    std::unique_ptr<RenderPass> m_pass;
    std::vector<QVariant> m_values;
    bool m_isSetUp = false;
    QSize m_size{40, 32};
};

} // namespace Morvane::Qel::Test
