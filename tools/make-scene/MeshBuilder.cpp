#include "MeshBuilder.h"

#include <vector>

namespace Morvane::Qel {

namespace {

constexpr int PositionDecimals = 4;
constexpr int UvDecimals = 3;
constexpr int NormalDecimals = 3;

/// Returns the shortest text of a number rounded to this many decimals, without trailing zeros or negative
/// zero.
QByteArray shortNumber(float value, int decimals)
{
    QByteArray text = QByteArray::number(static_cast<double>(value), 'f', decimals);
    while (text.endsWith('0')) {
        text.chop(1);
    }
    if (text.endsWith('.')) {
        text.chop(1);
    }
    return text == "-0" ? QByteArray("0") : text;
}

} // namespace

MeshBuilder::MeshBuilder(const QByteArray& materialLibrary)
    : m_text("mtllib " + materialLibrary + '\n')
{
}

void MeshBuilder::beginObject(const QByteArray& name, const QByteArray& material, float metresPerRepeat)
{
    m_text += "o " + name + "\nusemtl " + material + '\n';
    m_metresPerRepeat = metresPerRepeat;
    ++m_objectCount;
}

void MeshBuilder::addQuad(const Vertex& a, const Vertex& b, const Vertex& c, const Vertex& d)
{
    struct Corner
    {
        int position, uv, normal;
    };
    std::vector<Corner> corners;
    for (const Vertex& vertex : {a, b, c, d}) {
        const QVector3D& p = vertex.position;
        const int position = indexOf(m_positions, "v", {p.x(), p.y(), p.z()}, PositionDecimals);
        if (!corners.empty() &&
            (corners.back().position == position || corners.front().position == position)) {
            continue;
        }
        const QVector2D uv = vertex.uv / m_metresPerRepeat;
        const QVector3D& n = vertex.normal;
        corners.push_back({position, indexOf(m_uvs, "vt", {uv.x(), uv.y()}, UvDecimals),
                           indexOf(m_normals, "vn", {n.x(), n.y(), n.z()}, NormalDecimals)});
    }
    if (corners.size() < 3) {
        return;
    }
    m_text += 'f';
    for (const Corner& corner : corners) {
        m_text += ' ' + QByteArray::number(corner.position) + '/' + QByteArray::number(corner.uv) + '/' +
                  QByteArray::number(corner.normal);
    }
    m_text += '\n';
    m_triangleCount += static_cast<int>(corners.size()) - 2;
}

int MeshBuilder::indexOf(Indices& known, const char* keyword, std::initializer_list<float> values,
                         int decimals)
{
    QByteArray line(keyword);
    for (const float value : values) {
        line += ' ' + shortNumber(value, decimals);
    }
    const auto found = known.constFind(line);
    if (found != known.constEnd()) {
        return *found;
    }
    m_text += line + '\n';
    const int index = static_cast<int>(known.size()) + 1;
    known.insert(line, index);
    return index;
}

} // namespace Morvane::Qel
