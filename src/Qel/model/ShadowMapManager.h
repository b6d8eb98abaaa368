#pragma once

#include <QMatrix4x4>
#include <QObject>
#include <QPair>
#include <QVariant>
#include <QVector3D>

#include <vector>

#include <Qel/model/Export.h>

namespace Morvane::Qel {

class ShadowMapRenderData;
class Texture;

/// Fits the projectors of shadow maps: decides how many each light has and what each of them covers.
///
/// A directional light has one orthographic projector per cascade. Cascades are split by the practical scheme
/// of F. Zhang et al., "Parallel-split shadow maps for large-scale virtual environments" (2006). Each covers
/// its slice of the view or the whole scene, whichever is smaller. A slice is covered by its bounding sphere,
/// whose centre moves in whole texels (M. Valient, "Stable rendering of cascaded shadow maps", 2008), so that
/// shadows do not shimmer while the camera moves and turns.
///
/// A spot light has one perspective projector, which covers its cone.
///
/// A point light has six perspective projectors of 90 degrees, along +x, -x, +y, -y, +z and -z. They overlap
/// by projectorMargin texels, so that filters up to that wide work across the edges of the cube.
///
/// A projector maps what it covers to x and y from -1 to 1, and to z from 0, nearest to the light, to 1,
/// unlike GL's usual range, which starts at -1. The depth range of directional lights spans the scene, so
/// that casters outside the view are included. The depth range of spot and point lights starts at the scene,
/// but not before 1/32 of its end, to keep depth precision; anything nearer casts no shadow.
class QEL_MODEL_EXPORT ShadowMapManager
{
public:
    using RenderData = ShadowMapRenderData;

    /// Width and height of a shadow map in texels.
    static constexpr int mapSize = 512;
    /// Width of the border, in texels, along each edge of a map outside the volume its projector is fitted
    /// to.
    static constexpr int projectorMargin = 8;
    /// Largest number of projectors of a directional light.
    static constexpr int maxCascades = 8;
    /// Fraction of a cascade's end depth from which it may be faded into the next one: both maps cover that
    /// range.
    static constexpr float cascadeFadeBegin = 0.9F;
    /// Largest number of projectors of all lights: the array layers that every OpenGL 3.2 driver supports.
    static constexpr int maxLayers = 256;

    enum class LightType : int
    {
        Directional,
        Spot,
        Point
    };

    /// A light in world space.
    struct Light
    {
        LightType type = LightType::Directional;
        /// Position of a spot or point light; ignored for directional lights.
        QVector3D position;
        /// Direction in which a directional or spot light shines, of any length. Zero means -y.
        QVector3D direction{0.0F, -1.0F, 0.0F};
        /// Linear RGB including the intensity, 0 or more.
        QVector3D color{1.0F, 1.0F, 1.0F};
        /// Full opening angle of a spot light in degrees, clamped to 1 to 170.
        float angle = 45.0F;
        /// Distance at which a spot or point light ends. 0 or less means the distance to the farthest corner
        /// of the scene, or 100 without a scene.
        float range = 0.0F;
        /// Number of projectors of a directional light, clamped to 1 to maxCascades; without a view it has
        /// one.
        int cascades = 1;

        bool operator==(const Light&) const = default;
    };

    /// Fits the projectors of all lights into `data`. Returns whether anything in it changed. Allocates
    /// nothing while the numbers of lights and layers stay the same.
    ///
    /// `lights` is a QVariantList of variants of type Light*. Entries of other types, null pointers, and
    /// lights with numbers that are not finite or exceed 1e18 are skipped; a light whose projectors would
    /// exceed maxLayers gets none. `projection` (with GL's depth range) and `camera` describe the view,
    /// `sceneBounds` holds the lower and upper corner of the scene's bounding box. Each may be null; unusable
    /// values count as null, and a view needs both matrices. Without view and scene, a directional light
    /// covers the box from -1 to 1.
    static bool processLights(const QVariant& lights, RenderData& data, const QMatrix4x4* projection,
                              const QMatrix4x4* camera, const QPair<QVector3D, QVector3D>* sceneBounds);
};

/// Shadow-casting lights with their projectors and shadow maps, also named ShadowMapManager::RenderData. The
/// shadow map pass publishes it for passes that shade; read it from a variant with
/// `getInputPointer<ShadowMapManager::RenderData>`. It lives as long as the pass that publishes it.
class QEL_MODEL_EXPORT ShadowMapRenderData : public QObject
{
    Q_OBJECT
public:
    ShadowMapRenderData();
    ~ShadowMapRenderData() override;

    struct Light
    {
        /// The light as given, except for a unit direction, a clamped angle and a range resolved to a
        /// distance above 0.
        ShadowMapManager::Light source;
        int numProjectors = 0;
        /// Layer of the first projector; those of the others follow.
        int firstLayer = 0;

        bool operator==(const Light&) const = default;
    };
    /// Returns the usable lights in the given order.
    const std::vector<Light>& lights() const { return m_lights; }

    /// Number of projectors of all lights; each has its own layer.
    int numLayers() const { return static_cast<int>(m_layers.size()); }
    /// Returns the transform from world space to a layer's clip space, 16 floats in column-major order. After
    /// division by w, x and y from -1 to 1 span the layer, and z is the depth whose moments the layer stores.
    const QMatrix4x4& transform(int layer) const { return at(layer).transform; }
    /// Returns the depth, measured from the camera along the view direction, up to which the layer's cascade
    /// is used: a shaded point takes the first of a light's cascades that reaches its depth. Infinite for a
    /// light's last layer. The next cascade's map covers depths from ShadowMapManager::cascadeFadeBegin times
    /// this value.
    float cascadeEnd(int layer) const { return at(layer).cascadeEnd; }

    /// Sets the shadow maps: a GL_TEXTURE_2D_ARRAY with numLayers() layers, which stores the mean depth in
    /// red and the mean squared depth in green unless the pass that fills it defines otherwise. Not owned.
    void setProjectionTexture(Texture* texture) { m_projectionTexture = texture; }
    Texture* projectionTexture() const { return m_projectionTexture; }

private:
    friend class ShadowMapManager;
    struct Layer
    {
        QMatrix4x4 transform;
        float cascadeEnd;

        bool operator==(const Layer&) const = default;
    };
    const Layer& at(int layer) const { return m_layers[static_cast<size_t>(layer)]; }

    std::vector<Light> m_lights;
    std::vector<Layer> m_layers;
    Texture* m_projectionTexture = nullptr;
};

} // namespace Morvane::Qel
