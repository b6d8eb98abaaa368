#pragma once

#include <QByteArray>
#include <QHash>
#include <QVector2D>
#include <QVector3D>

#include <initializer_list>

namespace Morvane::Qel {

/// A corner of a face: position in metres, unit normal, and texture coordinates in metres along the surface
/// (the object's metresPerRepeat turns them into repeats of the texture).
struct Vertex
{
    QVector3D position;
    QVector3D normal;
    QVector2D uv;
};

/// Collects objects and writes them as OBJ text.
///
/// Positions, texture coordinates and normals that are equal as text are written once, which keeps repeated
/// shapes small and adjacent shapes free of cracks. The text depends only on the order of the calls.
class MeshBuilder
{
public:
    explicit MeshBuilder(const QByteArray& materialLibrary);

    /// Starts an object of one material; the faces that follow belong to it.
    void beginObject(const QByteArray& name, const QByteArray& material, float metresPerRepeat = 1.0F);

    /// Adds a face with corners counter-clockwise as seen from the front. Coincident corners are merged: a
    /// quad at a pole becomes a triangle, and a face without area is dropped.
    void addQuad(const Vertex& a, const Vertex& b, const Vertex& c, const Vertex& d);

    QByteArray obj() const { return m_text; }
    int objectCount() const { return m_objectCount; }
    int triangleCount() const { return m_triangleCount; }

private:
    using Indices = QHash<QByteArray, int>;
    int indexOf(Indices& known, const char* keyword, std::initializer_list<float> values, int decimals);

    QByteArray m_text;
    Indices m_positions;
    Indices m_uvs;
    Indices m_normals;
    float m_metresPerRepeat = 1.0F;
    int m_objectCount = 0;
    int m_triangleCount = 0;
};

} // namespace Morvane::Qel
