#include "Hall.h"

#include "Shapes.h"

#include <algorithm>
#include <cmath>

namespace Morvane::Qel {

namespace {

using namespace HallSize;

// Seams between parts that were cut at different places lie inside a moulding, a beam or another wall: parts
// reach into each other by a few centimetres instead of meeting edge to edge, and nothing shines through.
constexpr float Embed = 0.02F;

constexpr float HalfWidth = 4.0F;
constexpr float OuterThickness = 0.2F;
constexpr float NaveX = 2.4F;
constexpr float ArcadeThickness = 2.0F * (ColumnX - NaveX);
constexpr float AisleX = NaveX + ArcadeThickness;
constexpr float CeilingY = 5.0F;
constexpr float RoofThickness = 0.15F;
constexpr float AisleVaultSpring = 3.3F;
constexpr float AisleVaultRise = 0.3F;
constexpr float AisleRoofY = AisleVaultSpring + AisleVaultRise + Embed;
constexpr float CapitalY = 2.15F;
constexpr float StringCourseY = 3.46F;
constexpr float PierHalfWidth = 0.22F;
constexpr float PilasterX = HalfWidth - 0.12F;
constexpr float SkylightHalfWidth = 0.8F;
constexpr float PortalHalfWidth = 1.1F;
constexpr float CrossArchThickness = 0.36F;

constexpr QVector3D UpY(0.0F, 1.0F, 0.0F);

constexpr Opening ArcadeArch{0.0F, CapitalY, BayLength / 2.0F - PierHalfWidth, CapitalY - 0.05F};
constexpr Opening Clerestory{0.0F, 4.3F, 0.45F, 3.85F};
constexpr Opening AisleWindow{0.0F, 2.15F, 0.38F, 1.3F};
constexpr Opening Portal{0.0F, 2.3F, PortalHalfWidth, -Embed};
constexpr Opening RoundWindow{0.0F, 4.3F, 0.45F, std::nullopt};
constexpr Opening RoseWindow{0.0F, 3.4F, 0.95F, std::nullopt};
constexpr Opening CrossArch{0.0F, 2.45F, 2.15F, 2.4F};

/// The inner side of a long wall at distance x from the axis, seen from the nave; s runs along the hall.
Frame longWall(float side, float x)
{
    return {QVector3D(side * x, 0.0F, 0.0F), QVector3D(0.0F, 0.0F, side), UpY};
}

/// A box given by its distances from the hall's axis, on one side of it.
void addSideBox(MeshBuilder& mesh, float side, float x0, float x1, float y0, float y1, float z0, float z1)
{
    const auto [low, high] = std::minmax({side * x0, side * x1});
    addBox(mesh, {low, y0, z0}, {high, y1, z1});
}

/// One wall panel per bay; the outermost ones reach into the end walls.
void addBays(MeshBuilder& mesh, const Frame& front, float thickness, float bottom, float top, Opening opening,
             int steps)
{
    for (int bay = 0; bay < Bays; ++bay) {
        const float left = columnLineZ(bay) - (bay == 0 ? Embed : 0.0F);
        const float right = columnLineZ(bay + 1) + (bay == Bays - 1 ? Embed : 0.0F);
        opening.centre = columnLineZ(bay) + BayLength / 2.0F;
        addWall(mesh, front, thickness, {left, right, bottom, top}, opening, steps);
    }
}

void addFloor(MeshBuilder& mesh)
{
    constexpr float TextureSize = 2.0F;
    constexpr float Step = 0.5F;
    mesh.beginObject("floor", "floor_tiles", TextureSize);
    addPatch(mesh, static_cast<int>(2.0F * HalfWidth / Step), static_cast<int>(2.0F * HalfLength / Step),
             [](int column, int row) {
                 const float x = static_cast<float>(column) * Step - HalfWidth;
                 const float z = HalfLength - static_cast<float>(row) * Step;
                 return Vertex{QVector3D(x, 0.0F, z), UpY, QVector2D(x, -z)};
             });

    mesh.beginObject("foundation", "stone");
    const float x = HalfWidth + OuterThickness;
    const float z = HalfLength + OuterThickness;
    addBox(mesh, {-x, -0.2F, -z}, {x, -Embed / 2.0F, z});
    addBox(mesh, {-PortalHalfWidth - 0.1F, -0.1F, -z - 0.2F},
           {PortalHalfWidth + 0.1F, 0.015F, -HalfLength + 0.1F});
}

void addPlasteredWalls(MeshBuilder& mesh)
{
    mesh.beginObject("walls", "plaster", 2.0F);
    for (const float side : {-1.0F, 1.0F}) {
        addBays(mesh, longWall(side, HalfWidth), OuterThickness, -Embed, AisleRoofY + Embed, AisleWindow, 12);
        addBays(mesh, longWall(side, NaveX), ArcadeThickness, StringCourseY, CeilingY + Embed, Clerestory,
                12);
    }

    const float x = HalfWidth + OuterThickness;
    const float top = CeilingY + RoofThickness;
    const Frame portalWall{{0.0F, 0.0F, -HalfLength}, {1.0F, 0.0F, 0.0F}, UpY};
    addWall(mesh, portalWall, OuterThickness, {-x, x, -Embed, StringCourseY + 0.06F}, Portal, 32);
    addWall(mesh, portalWall, OuterThickness, {-x, x, StringCourseY + 0.06F, top}, RoundWindow, 32);
    const Frame roseWall{{0.0F, 0.0F, HalfLength}, {-1.0F, 0.0F, 0.0F}, UpY};
    addWall(mesh, roseWall, OuterThickness, {-x, x, -Embed, top}, RoseWindow, 32);
}

void addArcadeWalls(MeshBuilder& mesh)
{
    mesh.beginObject("arcades", "stone");
    for (const float side : {-1.0F, 1.0F}) {
        const Frame front = longWall(side, NaveX);
        addBays(mesh, front, ArcadeThickness, *ArcadeArch.sill, StringCourseY, ArcadeArch, 20);
    }
    constexpr float Thickness = 0.3F;
    for (const float side : {-1.0F, 1.0F}) {
        const Opening arch{side * (AisleX + PilasterX) / 2.0F, 2.5F, (PilasterX - AisleX) / 2.0F, 2.45F};
        const auto [left, right] = std::minmax({side * (AisleX - Embed), side * (HalfWidth + Embed)});
        for (int line = 1; line < Bays; ++line) {
            const Frame front{{0.0F, 0.0F, columnLineZ(line) + Thickness / 2.0F}, {1.0F, 0.0F, 0.0F}, UpY};
            addWall(mesh, front, Thickness, {left, right, *arch.sill, AisleRoofY}, arch, 12);
        }
    }

    mesh.beginObject("cross_arch", "stone");
    const Frame front{{0.0F, 0.0F, CrossArchZ + CrossArchThickness / 2.0F}, {1.0F, 0.0F, 0.0F}, UpY};
    const float reach = NaveX + Embed;
    addWall(mesh, front, CrossArchThickness, {-reach, reach, *CrossArch.sill, CeilingY + Embed}, CrossArch,
            40);
}

void addArchMouldings(MeshBuilder& mesh)
{
    const Profile band{{{-0.01F, 0.0F}, {0.03F, 0.0F}},
                       {{0.03F, 0.0F}, {0.03F, 0.08F}},
                       {{0.03F, 0.08F}, {0.05F, 0.1F}, {0.04F, 0.135F}, {-0.01F, 0.145F}}};
    for (const float side : {-1.0F, 1.0F}) {
        for (int bay = 0; bay < Bays; ++bay) {
            Opening arch = ArcadeArch;
            arch.centre = columnLineZ(bay) + BayLength / 2.0F;
            addArchMoulding(mesh, longWall(side, NaveX), arch, band, 20);
        }
    }
    const float z = CrossArchZ + CrossArchThickness / 2.0F;
    addArchMoulding(mesh, {{0.0F, 0.0F, z}, {1.0F, 0.0F, 0.0F}, UpY}, CrossArch, band, 40);
    addArchMoulding(mesh, {{0.0F, 0.0F, -HalfLength}, {1.0F, 0.0F, 0.0F}, UpY}, Portal, band, 32);
}

/// Adds the imposts of the portal's moulding, string courses above the arcades and below the aisle vaults,
/// and the corbels under the beams.
void addCourses(MeshBuilder& mesh)
{
    const float z = HalfLength + Embed;
    const float courseBottom = StringCourseY - 0.06F;
    const float courseTop = StringCourseY + 0.06F;
    for (const float side : {-1.0F, 1.0F}) {
        addSideBox(mesh, side, PortalHalfWidth - 0.01F, PortalHalfWidth + 0.17F, Portal.spring - 0.1F,
                   Portal.spring + 0.002F, -z, -HalfLength + 0.07F);
        addSideBox(mesh, side, NaveX - 0.06F, NaveX + 0.06F, courseBottom, courseTop, -z, z);
        addSideBox(mesh, side, NaveX - 0.03F, NaveX + 0.03F, courseBottom - 0.04F, courseBottom + Embed, -z,
                   z);
        addSideBox(mesh, side, AisleX - 0.05F, AisleX + 0.05F, AisleVaultSpring - 0.06F,
                   AisleVaultSpring + 0.02F, -z, z);
        addSideBox(mesh, side, HalfWidth - 0.05F, HalfWidth + 0.05F, AisleVaultSpring - 0.06F,
                   AisleVaultSpring + 0.02F, -z, z);
    }
    addBox(mesh, {-NaveX, courseBottom + 0.06F, -z}, {NaveX, courseTop + 0.06F, -HalfLength + 0.06F});
    for (const float side : {-1.0F, 1.0F}) {
        for (int line = 1; line < Bays; ++line) {
            if (columnLineZ(line) != CrossArchZ) {
                const float middle = columnLineZ(line);
                addSideBox(mesh, side, NaveX - 0.26F, NaveX + 0.05F, CeilingY - 0.42F, CeilingY - 0.295F,
                           middle - 0.14F, middle + 0.14F);
                addSideBox(mesh, side, NaveX - 0.14F, NaveX + 0.05F, CeilingY - 0.58F, CeilingY - 0.415F,
                           middle - 0.12F, middle + 0.12F);
            }
        }
    }
}

/// Adds the end walls' quoins and copings, which close the walls' ends.
void addQuoins(MeshBuilder& mesh)
{
    const float x = HalfWidth + OuterThickness;
    const float z = HalfLength + OuterThickness;
    const float top = CeilingY + RoofThickness;
    for (const float end : {-1.0F, 1.0F}) {
        const auto [z0, z1] = std::minmax({end * (HalfLength + 0.005F), end * (z + 0.05F)});
        for (const float side : {-1.0F, 1.0F}) {
            addSideBox(mesh, side, x - 0.1F, x + 0.05F, -0.2F, top, z0, z1);
        }
        addBox(mesh, {-x - 0.05F, top - Embed, z0}, {x + 0.05F, top + 0.08F, z1});
    }
}

void addSkirting(MeshBuilder& mesh)
{
    const float z = HalfLength + Embed;
    mesh.beginObject("skirting", "stone_dark");
    for (const float side : {-1.0F, 1.0F}) {
        addSideBox(mesh, side, HalfWidth - 0.04F, HalfWidth + 0.04F, -0.015F, 0.16F, -z, z);
        addSideBox(mesh, side, PortalHalfWidth + 0.14F, HalfWidth, -0.012F, 0.157F, -z, -HalfLength + 0.04F);
    }
    addBox(mesh, {-HalfWidth, -0.012F, HalfLength - 0.04F}, {HalfWidth, 0.157F, z});
}

void addColumns(MeshBuilder& mesh)
{
    const Profile base{{{0.29F, 0.1F}, {0.3F, 0.125F}, {0.285F, 0.155F}, {0.26F, 0.165F}},
                       {{0.26F, 0.165F}, {0.235F, 0.2F}, {0.24F, 0.235F}},
                       {{0.24F, 0.235F}, {0.25F, 0.26F}, {0.205F, 0.28F}}};
    const Profile shaft{{{0.205F, 0.28F}, {0.2F, 0.32F}, {0.195F, 1.1F}, {0.172F, 1.78F}},
                        {{0.172F, 1.78F}, {0.191F, 1.802F}, {0.172F, 1.825F}}};
    const Profile capital{{{0.172F, 1.825F}, {0.178F, 1.9F}, {0.205F, 1.975F}, {0.262F, 2.045F}}};
    constexpr int Sides = 20;
    const auto forEachColumn = [](const std::function<void(const QVector3D&)>& add) {
        for (const float side : {-1.0F, 1.0F}) {
            for (int line = 1; line < Bays; ++line) {
                add({side * ColumnX, 0.0F, columnLineZ(line)});
            }
        }
    };

    mesh.beginObject("column_bases", "stone_dark");
    forEachColumn([&](const QVector3D& foot) {
        addBox(mesh, foot + QVector3D(-0.31F, -0.005F, -0.31F), foot + QVector3D(0.31F, 0.105F, 0.31F));
        addLathe(mesh, foot, base, Sides);
    });
    mesh.beginObject("column_shafts", "marble");
    forEachColumn([&](const QVector3D& foot) { addLathe(mesh, foot, shaft, Sides); });
    mesh.beginObject("capitals", "stone_light");
    forEachColumn([&](const QVector3D& foot) {
        addLathe(mesh, foot, capital, Sides);
        addBox(mesh, foot + QVector3D(-0.27F, 2.04F, -0.27F), foot + QVector3D(0.27F, CapitalY, 0.27F));
    });

    mesh.beginObject("piers", "stone");
    const auto addPier = [&](float side, float x0, float x1, float top, float z0, float z1) {
        addSideBox(mesh, side, x0, x1, -0.005F, top - 0.1F, z0, z1);
        addSideBox(mesh, side, x0 - 0.06F, x1 + 0.06F, top - 0.105F, top, z0 - 0.06F, z1 + 0.06F);
        addSideBox(mesh, side, x0 - 0.05F, x1 + 0.05F, -0.01F, 0.2F, z0 - 0.05F, z1 + 0.05F);
    };
    for (const float side : {-1.0F, 1.0F}) {
        const float inner = HalfLength - PierHalfWidth;
        const float outer = HalfLength + 0.05F;
        addPier(side, NaveX, AisleX, CapitalY, -outer, -inner);
        addPier(side, NaveX, AisleX, CapitalY, inner, outer);
        addPier(side, CrossArch.radius, NaveX + 0.1F, CrossArch.spring,
                CrossArchZ - CrossArchThickness / 2.0F, CrossArchZ + CrossArchThickness / 2.0F);
        for (int line = 1; line < Bays; ++line) {
            addPier(side, PilasterX, HalfWidth + 0.05F, 2.5F, columnLineZ(line) - 0.15F,
                    columnLineZ(line) + 0.15F);
        }
    }
}

void addAisleVaults(MeshBuilder& mesh)
{
    mesh.beginObject("aisle_vaults", "plaster", 2.0F);
    constexpr int Across = 12;
    const float halfSpan = (HalfWidth - AisleX) / 2.0F + Embed;
    const float radius = (halfSpan * halfSpan + AisleVaultRise * AisleVaultRise) / (2.0F * AisleVaultRise);
    const float halfAngle = std::asin(halfSpan / radius);
    for (const float side : {-1.0F, 1.0F}) {
        const float middleX = side * (AisleX + HalfWidth) / 2.0F;
        const float centreY = AisleVaultSpring + AisleVaultRise - radius;
        addPatch(mesh, Across, Bays, [&](int column, int row) {
            const float angle = halfAngle * (2.0F * static_cast<float>(column) / Across - 1.0F);
            const QVector3D outwards(std::sin(angle), std::cos(angle), 0.0F);
            const float edge = row == 0 ? -Embed : (row == Bays ? Embed : 0.0F);
            const QVector3D axis(middleX, centreY, columnLineZ(row) + edge);
            return Vertex{axis + outwards * radius, -outwards, QVector2D(angle * radius, axis.z())};
        });
    }
}

void addRoofs(MeshBuilder& mesh)
{
    const float z = HalfLength + OuterThickness - 0.05F;
    const float top = CeilingY + RoofThickness;
    const float skylightZ = columnLineZ(Bays - 1);
    mesh.beginObject("ceiling", "planks", 2.0F);
    for (const float side : {-1.0F, 1.0F}) {
        addSideBox(mesh, side, SkylightHalfWidth, AisleX + 0.1F, CeilingY, top, -z, z);
    }
    addBox(mesh, {-SkylightHalfWidth, CeilingY, -z}, {SkylightHalfWidth, top, -skylightZ});
    addBox(mesh, {-SkylightHalfWidth, CeilingY, skylightZ}, {SkylightHalfWidth, top, z});

    mesh.beginObject("aisle_roofs", "stone_dark");
    for (const float side : {-1.0F, 1.0F}) {
        addSideBox(mesh, side, AisleX - 0.05F, HalfWidth + OuterThickness + 0.1F, AisleRoofY,
                   AisleRoofY + 0.1F, -z, z);
    }
}

void addBeams(MeshBuilder& mesh)
{
    mesh.beginObject("beams", "timber");
    const float z = HalfLength + Embed;
    for (int line = 0; line <= Bays; ++line) {
        if (columnLineZ(line) != CrossArchZ) {
            const float x = NaveX + 0.05F;
            addBox(mesh, {-x, CeilingY - 0.3F, columnLineZ(line) - 0.11F},
                   {x, CeilingY + 0.01F, columnLineZ(line) + 0.11F});
        }
    }
    for (const float side : {-1.0F, 1.0F}) {
        addSideBox(mesh, side, NaveX - 0.1F, NaveX + 0.05F, CeilingY - 0.14F, CeilingY + 0.015F, -z, z);
        for (const float x : {SkylightHalfWidth, 1.33F, 1.86F}) {
            addSideBox(mesh, side, x - 0.045F, x + 0.045F, CeilingY - 0.13F, CeilingY + 0.02F, -z, z);
        }
    }
}

} // namespace

void addHall(MeshBuilder& mesh)
{
    addFloor(mesh);
    addPlasteredWalls(mesh);
    addArcadeWalls(mesh);
    mesh.beginObject("mouldings", "stone_light");
    addArchMouldings(mesh);
    addCourses(mesh);
    addQuoins(mesh);
    addSkirting(mesh);
    addColumns(mesh);
    addAisleVaults(mesh);
    addRoofs(mesh);
    addBeams(mesh);
}

} // namespace Morvane::Qel
