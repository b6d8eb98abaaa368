#include "Textures.h"

#include "Noise.h"
#include "Shapes.h"

#include <QVector3D>

#include <algorithm>
#include <cmath>
#include <functional>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

/// A colour for texture coordinates: u to the right, v upwards, both in [0, 1).
using Painter = std::function<QVector3D(float, float)>;

uchar toByte(float value)
{
    return static_cast<uchar>(std::lround(std::clamp(value, 0.0F, 1.0F) * 255.0F));
}

QImage paint(int size, const Painter& colourAt)
{
    QImage image(size, size, QImage::Format_RGB888);
    for (int row = 0; row < size; ++row) {
        uchar* pixel = image.scanLine(row);
        for (int column = 0; column < size; ++column) {
            const QVector3D colour =
                colourAt((static_cast<float>(column) + 0.5F) / static_cast<float>(size),
                         1.0F - (static_cast<float>(row) + 0.5F) / static_cast<float>(size));
            for (int channel = 0; channel < 3; ++channel) {
                *pixel++ = toByte(colour[channel]);
            }
        }
    }
    return image;
}

/// Quantises a shade to a few levels, invisible under the noise, so that the image compresses much better.
float coarse(float shade)
{
    constexpr float Levels = 40.0F;
    return std::round(shade * Levels) / Levels;
}

/// A point on the tiled floor, whose texture spans 4 x 4 tiles.
struct FloorSpot
{
    int tile;
    bool isGrout;
    bool isInset;
    bool isRose;
};

FloorSpot floorSpot(float u, float v)
{
    constexpr int Tiles = 4;
    constexpr float HalfGrout = 0.009F;
    constexpr float InsetReach = 0.2F;
    const float x = u * Tiles;
    const float y = v * Tiles;
    const int column = static_cast<int>(x);
    const int row = static_cast<int>(y);
    // Distances to the tile's edges, as fractions of a tile. The insets are small diamonds on the corners.
    const float edgeX = std::abs(x - std::round(x));
    const float edgeY = std::abs(y - std::round(y));
    const float toInset = edgeX + edgeY - InsetReach;
    const bool isInset = toInset < -1.4F * HalfGrout;
    const bool isGrout =
        !isInset && (std::abs(toInset) <= 1.4F * HalfGrout || std::min(edgeX, edgeY) < HalfGrout);
    const int corner =
        static_cast<int>(std::round(x)) % Tiles + static_cast<int>(std::round(y)) % Tiles * Tiles;
    return {isInset ? 100 + corner : row * Tiles + column, isGrout, isInset, (column + row) % 2 == 1};
}

QVector3D floorColour(float u, float v)
{
    const FloorSpot spot = floorSpot(u, v);
    const float grain = tiledClouds(u * 16.0F, v * 16.0F, 16, 3);
    if (spot.isGrout) {
        return QVector3D(0.46F, 0.42F, 0.37F) * coarse(0.9F + 0.2F * grain);
    }
    // Veins run where low-frequency noise crosses its mean; each tile shows another part of it.
    const float shift = static_cast<float>(spot.tile);
    const float vein = std::abs(tiledClouds(u * 8.0F + shift, v * 8.0F - shift, 8, 11) - 0.5F);
    const float shade = 0.92F + 0.14F * hashedUnit(spot.tile, 0, 5) - 0.12F * std::exp(-vein * 30.0F);
    const QVector3D stone = spot.isInset  ? QVector3D(0.2F, 0.2F, 0.22F)
                            : spot.isRose ? QVector3D(0.66F, 0.43F, 0.34F)
                                          : QVector3D(0.82F, 0.76F, 0.64F);
    return stone * coarse(shade);
}

QVector3D floorGloss(float u, float v)
{
    const FloorSpot spot = floorSpot(u, v);
    const float wear = tiledClouds(u * 6.0F, v * 6.0F, 6, 21);
    const float gloss = spot.isGrout ? 0.03F : 0.2F + 0.25F * wear + (spot.isInset ? 0.1F : 0.0F);
    return QVector3D(1.0F, 1.0F, 1.0F) * coarse(gloss);
}

QVector3D plasterColour(float u, float v)
{
    const float patches = tiledClouds(u * 5.0F, v * 5.0F, 5, 31);
    const float grain = tiledNoise(u * 96.0F, v * 96.0F, 96, 37);
    return QVector3D(1.0F, 0.99F, 0.97F) * coarse(0.82F + 0.14F * patches + 0.05F * grain);
}

QVector3D stoneColour(float u, float v)
{
    const float layers = tiledClouds(u * 6.0F, v * 12.0F, 6, 41);
    const float grain = tiledNoise(u * 128.0F, v * 128.0F, 128, 47);
    return QVector3D(1.0F, 0.98F, 0.95F) * coarse(0.7F + 0.28F * layers + 0.09F * grain);
}

/// Grain runs along u; four boards across v.
QVector3D woodColour(float u, float v)
{
    constexpr int Boards = 4;
    constexpr float HalfGap = 0.02F;
    const float across = v * Boards;
    const int board = static_cast<int>(across);
    const float toGap = std::abs(across - std::round(across));
    const float offset = hashedUnit(board, 1, 53);
    const float waves = tiledNoise((u + offset) * 3.0F, v * 12.0F, 12, 59);
    const float fibres = tiledNoise((u + offset) * 6.0F, v * 120.0F + waves * 10.0F, 120, 61);
    const float shade = 0.72F + 0.16F * offset + 0.14F * waves + 0.16F * fibres;
    return QVector3D(0.72F, 0.5F, 0.31F) * coarse(toGap < HalfGap ? 0.45F * shade : shade);
}

/// A tint that goes from green through blue to amber, in soft rings.
QVector3D glassColour(float /*u*/, float v)
{
    const float angle = 2.0F * Pi * v;
    return QVector3D(0.7F + 0.3F * std::sin(angle), 0.75F + 0.25F * std::sin(angle + 1.8F),
                     0.75F + 0.25F * std::sin(angle + 4.0F));
}

/// A feathered frond, its stalk at the bottom. Transparent texels keep a leaf's colour, so that filtering at
/// the edges bleeds no other colour in.
QImage frond(int size)
{
    constexpr float LeafletPitch = 0.055F;
    QImage image(size, size, QImage::Format_RGBA8888);
    for (int row = 0; row < size; ++row) {
        uchar* pixel = image.scanLine(row);
        for (int column = 0; column < size; ++column) {
            const float x = (static_cast<float>(column) + 0.5F) / static_cast<float>(size) * 2.0F - 1.0F;
            const float v = 1.0F - (static_cast<float>(row) + 0.5F) / static_cast<float>(size);
            const float outwards = std::abs(x);

            // Leaflets leave the rib at v = root and sweep towards the tip; both sides are half a pitch
            // apart.
            const float root = v - 0.16F * outwards - 0.05F * outwards * outwards;
            const float place = root / LeafletPitch + (x > 0.0F ? 0.5F : 0.0F);
            const float fromMiddle = std::abs(place - std::floor(place) - 0.5F);
            const float reach = root > 0.1F ? 0.95F * std::sqrt(std::max(0.0F, 1.0F - root)) *
                                                  std::min(1.0F, 0.35F + 2.2F * (root - 0.1F))
                                            : 0.0F;
            const float part = reach > 0.0F ? outwards / reach : 1.0F;
            const float halfWidth =
                part < 1.0F ? 0.44F * std::sqrt(1.0F - part) * (0.6F + 0.7F * part) : 0.0F;
            const bool isLeaflet = fromMiddle < halfWidth;
            const bool isRib = outwards < 0.05F * (1.0F - v) + 0.012F && v < 0.97F;

            const float fresh =
                0.8F + 0.25F * hashedUnit(static_cast<int>(std::floor(place)), x > 0.0F ? 1 : 0, 67);
            const float crease = fromMiddle < 0.08F ? 0.85F : 1.0F;
            const QVector3D colour =
                isRib ? QVector3D(0.44F, 0.5F, 0.2F) : QVector3D(0.2F, 0.43F, 0.13F) * (fresh * crease);
            for (int channel = 0; channel < 3; ++channel) {
                *pixel++ = toByte(colour[channel]);
            }
            *pixel++ = isRib || isLeaflet ? 255 : 0;
        }
    }
    return image;
}

} // namespace

std::vector<NamedImage> sceneTextures()
{
    return {{u"floor.png"_s, paint(512, floorColour)},     {u"floor-gloss.png"_s, paint(256, floorGloss)},
            {u"plaster.png"_s, paint(256, plasterColour)}, {u"stone.png"_s, paint(256, stoneColour)},
            {u"wood.png"_s, paint(256, woodColour)},       {u"frond.png"_s, frond(256)},
            {u"glass.png"_s, paint(64, glassColour)}};
}

} // namespace Morvane::Qel
