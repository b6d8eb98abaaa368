#pragma once

#include <QVariant>

#include <array>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "support/Lists.h"
#include "support/Models.h"
#include "support/Passes.h"
#include <Qel/gl/ResourceScope.h>
#include <Qel/model/GPUModel.h>
#include <Qel/model/ShadowMapManager.h>

namespace Morvane::Qel::Test {

/// The types of all registered passes.
std::vector<std::string> builtinTypes();

/// Drives a pass of a registered type with inputs that suit its ports.
class PassHost
{
public:
    explicit PassHost(const std::string& type);

    int numInputs() const { return static_cast<int>(m_pass->numInputs()); }
    QSize& size() { return m_size; }

    /// Sets every input to a value that suits its port, and returns the values; pooled textures carry the
    /// reference that the pass releases.
    const std::vector<QVariant>& connectInputs();
    /// Sets an input; releases the reference that the pass would have released of the value before.
    void replaceInput(int index, const QVariant& value = {});
    /// Sets all inputs to the same value.
    void setInputs(const QVariant& everywhere);

    /// Sets how many consumers each output has; 1 at first. They release their references after every frame.
    void setNumUsers(int users) { m_runner->setNumUsers(users); }

    /// Runs a frame; returns the images on the outputs that are 2D textures. Lists of fragments become one
    /// image that does not depend on the order of the nodes, which is left to chance.
    std::vector<Pixels> runFrame();
    /// Runs a frame in which `callStart` calls start.
    void runFrame(const std::function<void(RenderPass&)>& callStart);

private:
    QVariantList lights();
    void makeShadows();
    QVariant value(const QString& portName, const QVariant& defaultValue);
    Texture* texture(const QString& name);
    std::vector<Pixels> readOutputs() const;

    std::unique_ptr<GPUModel> m_model = makeCubeModel();
    /// One light of each type.
    std::array<ShadowMapManager::Light, 3> m_lights;
    ShadowMapManager::RenderData m_shadows;
    std::unique_ptr<Texture> m_shadowMaps;
    std::unique_ptr<Texture> m_cubemap;
    ListTextures m_lists;
    ResourceScope m_scope;
    std::unique_ptr<RenderPass> m_pass;
    std::unique_ptr<PassRunner> m_runner;
    std::vector<QVariant> m_values;
    QSize m_size{40, 32};
};

} // namespace Morvane::Qel::Test
