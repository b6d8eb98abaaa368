#include "Glassware.h"

#include "Shapes.h"

#include <algorithm>

namespace Morvane::Qel {

namespace {

constexpr int Sides = 40;

/// Cuts the corners of an outline but for its ends (G. M. Chaikin: An algorithm for high-speed curve
/// generation, 1974).
std::vector<QVector2D> rounded(const std::vector<QVector2D>& outline)
{
    std::vector<QVector2D> result{outline.front()};
    for (std::size_t i = 0; i + 1 < outline.size(); ++i) {
        result.push_back(0.75F * outline[i] + 0.25F * outline[i + 1]);
        result.push_back(0.25F * outline[i] + 0.75F * outline[i + 1]);
    }
    result.push_back(outline.back());
    return result;
}

/// Adds a glass wall of revolution, with an outer and an inner surface and no bottom.
void addVessel(MeshBuilder& mesh, const QVector3D& foot, const std::vector<QVector2D>& corners)
{
    constexpr float Thickness = 0.012F;
    const std::vector<QVector2D> outside = rounded(corners);
    std::vector<QVector2D> inside;
    inside.reserve(outside.size());
    for (const QVector2D& point : outside) {
        inside.emplace_back(point.x() - Thickness, point.y());
    }
    std::reverse(inside.begin(), inside.end());
    addLathe(mesh, foot, {outside, inside}, Sides);
}

} // namespace

void addGlassware(MeshBuilder& mesh)
{
    mesh.beginObject("glassware", "glass", 1.3F);
    // Not in depth order, so that missing sorting becomes visible.
    addVessel(mesh, {-0.3F, 0.0F, 0.0F}, {{0.14F, 0.0F}, {0.17F, 0.3F}, {0.2F, 0.62F}});
    addVessel(mesh, {0.0F, 0.0F, 0.55F},
              {{0.22F, 0.0F}, {0.34F, 0.05F}, {0.45F, 0.17F}, {0.47F, 0.33F}, {0.5F, 0.44F}});
    addSphere(mesh, {0.2F, 0.16F, 0.5F}, 0.12F, Sides);
    addVessel(mesh, {0.02F, 0.0F, -0.5F},
              {{0.22F, 0.0F},
               {0.37F, 0.05F},
               {0.4F, 0.3F},
               {0.24F, 0.6F},
               {0.09F, 0.8F},
               {0.11F, 1.0F},
               {0.2F, 1.14F}});
    addSphere(mesh, {-0.1F, 0.2F, 0.6F}, 0.16F, Sides);
    addVessel(mesh, {0.36F, 0.0F, -0.05F}, {{0.15F, 0.0F}, {0.14F, 0.4F}, {0.17F, 0.8F}});
}

} // namespace Morvane::Qel
