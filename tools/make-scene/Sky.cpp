#include "Sky.h"

#include "Noise.h"
#include "Shapes.h"

#include <algorithm>
#include <cmath>
#include <functional>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

QVector3D mix(const QVector3D& a, const QVector3D& b, float part)
{
    return a + (b - a) * std::clamp(part, 0.0F, 1.0F);
}

QVector3D sunDirection()
{
    return QVector3D(0.4F, 0.8F, -0.45F).normalized();
}

/// The sky's colour in a unit direction, in sRGB.
QVector3D skyColour(const QVector3D& direction)
{
    const QVector3D haze(0.87F, 0.89F, 0.9F);
    const float rise = direction.y();
    if (rise < 0.0F) {
        const QVector3D meadow = mix({0.47F, 0.52F, 0.27F}, {0.3F, 0.27F, 0.19F}, -rise * 1.5F);
        return mix(haze * 0.92F, meadow, std::sqrt(-rise) * 3.5F);
    }
    const QVector3D blue = mix({0.56F, 0.73F, 0.9F}, {0.16F, 0.38F, 0.72F}, rise * 1.2F);
    QVector3D colour = mix(haze, blue, std::sqrt(rise) * 1.7F);

    // Clouds lie in a horizontal plane and thin out towards the horizon, where they would shrink to noise.
    constexpr int Period = 64;
    const float distance = 1.6F / (rise + 0.12F);
    const float cover =
        tiledClouds(direction.x() * distance + 32.0F, direction.z() * distance + 32.0F, Period, 71);
    const float density =
        std::clamp((cover - 0.52F) * 4.0F, 0.0F, 1.0F) * std::clamp(rise * 6.0F - 0.3F, 0.0F, 1.0F);
    colour = mix(colour, {0.97F, 0.97F, 0.96F}, density * 0.85F);

    const float towardsSun = std::max(0.0F, QVector3D::dotProduct(direction, sunDirection()));
    const QVector3D sunlight(1.0F, 0.97F, 0.86F);
    colour = mix(colour, sunlight, 0.55F * std::pow(towardsSun, 60.0F) + 0.15F * std::pow(towardsSun, 6.0F));
    const float discEdge = std::cos(2.2F * Pi / 180.0F);
    return towardsSun > discEdge ? QVector3D(1.0F, 1.0F, 0.96F) : colour;
}

/// Paints the sky into an image. `directionAt` gives the direction of a pixel from s and t in [0, 1], which
/// grow to the right and downwards.
QImage paintSky(int width, int height, const std::function<QVector3D(float, float)>& directionAt)
{
    QImage image(width, height, QImage::Format_RGB888);
    for (int row = 0; row < height; ++row) {
        uchar* pixel = image.scanLine(row);
        for (int column = 0; column < width; ++column) {
            const float s = (static_cast<float>(column) + 0.5F) / static_cast<float>(width);
            const float t = (static_cast<float>(row) + 0.5F) / static_cast<float>(height);
            const QVector3D colour = skyColour(directionAt(s, t).normalized());
            for (int channel = 0; channel < 3; ++channel) {
                *pixel++ = static_cast<uchar>(std::lround(std::clamp(colour[channel], 0.0F, 1.0F) * 255.0F));
            }
        }
    }
    return image;
}

QVector3D latLongDirection(float s, float t)
{
    const float azimuth = 2.0F * Pi * (s - 0.5F);
    const float elevation = Pi * (0.5F - t);
    return {std::sin(azimuth) * std::cos(elevation), std::sin(elevation),
            -std::cos(azimuth) * std::cos(elevation)};
}

} // namespace

std::vector<NamedImage> skyImages()
{
    // The direction through the middle of each face, and the directions in which its s and t grow.
    struct Face
    {
        QString name;
        QVector3D forwards, s, t;
    };
    const Face faces[] = {{u"posx.png"_s, {1, 0, 0}, {0, 0, -1}, {0, -1, 0}},
                          {u"negx.png"_s, {-1, 0, 0}, {0, 0, 1}, {0, -1, 0}},
                          {u"posy.png"_s, {0, 1, 0}, {1, 0, 0}, {0, 0, 1}},
                          {u"negy.png"_s, {0, -1, 0}, {1, 0, 0}, {0, 0, -1}},
                          {u"posz.png"_s, {0, 0, 1}, {1, 0, 0}, {0, -1, 0}},
                          {u"negz.png"_s, {0, 0, -1}, {-1, 0, 0}, {0, -1, 0}}};
    constexpr int FaceSize = 128;
    std::vector<NamedImage> images;
    for (const Face& face : faces) {
        images.push_back({face.name, paintSky(FaceSize, FaceSize, [&](float s, float t) {
                              return face.forwards + face.s * (2.0F * s - 1.0F) + face.t * (2.0F * t - 1.0F);
                          })});
    }
    images.push_back({u"latlong.png"_s, paintSky(512, 256, latLongDirection)});
    return images;
}

} // namespace Morvane::Qel
