#include <Qel/graph/support/Scene.h>

#include <QDebug>
#include <QRect>

#include <algorithm>
#include <iterator>
#include <limits>

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

QPair<QVector3D, QVector3D> boundsOf(const std::vector<std::unique_ptr<GPUModel>>& models)
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

std::optional<std::vector<ModelData>> importModels(const GraphDescription& graph,
                                                   const ImportOptions& options, GraphErrors& errors)
{
    std::vector<ModelData> models;
    for (const ModelDescription& model : graph.models) {
        const QString prefix = u"%1: models.%2: "_s.arg(graph.displayName(), model.name);
        QString error;
        std::optional<ModelData> imported = importModel(graph.resolvePath(model.file), &error, options);
        if (!imported) {
            errors.addLine(prefix + error);
            continue;
        }
        QStringList warnings;
        {
            GraphErrors collected(prefix.chopped(2), &warnings);
            for (const QString& warning : imported->warnings) {
                collected.addLine(prefix + warning);
            }
        }
        for (const QString& warning : std::as_const(warnings)) {
            qWarning("%s", qUtf8Printable(warning));
        }
        models.push_back(std::move(*imported));
    }
    return models.size() == graph.models.size() ? std::optional(std::move(models)) : std::nullopt;
}

Scene::Scene(const GraphDescription& graph, const std::vector<ModelData>& models)
{
    for (const ModelData& model : models) {
        m_models.push_back(std::make_unique<GPUModel>(model));
    }
    updateBounds();
    setLights(graph.lights);
}

std::unique_ptr<GPUModel> Scene::replaceModel(size_t index, std::unique_ptr<GPUModel> model)
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

void Scene::setClock(int frameNumber, float fps)
{
    const double rate = fps;
    setFrameValue(FrameValue::Time, static_cast<float>(frameNumber / rate));
    setFrameValue(FrameValue::FrameNumber, frameNumber);
    setFrameValue(FrameValue::DeltaTime, static_cast<float>(1.0 / rate));
}

void Scene::setNewFrame(bool isNew)
{
    const QVariant& current = frameValue(FrameValue::NewFrame);
    if (!current.isValid() || current.toBool() != isNew) {
        setFrameValue(FrameValue::NewFrame, isNew);
    }
}

void Scene::setFrameValue(FrameValue value, const QVariant& content)
{
    m_frameValues[static_cast<size_t>(value)] = content;
    m_isChanged[static_cast<size_t>(value)] = true;
}

} // namespace Morvane::Qel
