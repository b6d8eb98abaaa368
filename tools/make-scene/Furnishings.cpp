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

/// A straight railing, given by its start and end on the floor.
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

/// A sheet in pleats that deepen towards the hem, hung from s = 0 to `width` of a frame.
struct Curtain
{
    Frame frame;
    float width;
    float top, hem;
    int pleats;

    QVector3D point(float u, float v) const
    {
        const float drop = 1.0F - v;
        const float sway = 0.012F * std::sin(2.0F * Pi * 1.7F * u + 2.2F * drop);
        const float phase = 2.0F * Pi * static_cast<float>(pleats) * (u + sway);
        const float depth = (0.035F + 0.05F * drop) * (0.8F + 0.2F * std::sin(5.1F * u + 1.0F));
        return frame.at(width * u - 0.07F * drop * u, hem + (top - hem) * v, depth * std::sin(phase));
    }
};

void addCurtain(MeshBuilder& mesh, const Curtain& curtain)
{
    const int columns = curtain.pleats * 8;
    constexpr int Rows = 6;
    addPatch(mesh, columns, Rows, [&](int column, int row) {
        constexpr float Nudge = 1e-3F;
        const float u = static_cast<float>(column) / static_cast<float>(columns);
        const float v = static_cast<float>(row) / Rows;
        const QVector3D along = curtain.point(u + Nudge, v) - curtain.point(u - Nudge, v);
        const QVector3D upwards = curtain.point(u, v + Nudge) - curtain.point(u, v - Nudge);
        return Vertex{curtain.point(u, v), QVector3D::crossProduct(along, upwards).normalized(),
                      QVector2D(u * 3.0F, v * (curtain.top - curtain.hem))};
    });
}

/// One curtain hung by rings from a rod across the cross arch, and one threaded on a rod between two columns.
void addCurtains(MeshBuilder& mesh)
{
    constexpr float RodY = 2.78F;
    constexpr float Hem = 0.05F;
    constexpr int Pleats = 9;
    const QVector3D up(0.0F, 1.0F, 0.0F);

    const Curtain curtain{
        {{-1.98F, 0.0F, CrossArchZ}, {1.0F, 0.0F, 0.0F}, up}, 1.73F, RodY - 0.045F, Hem, Pleats};
    mesh.beginObject("curtain", "curtain");
    addCurtain(mesh, curtain);
    mesh.beginObject("curtain_rod", "brass");
    addBar(mesh, {-2.16F, RodY, CrossArchZ}, {2.16F, RodY, CrossArchZ}, 0.016F, 0.016F, 12);
    for (int pleat = 0; pleat < Pleats; ++pleat) {
        const QVector3D hung = curtain.point((static_cast<float>(pleat) + 0.5F) / Pleats, 1.0F);
        addRing(mesh, {hung.x(), RodY - 0.012F, CrossArchZ}, {1.0F, 0.0F, 0.0F}, 0.03F, 0.005F, 10, 4);
    }

    // On the nave side of the railing there.
    constexpr float SheerRodY = 1.86F;
    constexpr float SheerX = -ColumnX + 0.14F;
    const float near = columnLineZ(2) - 0.05F;
    const float far = columnLineZ(1) + 0.05F;
    mesh.beginObject("sheer_curtain", "sheer");
    addCurtain(mesh,
               {{{SheerX, 0.0F, near - 0.25F}, {0.0F, 0.0F, -1.0F}, up}, 1.6F, SheerRodY + 0.01F, Hem, 7});
    mesh.beginObject("sheer_curtain_rod", "brass");
    addBar(mesh, {SheerX, SheerRodY, far}, {SheerX, SheerRodY, near}, 0.012F, 0.012F, 8);
}

/// How a leaf grows: the heading of its arch, how steeply it leaves the root, how far it bends over.
struct Growth
{
    QVector3D root;
    float azimuth, pitch, length, bend;
};

/// The arching centre line of a leaf, with the direction across it and the upper side's normal at each row.
struct Rib
{
    QVector3D across;
    std::vector<QVector3D> points;
    std::vector<QVector3D> normals;
};

Rib makeRib(const Growth& growth, int rows)
{
    const float azimuth = growth.azimuth;
    const QVector3D outwards(std::sin(azimuth), 0.0F, std::cos(azimuth));
    Rib rib{{std::cos(azimuth), 0.0F, -std::sin(azimuth)}, {growth.root}, {}};
    for (int row = 0; row <= rows; ++row) {
        const float part = static_cast<float>(row) / static_cast<float>(rows);
        const float angle = growth.pitch - growth.bend * part * part;
        const QVector3D along = outwards * std::cos(angle) + QVector3D(0.0F, std::sin(angle), 0.0F);
        rib.normals.push_back(QVector3D::crossProduct(rib.across, -along).normalized());
        rib.points.push_back(rib.points.back() + along * (growth.length / static_cast<float>(rows)));
    }
    return rib;
}

/// An arching frond, cut out of a strip by the texture's alpha. Both sides are modelled, a sheet's thickness
/// apart, so that it looks the same with and without back-face culling.
void addFrond(MeshBuilder& mesh, const Growth& growth)
{
    constexpr int Rows = 4;
    constexpr float HalfWidth = 0.15F;
    constexpr float HalfThickness = 0.001F;
    const Rib rib = makeRib(growth, Rows);
    for (const float turn : {1.0F, -1.0F}) {
        const auto at = [&](int column, int row) {
            const QVector3D& normal = rib.normals[static_cast<std::size_t>(row)];
            const auto side = static_cast<float>(column - 1);
            // The rib lies lower than the edges, like a shallow gutter.
            const QVector3D lift = normal * (0.035F * std::abs(side) + HalfThickness * turn);
            const QVector3D tilted = (normal + rib.across * (0.23F * side)).normalized();
            return Vertex{rib.points[static_cast<std::size_t>(row)] - rib.across * (HalfWidth * side) + lift,
                          tilted * turn, QVector2D(0.5F + 0.5F * side, static_cast<float>(row) / Rows)};
        };
        // Turned over by exchanging columns and rows, which leaves the diagonals of the quads where they are:
        // the two sheets must not intersect.
        if (turn > 0.0F) {
            addPatch(mesh, 2, Rows, at);
        } else {
            addPatch(mesh, Rows, 2, [&](int row, int column) { return at(column, row); });
        }
    }
}

/// A thin, broad leaf that light shines through: one sheet in the shape of the leaf.
void addBroadLeaf(MeshBuilder& mesh, const Growth& growth)
{
    constexpr int Rows = 6;
    constexpr float HalfWidth = 0.1F;
    const Rib rib = makeRib(growth, Rows);
    addPatch(mesh, 2, Rows, [&](int column, int row) {
        const QVector3D& normal = rib.normals[static_cast<std::size_t>(row)];
        const float part = static_cast<float>(row) / Rows;
        const auto side = static_cast<float>(column - 1);
        const float halfWidth = row == Rows ? 0.0F : HalfWidth * std::sin(Pi * (0.04F + 0.96F * part));
        const QVector3D lift = normal * (0.3F * halfWidth * std::abs(side));
        const QVector3D tilted = (normal + rib.across * (0.23F * side)).normalized();
        return Vertex{rib.points[static_cast<std::size_t>(row)] - rib.across * (halfWidth * side) + lift,
                      tilted, QVector2D(0.5F + 0.5F * side, part)};
    });
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

    constexpr std::size_t BroadLeaved = 3;
    const auto grow = [&](std::size_t plant, int count, float scale, const auto& addShoot) {
        constexpr float GoldenAngle = 2.39996323F;
        for (int i = 0; i < count; ++i) {
            // The youngest shoots stand upright in the middle, the oldest hang over the rim.
            const float age = static_cast<float>(i) / static_cast<float>(count - 1);
            const float vary = hashedUnit(static_cast<int>(plant), i, 7);
            const float azimuth = GoldenAngle * static_cast<float>(i) + static_cast<float>(plant);
            const QVector3D outwards(std::sin(azimuth), 0.0F, std::cos(azimuth));
            const QVector3D root =
                places[plant] + QVector3D(0.0F, SoilY, 0.0F) + outwards * (0.03F + 0.06F * age);
            addShoot(mesh,
                     Growth{root, azimuth, 1.45F - 0.65F * age, scale * (0.7F + 0.3F * vary - 0.1F * age),
                            0.75F + 0.7F * age + 0.2F * vary});
        }
    };
    mesh.beginObject("fronds", "frond");
    for (std::size_t plant = 0; plant < places.size(); ++plant) {
        if (plant != BroadLeaved) {
            grow(plant, 14, 1.0F, addFrond);
        }
    }
    mesh.beginObject("leaves", "leaf");
    grow(BroadLeaved, 12, 0.75F, addBroadLeaf);
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
    addCurtains(mesh);
    addPlants(mesh);
    addSpheres(mesh);
}

} // namespace Morvane::Qel
