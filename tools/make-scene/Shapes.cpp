#include "Shapes.h"

#include <algorithm>
#include <cmath>

namespace Morvane::Qel {

namespace {

struct ProfilePoint
{
    QVector2D point;
    QVector2D normal;
    float length;
};

/// The profile's spans with normals and the length along the profile so far.
std::vector<std::vector<ProfilePoint>> measured(const Profile& profile)
{
    std::vector<std::vector<ProfilePoint>> spans;
    float length = 0.0F;
    for (const std::vector<QVector2D>& span : profile) {
        std::vector<ProfilePoint> points;
        for (std::size_t i = 0; i < span.size(); ++i) {
            const QVector2D before = span[i == 0 ? 0 : i - 1];
            const QVector2D after = span[std::min(i + 1, span.size() - 1)];
            const QVector2D along = (after - before).normalized();
            length += (span[i] - before).length();
            points.push_back({span[i], QVector2D(along.y(), -along.x()), length});
        }
        spans.push_back(points);
    }
    return spans;
}

int lastIndex(const std::vector<ProfilePoint>& span)
{
    return static_cast<int>(span.size()) - 1;
}

/// One step of the outline of an opening, from left to right.
struct OutlineStep
{
    float s, bottom, top;
    QVector2D outwards;
};

std::vector<OutlineStep> outline(const Opening& opening, int steps)
{
    std::vector<OutlineStep> result;
    for (int i = 0; i <= steps; ++i) {
        const float angle = Pi * (1.0F - static_cast<float>(i) / static_cast<float>(steps));
        const QVector2D outwards(std::cos(angle), std::sin(angle));
        const float rise = opening.radius * outwards.y();
        result.push_back({opening.centre + opening.radius * outwards.x(),
                          opening.sill.value_or(opening.spring - rise), opening.spring + rise, outwards});
    }
    return result;
}

void addWallFace(MeshBuilder& mesh, const Frame& frame, const Extent& extent,
                 const std::vector<OutlineStep>& steps)
{
    const auto vertex = [&](float s, float t) {
        return Vertex{frame.at(s, t), frame.normal(), QVector2D(s, t)};
    };
    const auto strip = [&](float s0, float bottom0, float top0, float s1, float bottom1, float top1) {
        mesh.addQuad(vertex(s0, bottom0), vertex(s1, bottom1), vertex(s1, top1), vertex(s0, top0));
    };
    for (std::size_t i = 1; i < steps.size(); ++i) {
        const OutlineStep& a = steps[i - 1];
        const OutlineStep& b = steps[i];
        strip(a.s, extent.bottom, a.bottom, b.s, extent.bottom, b.bottom);
        strip(a.s, a.top, extent.top, b.s, b.top, extent.top);
    }
    const auto side = [&](float s0, float s1, const OutlineStep& step) {
        strip(s0, extent.bottom, step.bottom, s1, extent.bottom, step.bottom);
        strip(s0, step.bottom, step.top, s1, step.bottom, step.top);
        strip(s0, step.top, extent.top, s1, step.top, extent.top);
    };
    side(extent.left, steps.front().s, steps.front());
    side(steps.back().s, extent.right, steps.back());
}

void addReveal(MeshBuilder& mesh, const Frame& front, float thickness, const Extent& extent,
               const Opening& opening, const std::vector<OutlineStep>& steps)
{
    const int last = static_cast<int>(steps.size()) - 1;
    const float stepLength = Pi * opening.radius / static_cast<float>(last);
    const auto inwards = [&](const OutlineStep& step, float turn) {
        return -(front.right * step.outwards.x() + front.up * (step.outwards.y() * turn));
    };
    addPatch(mesh, last, 1, [&](int column, int row) {
        const OutlineStep& step = steps[static_cast<std::size_t>(column)];
        const float depth = row == 0 ? -thickness : 0.0F;
        return Vertex{front.at(step.s, step.top, depth), inwards(step, 1.0F),
                      QVector2D(static_cast<float>(column) * stepLength, depth)};
    });
    const bool openBelow = opening.sill && *opening.sill <= extent.bottom;
    if (!openBelow) {
        addPatch(mesh, last, 1, [&](int column, int row) {
            const OutlineStep& step = steps[static_cast<std::size_t>(column)];
            const float depth = row == 0 ? 0.0F : -thickness;
            return Vertex{front.at(step.s, step.bottom, depth),
                          opening.sill ? front.up : inwards(step, -1.0F),
                          QVector2D(static_cast<float>(column) * stepLength, -depth)};
        });
    }
    const auto jamb = [&](const OutlineStep& step, const QVector3D& normal, float depth0, float depth1) {
        addPatch(mesh, 1, 1, [&](int column, int row) {
            const float t = column == 0 ? step.bottom : step.top;
            const float depth = row == 0 ? depth0 : depth1;
            return Vertex{front.at(step.s, t, depth), normal, QVector2D(t, depth)};
        });
    };
    jamb(steps.front(), front.right, -thickness, 0.0F);
    jamb(steps.back(), -front.right, 0.0F, -thickness);
}

} // namespace

void addPatch(MeshBuilder& mesh, int columns, int rows, const std::function<Vertex(int, int)>& at)
{
    for (int row = 0; row < rows; ++row) {
        for (int column = 0; column < columns; ++column) {
            mesh.addQuad(at(column, row), at(column + 1, row), at(column + 1, row + 1), at(column, row + 1));
        }
    }
}

void addBox(MeshBuilder& mesh, const QVector3D& low, const QVector3D& high)
{
    const QVector3D size = high - low;
    for (int axis = 0; axis < 3; ++axis) {
        const int across = (axis + 1) % 3;
        const int along = (axis + 2) % 3;
        const bool grainAcross = size[across] >= size[along];
        for (const bool isHigh : {false, true}) {
            QVector3D normal;
            normal[axis] = isHigh ? 1.0F : -1.0F;
            const auto corner = [&](bool acrossHigh, bool alongHigh) {
                QVector3D p;
                p[axis] = isHigh ? high[axis] : low[axis];
                p[across] = acrossHigh ? high[across] : low[across];
                p[along] = alongHigh ? high[along] : low[along];
                const QVector2D uv =
                    grainAcross ? QVector2D(p[across], p[along]) : QVector2D(p[along], p[across]);
                return Vertex{p, normal, uv};
            };
            // (across, along, axis) is right-handed, so this order faces the high end of the axis.
            if (isHigh) {
                mesh.addQuad(corner(false, false), corner(true, false), corner(true, true),
                             corner(false, true));
            } else {
                mesh.addQuad(corner(false, false), corner(false, true), corner(true, true),
                             corner(true, false));
            }
        }
    }
}

void addLathe(MeshBuilder& mesh, const QVector3D& foot, const Profile& profile, int sides)
{
    float widest = 0.0F;
    for (const std::vector<QVector2D>& span : profile) {
        for (const QVector2D& point : span) {
            widest = std::max(widest, point.x());
        }
    }
    for (const std::vector<ProfilePoint>& span : measured(profile)) {
        addPatch(mesh, sides, lastIndex(span), [&](int column, int row) {
            const ProfilePoint& p = span[static_cast<std::size_t>(row)];
            const float turn = 2.0F * Pi * static_cast<float>(column) / static_cast<float>(sides);
            const QVector3D outwards(std::sin(turn), 0.0F, std::cos(turn));
            const QVector3D up(0.0F, 1.0F, 0.0F);
            return Vertex{foot + outwards * p.point.x() + up * p.point.y(),
                          outwards * p.normal.x() + up * p.normal.y(), QVector2D(turn * widest, p.length)};
        });
    }
}

void addSphere(MeshBuilder& mesh, const QVector3D& centre, float radius, int sides)
{
    const int rows = sides / 2;
    addPatch(mesh, sides, rows, [&](int column, int row) {
        const float turn = 2.0F * Pi * static_cast<float>(column) / static_cast<float>(sides);
        const float rise = Pi * static_cast<float>(row) / static_cast<float>(rows);
        const QVector3D normal(std::sin(turn) * std::sin(rise), -std::cos(rise),
                               std::cos(turn) * std::sin(rise));
        return Vertex{centre + normal * radius, normal, QVector2D(turn, rise) * radius};
    });
}

void addBar(MeshBuilder& mesh, const QVector3D& from, const QVector3D& to, float halfWidth, float halfHeight,
            int sides)
{
    const QVector3D along = (to - from).normalized();
    const QVector3D up(0.0F, 1.0F, 0.0F);
    const QVector3D across = QVector3D::crossProduct(along, up);
    const float length = (to - from).length();
    // Seen along the bar, the section is walked clockwise, which turns the patch outwards.
    addPatch(mesh, 1, sides, [&](int column, int row) {
        const float turn = 2.0F * Pi * static_cast<float>(row) / static_cast<float>(sides);
        const QVector3D offset = across * (halfWidth * std::cos(turn)) + up * (halfHeight * std::sin(turn));
        const QVector3D normal =
            (across * (std::cos(turn) / halfWidth) + up * (std::sin(turn) / halfHeight)).normalized();
        return Vertex{(column == 0 ? from : to) + offset, normal,
                      QVector2D(column == 0 ? 0.0F : length, turn * halfWidth)};
    });
}

void addRing(MeshBuilder& mesh, const QVector3D& centre, const QVector3D& axis, float radius, float thickness,
             int steps, int sides)
{
    const QVector3D up(0.0F, 1.0F, 0.0F);
    const QVector3D side = QVector3D::crossProduct(up, axis);
    addPatch(mesh, steps, sides, [&](int column, int row) {
        const float around = 2.0F * Pi * static_cast<float>(column) / static_cast<float>(steps);
        const float turn = 2.0F * Pi * static_cast<float>(row) / static_cast<float>(sides);
        const QVector3D outwards = side * std::cos(around) + up * std::sin(around);
        const QVector3D normal = outwards * std::cos(turn) + axis * std::sin(turn);
        return Vertex{centre + outwards * radius + normal * thickness, normal,
                      QVector2D(around * radius, turn * thickness)};
    });
}

void addWall(MeshBuilder& mesh, const Frame& front, float thickness, const Extent& extent,
             const Opening& opening, int steps)
{
    const std::vector<OutlineStep> steppedOutline = outline(opening, steps);
    addWallFace(mesh, front, extent, steppedOutline);
    addReveal(mesh, front, thickness, extent, opening, steppedOutline);

    const Frame back{front.at(0.0F, 0.0F, -thickness), -front.right, front.up};
    Opening mirrored = opening;
    mirrored.centre = -opening.centre;
    addWallFace(mesh, back, {-extent.right, -extent.left, extent.bottom, extent.top},
                outline(mirrored, steps));
}

void addArchMoulding(MeshBuilder& mesh, const Frame& front, const Opening& opening, const Profile& profile,
                     int steps)
{
    const std::vector<OutlineStep> steppedOutline = outline(opening, steps);
    const float stepLength = Pi * opening.radius / static_cast<float>(steps);
    for (const std::vector<ProfilePoint>& span : measured(profile)) {
        addPatch(mesh, steps, lastIndex(span), [&](int column, int row) {
            const ProfilePoint& p = span[static_cast<std::size_t>(row)];
            const OutlineStep& step = steppedOutline[static_cast<std::size_t>(column)];
            const QVector3D outwards = front.right * step.outwards.x() + front.up * step.outwards.y();
            return Vertex{front.at(opening.centre, opening.spring, p.point.x()) +
                              outwards * (opening.radius + p.point.y()),
                          front.normal() * p.normal.x() + outwards * p.normal.y(),
                          QVector2D(static_cast<float>(column) * stepLength, p.length)};
        });
    }
}

} // namespace Morvane::Qel
