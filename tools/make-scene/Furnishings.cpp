#include "Furnishings.h"

#include "Hall.h"
#include "Noise.h"
#include "Shapes.h"

#include <cmath>

namespace Morvane::Qel {

namespace {

using namespace HallSize;

constexpr float HandrailY = 0.92F;
constexpr float FootrailY = 0.12F;

/// A railing along a straight line, given by where it starts and ends on the floor.
struct Railing
{
    QVector3D from, to;
};

std::vector<Railing> railings()
{
    std::vector<Railing> result;
    // Between the columns, and across the nave in front of the portal with a passage in the middle.
    constexpr float ColumnClearance = 0.18F;
    for (const float side : {-1.0F, 1.0F}) {
        for (int bay = 1; bay < Bays - 1; ++bay) {
            const bool isPassage = bay == (side < 0.0F ? 3 : 1);
            if (!isPassage) {
                const float x = side * ColumnX;
                result.push_back({{x, 0.0F, columnLineZ(bay) + ColumnClearance},
                                  {x, 0.0F, columnLineZ(bay + 1) - ColumnClearance}});
            }
        }
        result.push_back({{side * 0.7F, 0.0F, columnLineZ(1)}, {side * 2.5F, 0.0F, columnLineZ(1)}});
    }
    return result;
}

void addRailings(MeshBuilder& mesh)
{
    const QVector3D up(0.0F, 1.0F, 0.0F);
    mesh.beginObject("handrails", "oak");
    for (const Railing& railing : railings()) {
        addBar(mesh, railing.from + up * HandrailY, railing.to + up * HandrailY, 0.035F, 0.022F, 12);
        addBar(mesh, railing.from + up * FootrailY, railing.to + up * FootrailY, 0.022F, 0.016F, 10);
    }
    for (const float side : {-1.0F, 1.0F}) {
        const QVector3D foot(side * 0.7F, 0.0F, columnLineZ(1));
        addBox(mesh, foot - QVector3D(0.05F, 0.005F, 0.05F), foot + QVector3D(0.05F, 1.0F, 0.05F));
        addSphere(mesh, foot + up * 1.05F, 0.065F, 16);
    }

    mesh.beginObject("balusters", "oak");
    const Profile turned{
        {{0.009F, FootrailY}, {0.017F, 0.27F}, {0.016F, 0.38F}, {0.008F, 0.58F}, {0.013F, HandrailY}}};
    constexpr float Spacing = 0.16F;
    for (const Railing& railing : railings()) {
        const QVector3D way = railing.to - railing.from;
        const int count = static_cast<int>(way.length() / Spacing);
        for (int i = 0; i < count; ++i) {
            const float part = (static_cast<float>(i) + 0.5F) / static_cast<float>(count);
            addLathe(mesh, railing.from + way * part, turned, 6);
        }
    }
}

/// A sheet in pleats that deepen towards the hem, hung by rings from a rod across the cross arch.
void addCurtain(MeshBuilder& mesh)
{
    constexpr float RodY = 2.78F;
    constexpr float Top = 2.735F;
    constexpr float Hem = 0.05F;
    constexpr float Left = -1.98F;
    constexpr float Right = -0.25F;
    constexpr int Pleats = 9;
    constexpr int Columns = Pleats * 8;
    constexpr int Rows = 10;

    const auto point = [](float u, float v) {
        const float drop = 1.0F - v;
        const float phase = 2.0F * Pi * Pleats * (u + 0.012F * std::sin(2.0F * Pi * 1.7F * u + 2.2F * drop));
        const float depth = (0.035F + 0.05F * drop) * (0.8F + 0.2F * std::sin(5.1F * u + 1.0F));
        const float x = Left + (Right - Left) * u - 0.07F * drop * u;
        return QVector3D(x, Hem + (Top - Hem) * v, CrossArchZ + depth * std::sin(phase));
    };
    mesh.beginObject("curtain", "curtain");
    addPatch(mesh, Columns, Rows, [&](int column, int row) {
        constexpr float Nudge = 1e-3F;
        const float u = static_cast<float>(column) / Columns;
        const float v = static_cast<float>(row) / Rows;
        const QVector3D along = point(u + Nudge, v) - point(u - Nudge, v);
        const QVector3D upwards = point(u, v + Nudge) - point(u, v - Nudge);
        return Vertex{point(u, v), QVector3D::crossProduct(along, upwards).normalized(),
                      QVector2D(u * 3.0F, v * (Top - Hem))};
    });

    mesh.beginObject("curtain_rod", "brass");
    addBar(mesh, {-2.16F, RodY, CrossArchZ}, {2.16F, RodY, CrossArchZ}, 0.016F, 0.016F, 12);
    for (int pleat = 0; pleat < Pleats; ++pleat) {
        const QVector3D hung = point((static_cast<float>(pleat) + 0.5F) / Pleats, 1.0F);
        addRing(mesh, {hung.x(), RodY - 0.012F, CrossArchZ}, {1.0F, 0.0F, 0.0F}, 0.03F, 0.005F, 10, 4);
    }
}

/// An arching frond, cut out of a strip by the texture's alpha. Both sides are modelled, a sheet's thickness
/// apart, so that it looks the same with and without back-face culling.
void addFrond(MeshBuilder& mesh, const QVector3D& root, float azimuth, float pitch, float length, float bend)
{
    constexpr int Rows = 4;
    constexpr float HalfWidth = 0.15F;
    constexpr float HalfThickness = 0.001F;
    const QVector3D across(std::cos(azimuth), 0.0F, -std::sin(azimuth));
    const QVector3D outwards(std::sin(azimuth), 0.0F, std::cos(azimuth));

    std::vector<QVector3D> rib{root};
    std::vector<QVector3D> normals;
    for (int row = 0; row <= Rows; ++row) {
        const float part = static_cast<float>(row) / Rows;
        const float angle = pitch - bend * part * part;
        const QVector3D along = outwards * std::cos(angle) + QVector3D(0.0F, std::sin(angle), 0.0F);
        normals.push_back(QVector3D::crossProduct(across, -along).normalized());
        rib.push_back(rib.back() + along * (length / Rows));
    }
    for (const bool isUpper : {true, false}) {
        const float turn = isUpper ? 1.0F : -1.0F;
        addPatch(mesh, 2, Rows, [&](int column, int row) {
            const QVector3D& normal = normals[static_cast<std::size_t>(row)];
            const float side = static_cast<float>(column - 1) * turn;
            // The rib lies lower than the edges, like a shallow gutter.
            const QVector3D lift = normal * (0.035F * std::abs(side) + HalfThickness * turn);
            const QVector3D tilted = (normal + across * (0.23F * side)).normalized();
            return Vertex{rib[static_cast<std::size_t>(row)] - across * (HalfWidth * side) + lift,
                          tilted * turn, QVector2D(0.5F + 0.5F * side, static_cast<float>(row) / Rows)};
        });
    }
}

void addPlants(MeshBuilder& mesh)
{
    const std::vector<QVector3D> places{{-1.92F, 0.0F, columnLineZ(4)}, {1.95F, 0.0F, columnLineZ(3)},
                                        {1.9F, 0.0F, columnLineZ(5)},   {-1.9F, 0.0F, -3.6F},
                                        {-1.75F, 0.0F, -7.3F},          {1.75F, 0.0F, -7.3F}};
    constexpr float SoilY = 0.38F;
    const Profile pot{{{0.15F, 0.0F}, {0.19F, 0.12F}, {0.22F, 0.34F}},
                      {{0.22F, 0.34F}, {0.25F, 0.34F}},
                      {{0.25F, 0.34F}, {0.255F, 0.42F}},
                      {{0.255F, 0.42F}, {0.225F, 0.42F}},
                      {{0.225F, 0.42F}, {0.22F, SoilY - 0.02F}}};
    mesh.beginObject("pots", "terracotta");
    for (const QVector3D& place : places) {
        addLathe(mesh, place, pot, 16);
    }
    mesh.beginObject("soil", "soil");
    const Profile heap{{{0.235F, SoilY}, {0.1F, SoilY + 0.015F}, {0.0F, SoilY + 0.02F}}};
    for (const QVector3D& place : places) {
        addLathe(mesh, place, heap, 16);
    }

    mesh.beginObject("fronds", "frond");
    constexpr int Fronds = 14;
    constexpr float GoldenAngle = 2.39996323F;
    for (std::size_t plant = 0; plant < places.size(); ++plant) {
        for (int i = 0; i < Fronds; ++i) {
            // The youngest fronds stand upright in the middle, the oldest hang over the rim.
            const float age = static_cast<float>(i) / (Fronds - 1);
            const float vary = hashedUnit(static_cast<int>(plant), i, 7);
            const float azimuth = GoldenAngle * static_cast<float>(i) + static_cast<float>(plant);
            const QVector3D outwards(std::sin(azimuth), 0.0F, std::cos(azimuth));
            const QVector3D root =
                places[plant] + QVector3D(0.0F, SoilY, 0.0F) + outwards * (0.03F + 0.06F * age);
            addFrond(mesh, root, azimuth, 1.45F - 0.65F * age, 0.7F + 0.3F * vary - 0.1F * age,
                     0.75F + 0.7F * age + 0.2F * vary);
        }
    }
}

void addSpheres(MeshBuilder& mesh)
{
    struct Exhibit
    {
        const char* name;
        const char* material;
        QVector3D foot;
        float plinthHeight;
        float radius;
    };
    const std::vector<Exhibit> exhibits{{"sphere_matt_red", "matt_red", {-1.3F, 0.0F, 1.0F}, 0.9F, 0.32F},
                                        {"sphere_gold", "gold", {1.25F, 0.0F, 2.1F}, 0.9F, 0.3F},
                                        {"sphere_white", "gloss_white", {0.55F, 0.0F, -1.1F}, 0.7F, 0.36F}};
    mesh.beginObject("plinths", "stone_light");
    for (const Exhibit& exhibit : exhibits) {
        const auto addSlab = [&](float halfWidth, float bottom, float top) {
            addBox(mesh, exhibit.foot + QVector3D(-halfWidth, bottom, -halfWidth),
                   exhibit.foot + QVector3D(halfWidth, top, halfWidth));
        };
        addSlab(0.27F, -0.005F, 0.1F);
        addSlab(0.2F, 0.095F, exhibit.plinthHeight - 0.06F);
        addSlab(0.24F, exhibit.plinthHeight - 0.065F, exhibit.plinthHeight);
    }
    for (const Exhibit& exhibit : exhibits) {
        mesh.beginObject(exhibit.name, exhibit.material);
        addSphere(mesh, exhibit.foot + QVector3D(0.0F, exhibit.plinthHeight + exhibit.radius, 0.0F),
                  exhibit.radius, 36);
    }
}

} // namespace

void addFurnishings(MeshBuilder& mesh)
{
    addRailings(mesh);
    addCurtain(mesh);
    addPlants(mesh);
    addSpheres(mesh);
}

} // namespace Morvane::Qel
