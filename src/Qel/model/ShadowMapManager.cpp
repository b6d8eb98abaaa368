#include <Qel/model/ShadowMapManager.h>

#include <Qel/core/MetaTypes.h>
#include <Qel/model/ProjectorFitter.h>
#include <Qel/model/UsableNumbers.h>

namespace Morvane::Qel {

namespace {

using Light = ShadowMapManager::Light;

/// Returns the light that a variant points to; null if it is no usable light.
const Light* lightOf(const QVariant& variant)
{
    if (variant.userType() != pointerMetaTypeId<Light>()) {
        return nullptr;
    }
    const Light* light = *static_cast<Light* const*>(variant.constData());
    return light && isUsable(light->position) && isUsable(light->direction) && isUsable(light->color) &&
                   isUsable(light->angle) && isUsable(light->range)
               ? light
               : nullptr;
}

/// Assigns or appends an element; returns whether the vector changed.
template<class Element>
bool store(std::vector<Element>& elements, size_t index, const Element& element)
{
    if (index == elements.size()) {
        elements.push_back(element);
        return true;
    }
    if (elements[index] == element) {
        return false;
    }
    elements[index] = element;
    return true;
}

/// Drops the elements from `size` on; returns whether there were any.
template<class Element>
bool cutTo(std::vector<Element>& elements, size_t size)
{
    const bool isLonger = elements.size() > size;
    elements.erase(elements.begin() + static_cast<ptrdiff_t>(size), elements.end());
    return isLonger;
}

} // namespace

bool ShadowMapManager::processLights(const QVariant& lights, RenderData& data, const QMatrix4x4* projection,
                                     const QMatrix4x4* camera, const QPair<QVector3D, QVector3D>* sceneBounds)
{
    const ProjectorFitter fitter(projection, camera, sceneBounds);
    const QVariantList list = lights.toList();
    bool isChanged = false;
    size_t numLights = 0;
    int numLayers = 0;
    for (const QVariant& variant : list) {
        const Light* given = lightOf(variant);
        if (!given) {
            continue;
        }
        RenderData::Light light{fitter.resolved(*given), fitter.numProjectors(*given), numLayers};
        if (numLayers + light.numProjectors > maxLayers) {
            light.numProjectors = 0;
        }
        isChanged |= store(data.m_lights, numLights, light);
        ++numLights;
        for (int i = 0; i < light.numProjectors; ++i) {
            const Projector projector = fitter.projector(light.source, i);
            isChanged |= store(data.m_layers, static_cast<size_t>(numLayers),
                               {projector.matrix, projector.cascadeEnd});
            ++numLayers;
        }
    }
    isChanged |= cutTo(data.m_lights, numLights);
    isChanged |= cutTo(data.m_layers, static_cast<size_t>(numLayers));
    return isChanged;
}

ShadowMapRenderData::ShadowMapRenderData() = default;

ShadowMapRenderData::~ShadowMapRenderData() = default;

} // namespace Morvane::Qel
