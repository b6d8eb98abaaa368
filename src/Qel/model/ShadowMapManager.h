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

/// Decides from where shadow maps are drawn: how many projectors a light has and what each one sees.
///
/// - A directional light has one orthographic projector for each cascade, split by the practical scheme of
///   F. Zhang et al.: Parallel-split shadow maps for large-scale virtual environments (2006). Each one takes
///   what is smaller, the scene or its slice of the view. Of a slice it takes the bounding sphere, whose
///   centre moves in whole texels (M. Valient: Stable rendering of cascaded shadow maps, 2008), so that
///   shadows do not shimmer while the camera moves and turns.
/// - A spot light has one perspective projector, which sees its cone.
/// - A point light has six of 90 degrees, which look along +x, -x, +y, -y, +z and -z. They overlap: filters
///   of up to projectorMargin texels find what they need on both sides of an edge of the cube.
///
/// Every projector maps what it sees to x and y from -1 to 1 and to z from 0, towards the light, to 1: not
/// from -1, as usual in GL. The depths of directional lights span the scene, so that casters outside the view
/// are there too. Those of lamps begin where the scene does, but not before 1/32 of their reach, since depths
/// would crowd at the far end; what is nearer casts no shadow.
class QEL_MODEL_EXPORT ShadowMapManager
{
public:
    using RenderData = ShadowMapRenderData;

    /// Width and height of a shadow map in texels.
    static constexpr int mapSize = 512;
    /// So many texels along each edge of a map lie outside of what its projector is fitted to.
    static constexpr int projectorMargin = 8;
    static constexpr int maxCascades = 8;
    /// A cascade may be faded into the next one from this part of its end on: there both have a map.
    static constexpr float cascadeFadeBegin = 0.9F;
    /// As many as every OpenGL 3.2 has layers.
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
        /// Of lamps: spot and point lights.
        QVector3D position;
        /// The direction in which a directional or a spot light shines, of any length. Zero stands for -y.
        QVector3D direction{0.0F, -1.0F, 0.0F};
        /// Linear red, green and blue, 0 or more, the intensity included.
        QVector3D color{1.0F, 1.0F, 1.0F};
        /// The whole opening angle of a spot light in degrees; 1 to 170, beyond that it is clamped.
        float angle = 45.0F;
        /// The distance at which the light of a lamp ends; 0 or less stands for the farthest corner of the
        /// scene, and for 100 when there is no scene.
        float range = 0.0F;
        /// The number of projectors of a directional light while there is a view, 1 to maxCascades.
        int cascades = 1;

        bool operator==(const Light&) const = default;
    };

    /// Fits the projectors of all lights and leaves them in `data`. Returns whether anything there is not
    /// exactly what it was. Allocates nothing while lights and layers stay as many as they were.
    ///
    /// `lights` is a list (QVariantList) of variants of type Light*. Entries of other types, null pointers
    /// and lights with numbers that are not finite, or beyond 1e18, are passed over; a light beyond maxLayers
    /// has no projector. `projection` (with the depth range of GL) and `camera` are those of the view and
    /// `sceneBounds` holds the lower and upper corner of the box around the scene; null, and what cannot be
    /// used, stands for none. A view takes both matrices. Without view and scene, a directional light sees
    /// the box from -1 to 1.
    static bool processLights(const QVariant& lights, RenderData& data, const QMatrix4x4* projection,
                              const QMatrix4x4* camera, const QPair<QVector3D, QVector3D>* sceneBounds);
};

/// Shadow-casting lights with their projectors and shadow maps, as the shadow map pass publishes them for the
/// passes that shade: ShadowMapManager::RenderData. Read it from a variant with
/// `getInputPointer<ShadowMapManager::RenderData>`; it lives as long as the pass that publishes it.
class QEL_MODEL_EXPORT ShadowMapRenderData : public QObject
{
    Q_OBJECT
public:
    ShadowMapRenderData();
    ~ShadowMapRenderData() override;

    struct Light
    {
        /// The light as it was given, with a direction of unit length, the angle clamped and the range
        /// resolved to a distance above 0.
        ShadowMapManager::Light source;
        /// Projectors of the light, and the layer of the first; the others follow.
        int numProjectors = 0;
        int firstLayer = 0;

        bool operator==(const Light&) const = default;
    };
    /// In the order in which they were given.
    const std::vector<Light>& lights() const { return m_lights; }

    /// Projectors of all lights, each with a layer of its own.
    int numLayers() const { return static_cast<int>(m_layers.size()); }
    /// World space to a layer's clip space; constData() are 16 floats column by column. After the division
    /// by w, x and y from -1 to 1 span the layer and z is the depth that its moments hold.
    const QMatrix4x4& transform(int layer) const { return at(layer).transform; }
    /// The distance from the camera, along the line of sight, up to which the layer's cascade is the one to
    /// take: the first of a light that reaches as far as what is shaded. Infinite for a light's last layer.
    /// The next one's map begins at ShadowMapManager::cascadeFadeBegin of it.
    float cascadeEnd(int layer) const { return at(layer).cascadeEnd; }

    /// The shadow maps, a GL_TEXTURE_2D_ARRAY of numLayers() layers that holds the mean of the depth and the
    /// mean of its square in red and green, or whatever the pass that fills it defines. Not owned.
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
