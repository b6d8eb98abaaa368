#pragma once

#include "MeshBuilder.h"

#include <functional>
#include <optional>
#include <vector>

namespace Morvane::Qel {

constexpr float Pi = 3.14159265F;

/// A plane to build on: s runs to the right, t upwards and depth towards the viewer.
struct Frame
{
    QVector3D origin;
    QVector3D right;
    QVector3D up;

    QVector3D normal() const { return QVector3D::crossProduct(right, up); }
    QVector3D at(float s, float t, float depth = 0.0F) const
    {
        return origin + right * s + up * t + normal() * depth;
    }
};

/// A rectangle of a frame, in metres.
struct Extent
{
    float left, right, bottom, top;
};

/// A hole in a wall: with a sill, a round-headed opening whose sides run straight down from the springing
/// line to it; without one, a full circle around (centre, spring).
struct Opening
{
    float centre;
    float spring;
    float radius;
    std::optional<float> sill;
};

/// The outline of a turned or swept form: smooth spans that meet in creases. A point's x is the distance from
/// the axis (or the wall), its y runs along it. The surface faces to the right of the direction of travel.
using Profile = std::vector<std::vector<QVector2D>>;

/// Adds columns x rows quads between the vertices `at(column, row)`; they face the cross product of the
/// column and the row direction.
void addPatch(MeshBuilder& mesh, int columns, int rows, const std::function<Vertex(int, int)>& at);

/// A box between two corners. The texture's u runs along the longer edge of every side, as grain does.
void addBox(MeshBuilder& mesh, const QVector3D& low, const QVector3D& high);

/// A profile (x radius, y height) turned around the upright axis through `foot`.
void addLathe(MeshBuilder& mesh, const QVector3D& foot, const Profile& profile, int sides);

void addSphere(MeshBuilder& mesh, const QVector3D& centre, float radius, int sides);

/// A straight level bar of elliptic section. Both ends are open and must lie inside other geometry.
void addBar(MeshBuilder& mesh, const QVector3D& from, const QVector3D& to, float halfWidth, float halfHeight,
            int sides);

/// A ring of round section around `centre`, whose hole faces `axis` (level).
void addRing(MeshBuilder& mesh, const QVector3D& centre, const QVector3D& axis, float radius, float thickness,
             int steps, int sides);

/// Both faces of a wall and the reveal of the opening in it. An opening whose sill is the wall's lower edge
/// is open below.
void addWall(MeshBuilder& mesh, const Frame& front, float thickness, const Extent& extent,
             const Opening& opening, int steps);

/// A moulding around the round head of an opening: the profile's x is the height above the wall, y the
/// distance from the opening's edge.
void addArchMoulding(MeshBuilder& mesh, const Frame& front, const Opening& opening, const Profile& profile,
                     int steps);

} // namespace Morvane::Qel
