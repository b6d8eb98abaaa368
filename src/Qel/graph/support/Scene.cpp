#include <Qel/graph/support/Scene.h>

#include <QDebug>
#include <QRect>

#include <algorithm>
#include <iterator>
#include <limits>
#include <utility>

#include <Qel/graph/support/Camera.h>
#include <Qel/graph/support/GraphErrors.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

ShadowMapManager::Light lightFrom(const LightDescription& description)
{
    ShadowMapManager::Light light;
    light.type = description.type == u"spot"    ? ShadowMapManager::LightType::Spot
                 : description.type == u"point" ? ShadowMapManager::LightType::Point
                                                : ShadowMapManager::LightType::Directional;
    light.position = description.position;
    light.direction = description.direction;
    light.color = description.color * description.intensity;
    light.angle = description.angle;
    light.range = description.range;
    light.cascades = description.cascades;
    return light;
}

QPair<QVector3D, QVector3D> boundsOf(const std::vector<std::shared_ptr<GPUModel>>& models)
{
    constexpr float infinity = std::numeric_limits<float>::infinity();
    QVector3D low(infinity, infinity, infinity);
    QVector3D high = -low;
    for (const auto& model : models) {
        if (model->numTriangles() == 0) {
            continue;
        }
        const QPair<QVector3D, QVector3D> box = model->bounds();
        for (int i = 0; i < 3; ++i) {
            low[i] = std::min(low[i], box.first[i]);
            high[i] = std::max(high[i], box.second[i]);
        }
    }
    return low.x() <= high.x() ? qMakePair(low, high) : QPair<QVector3D, QVector3D>();
}

} // namespace

bool loadModels(const GraphDescription& graph, const ImportOptions& options,
                std::vector<std::shared_ptr<GPUModel>>& models, GraphErrors& errors)
{
    std::vector<std::optional<ModelData>> imported(models.size());
    bool good = true;
    for (size_t i = 0; i < models.size(); ++i) {
        if (models[i]) {
            continue;
        }
        const ModelDescription& model = graph.models[i];
        const QString prefix = u"%1: models.%2: "_s.arg(graph.displayName(), model.name);
        QString error;
        imported[i] = importModel(graph.resolvePath(model.file), &error, options);
        if (!imported[i]) {
            errors.addLine(prefix + error);
            good = false;
            continue;
        }
        QStringList warnings;
        {
            GraphErrors collected(prefix.chopped(2), &warnings);
            for (const QString& warning : imported[i]->warnings) {
                collected.addLine(prefix + warning);
            }
        }
        for (const QString& warning : std::as_const(warnings)) {
            qWarning("%s", qUtf8Printable(warning));
        }
    }
    for (size_t i = 0; good && i < models.size(); ++i) {
        if (!models[i]) {
            models[i] = std::make_shared<GPUModel>(*imported[i]);
        }
    }
    return good;
}

Scene::Scene(const GraphDescription& graph, std::vector<std::shared_ptr<GPUModel>> models)
    : m_models(std::move(models))
{
    updateBounds();
    setLights(graph.lights);
}

std::shared_ptr<GPUModel> Scene::replaceModel(size_t index, std::shared_ptr<GPUModel> model)
{
    m_models[index].swap(model);
    updateBounds();
    return model;
}

void Scene::updateBounds()
{
    m_bounds = boundsOf(m_models);
    setFrameValue(FrameValue::SceneBoundsMin, m_bounds.first);
    setFrameValue(FrameValue::SceneBoundsMax, m_bounds.second);
}

void Scene::setLights(const std::vector<LightDescription>& lights)
{
    m_lights.clear();
    std::transform(lights.begin(), lights.end(), std::back_inserter(m_lights), lightFrom);
    QVariantList pointers;
    for (ShadowMapManager::Light& light : m_lights) {
        pointers.append(QVariant::fromValue(&light));
    }
    setFrameValue(FrameValue::Lights, pointers);
}

void Scene::setView(const CameraDescription& camera, const QSize& viewport)
{
    setFrameValue(FrameValue::Viewport, QRect(QPoint(0, 0), viewport));
    setFrameValue(FrameValue::ProjectionMatrix, projectionMatrix(camera, viewport));
    setFrameValue(FrameValue::CameraMatrix, cameraMatrix(camera));
    setFrameValue(FrameValue::NearPlane, camera.nearPlane);
    setFrameValue(FrameValue::FarPlane, camera.farPlane);
}

void Scene::setFrameValue(FrameValue value, const QVariant& content)
{
    m_frameValues[static_cast<size_t>(value)] = content;
    m_isChanged[static_cast<size_t>(value)] = true;
}

} // namespace Morvane::Qel
