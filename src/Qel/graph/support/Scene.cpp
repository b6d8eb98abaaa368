#include <Qel/graph/support/Scene.h>

#include <QDebug>
#include <QRect>

#include <algorithm>
#include <cmath>
#include <iterator>
#include <limits>
#include <utility>

#include <Qel/graph/support/Camera.h>
#include <Qel/graph/support/GraphErrors.h>
#include <Qel/graph/support/ModelPlacing.h>
#include <Qel/model/ModelAssembly.h>

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

/// Whether each model is no part of another, or taken by a pass.
std::vector<bool> findShown(const GraphPlan& plan, const ModelMerges& merges)
{
    std::vector<bool> isShown = merges.isPart;
    isShown.flip();
    for (const int pass : plan.order) {
        for (const PlannedInput& input : plan.passes[static_cast<size_t>(pass)].inputs) {
            if (input.source == InputSource::Model) {
                isShown[static_cast<size_t>(input.model)] = true;
            }
        }
    }
    return isShown;
}

ModelData mergedFrom(const std::vector<ModelData>& models, const std::vector<size_t>& parts)
{
    std::vector<const ModelData*> pointers;
    std::transform(parts.begin(), parts.end(), std::back_inserter(pointers),
                   [&](size_t part) { return &models[part]; });
    return merged(pointers);
}

bool isFinite(const QVector3D& v)
{
    return std::isfinite(v.x()) && std::isfinite(v.y()) && std::isfinite(v.z());
}

/// Reads the file of a model and logs the warnings of the import. On failure returns nothing and adds a line
/// to `errors`.
std::optional<ModelData> imported(const GraphDescription& graph, const ModelDescription& model,
                                  const ImportOptions& options, GraphErrors& errors)
{
    const QString path = graph.resolvePath(model.file);
    const QString place = graph.placeOf(model);
    // Messages of the import begin with the path, which an origin already names.
    const auto line = [&](const QString& message) {
        const bool isRepeated = !model.origin.isEmpty() && message.startsWith(path + u": "_s);
        return place + u": "_s + (isRepeated ? message.sliced(path.size() + 2) : message);
    };
    QString error;
    std::optional<ModelData> data = importModel(path, &error, options);
    if (!data) {
        errors.addLine(line(error));
        return data;
    }
    QStringList lines;
    {
        GraphErrors collected(place, &lines);
        for (const QString& warning : std::as_const(data->warnings)) {
            collected.addLine(line(warning));
        }
    }
    for (const QString& warning : std::as_const(lines)) {
        qWarning("%s", qUtf8Printable(warning));
    }
    return data;
}

} // namespace

std::optional<std::vector<ModelData>> importModels(const GraphDescription& graph,
                                                   const ImportOptions& options, GraphErrors& errors)
{
    const ModelMerges merges(graph.models);
    const qsizetype errorsBefore = errors.count();
    std::vector<ModelData> models(graph.models.size());
    for (const size_t index : merges.order) {
        const ModelDescription& model = graph.models[index];
        if (model.merge.isEmpty()) {
            std::optional<ModelData> data = imported(graph, model, options, errors);
            if (!data) {
                continue;
            }
            models[index] = std::move(*data);
        } else {
            models[index] = mergedFrom(models, merges.parts[index]);
        }
        models[index] = placed(std::move(models[index]), model.placement);
        const QPair<QVector3D, QVector3D> bounds = boundsOf(models[index]);
        if (!isFinite(bounds.first) || !isFinite(bounds.second)) {
            errors.addLine(graph.placeOf(model) + u": its scale makes it too large"_s);
        }
    }
    return errors.count() == errorsBefore ? std::optional(std::move(models)) : std::nullopt;
}

Scene::Scene(const GraphPlan& plan, std::vector<ModelData> models)
    : m_descriptions(plan.graph.models)
    , m_merges(m_descriptions)
    , m_isShown(findShown(plan, m_merges))
    , m_models(models.size())
    , m_outlines(models.size())
    , m_parts(models.size())
{
    for (size_t i = 0; i < models.size(); ++i) {
        show(i, std::move(models[i]));
    }
    updateBounds();
    setLights(plan.graph.lights);
}

Scene::Scene(const GraphPlan& plan, const Scene& other)
    : m_descriptions(other.m_descriptions)
    , m_merges(m_descriptions)
    , m_isShown(other.m_isShown)
    , m_models(other.m_models)
    , m_memory(other.m_memory)
    , m_outlines(other.m_outlines)
    , m_parts(other.m_parts)
{
    updateBounds();
    setLights(plan.graph.lights);
}

bool Scene::hasModelsOf(const GraphPlan& plan) const
{
    return plan.graph.models == m_descriptions && findShown(plan, m_merges) == m_isShown;
}

/// Takes a model that is placed. Returns the old one.
std::shared_ptr<GPUModel> Scene::show(size_t index, ModelData data)
{
    std::shared_ptr<GPUModel> old;
    if (m_isShown[index]) {
        const MemoryAccount::Activation accounting(&m_memory);
        old = std::exchange(m_models[index], std::make_shared<GPUModel>(data));
        m_outlines[index] = outlineOf(data);
    }
    if (m_merges.isPart[index]) {
        m_parts[index] = std::move(data);
    }
    return old;
}

std::vector<std::shared_ptr<GPUModel>> Scene::replaceModel(size_t index, const ModelData& data)
{
    std::vector<std::shared_ptr<GPUModel>> old;
    old.push_back(show(index, placed(data, m_descriptions[index].placement)));
    std::vector<bool> isNew(m_models.size());
    isNew[index] = true;
    for (const size_t whole : m_merges.order) {
        const std::vector<size_t>& parts = m_merges.parts[whole];
        if (std::any_of(parts.begin(), parts.end(), [&](size_t part) { return isNew[part]; })) {
            old.push_back(show(whole, placed(mergedFrom(m_parts, parts), m_descriptions[whole].placement)));
            isNew[whole] = true;
        }
    }
    updateBounds();
    return old;
}

std::vector<QVector3D> Scene::outline() const
{
    std::vector<QVector3D> points;
    for (const std::vector<QVector3D>& outline : m_outlines) {
        points.insert(points.end(), outline.begin(), outline.end());
    }
    return points;
}

void Scene::updateBounds()
{
    constexpr float infinity = std::numeric_limits<float>::infinity();
    QVector3D low(infinity, infinity, infinity);
    QVector3D high = -low;
    for (const auto& model : m_models) {
        if (!model || model->numTriangles() == 0) {
            continue;
        }
        const QPair<QVector3D, QVector3D> box = model->bounds();
        for (int i = 0; i < 3; ++i) {
            low[i] = std::min(low[i], box.first[i]);
            high[i] = std::max(high[i], box.second[i]);
        }
    }
    m_bounds = low.x() <= high.x() ? qMakePair(low, high) : QPair<QVector3D, QVector3D>();
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
