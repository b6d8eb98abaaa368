#include <Qel/RenderPasses/geometry/PrimitiveBuilderRenderPass.h>

#include <QSharedPointer>

#include <array>
#include <numeric>
#include <span>
#include <utility>

#include <epoxy/gl.h>

#include <Qel/gl/BufferObject.h>
#include <Qel/gl/DrawBuffers.h>
#include <Qel/gl/Guards.h>
#include <Qel/gl/OpenGLDeviceContext.h>
#include <Qel/gl/ResourceScope.h>
#include <Qel/gl/VertexArrayObject.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

struct Vertex
{
    std::array<float, 3> position;
    std::array<float, 3> normal;
    std::array<float, 2> texCoord;
};

/// A shape of size 1, centred on the origin.
struct Shape
{
    std::span<const Vertex> vertices;
    std::span<const unsigned int> indices;
};

constexpr std::array<float, 3> minusZ{0, 0, -1};
constexpr std::array<Vertex, 4> quadVertices{{
    {{-1, -1, 0}, minusZ, {0, 0}},
    {{-1, 1, 0}, minusZ, {0, 1}},
    {{1, -1, 0}, minusZ, {1, 0}},
    {{1, 1, 0}, minusZ, {1, 1}},
}};
constexpr std::array<unsigned int, 6> quadIndices{0, 1, 2, 1, 2, 3};

constexpr size_t verticesPerFace = 6;
constexpr size_t numCubeVertices = 6 * verticesPerFace;

/// Faces z-, z+, x-, x+, y-, y+, each of two triangles that share no vertex.
constexpr std::array<Vertex, numCubeVertices> makeCubeVertices()
{
    // The corners of a face, as signs along its first and second axis.
    constexpr std::array<std::array<float, 2>, verticesPerFace> corners{
        {{-1, -1}, {-1, 1}, {1, -1}, {-1, 1}, {1, -1}, {1, 1}}};
    // Normal axis, first axis, second axis.
    constexpr std::array<std::array<size_t, 3>, 3> axes{{{2, 0, 1}, {0, 2, 1}, {1, 2, 0}}};
    std::array<Vertex, numCubeVertices> vertices{};
    for (size_t face = 0; face < 6; ++face) {
        const auto [normalAxis, firstAxis, secondAxis] = axes[face / 2];
        const float side = face % 2 == 0 ? -1.0F : 1.0F;
        const auto f = static_cast<float>(face);
        for (size_t i = 0; i < verticesPerFace; ++i) {
            const auto [first, second] = corners[i];
            Vertex& vertex = vertices[face * verticesPerFace + i];
            vertex.position[normalAxis] = 0.5F * side;
            vertex.position[firstAxis] = 0.5F * first;
            vertex.position[secondAxis] = 0.5F * second;
            vertex.normal[normalAxis] = side;
            // Deliberate: each face has its own unit square on the diagonal, so the coordinate tells the
            // face.
            vertex.texCoord = {first < 0 ? f + 1 : f, second < 0 ? f + 1 : f};
        }
    }
    return vertices;
}
constexpr std::array<Vertex, numCubeVertices> cubeVertices = makeCubeVertices();

constexpr std::array<unsigned int, numCubeVertices> makeCubeIndices()
{
    std::array<unsigned int, numCubeVertices> indices{};
    std::iota(indices.begin(), indices.end(), 0U);
    return indices;
}
constexpr std::array<unsigned int, numCubeVertices> cubeIndices = makeCubeIndices();

Shape shapeOf(PrimitiveBuilderRenderPass::PrimitiveType type)
{
    return type == PrimitiveBuilderRenderPass::Cube ? Shape{cubeVertices, cubeIndices}
                                                    : Shape{quadVertices, quadIndices};
}

/// The contents of a batch, laid out for upload.
struct Arrays
{
    std::vector<float> positions;
    std::vector<float> normals;
    std::vector<float> texCoords;
    std::vector<unsigned int> indices;
    std::vector<DrawElementsIndirectCommand> commands;

    explicit Arrays(const std::vector<PrimitiveBuilderRenderPass::PrimitiveInfo>& primitives);

private:
    void append(const PrimitiveBuilderRenderPass::PrimitiveInfo& primitive);
};

Arrays::Arrays(const std::vector<PrimitiveBuilderRenderPass::PrimitiveInfo>& primitives)
{
    size_t numVertices = 0;
    size_t numIndices = 0;
    for (const auto& primitive : primitives) {
        const Shape shape = shapeOf(primitive.type);
        numVertices += shape.vertices.size();
        numIndices += shape.indices.size();
    }
    positions.reserve(3 * numVertices);
    normals.reserve(3 * numVertices);
    texCoords.reserve(2 * numVertices);
    indices.reserve(numIndices);
    commands.reserve(primitives.size());
    for (const auto& primitive : primitives) {
        append(primitive);
    }
}

void Arrays::append(const PrimitiveBuilderRenderPass::PrimitiveInfo& primitive)
{
    const Shape shape = shapeOf(primitive.type);
    const auto firstVertex = static_cast<unsigned int>(positions.size() / 3);
    const auto firstIndex = static_cast<unsigned int>(indices.size());
    // Deliberate: the indices below already count from the first vertex of the batch, so an indirect draw
    // adds the base vertex twice.
    commands.emplace_back(static_cast<unsigned int>(shape.indices.size()), 1, firstIndex, firstVertex, 0);
    for (const Vertex& vertex : shape.vertices) {
        for (size_t axis = 0; axis < 3; ++axis) {
            positions.push_back(vertex.position[axis] * primitive.size +
                                primitive.position[static_cast<int>(axis)]);
        }
        // A negative size turns the shape inside out but leaves the normals.
        normals.insert(normals.end(), vertex.normal.begin(), vertex.normal.end());
        texCoords.insert(texCoords.end(), vertex.texCoord.begin(), vertex.texCoord.end());
    }
    for (const unsigned int index : shape.indices) {
        indices.push_back(firstVertex + index);
    }
}

} // namespace

const PassDescription& PrimitiveBuilderRenderPass::description()
{
    static const PassDescription description{
        .type = u"PrimitiveBuilderRenderPass"_s,
        .summary = u"Makes a batch of cubes and quads for passes that draw geometry."_s,
        .inputs = {},
        .outputs = {{.name = u"Qel_QelDrawBuffers*_Geometry"_s,
                     .meaning = u"all primitives in one batch, with world-space positions, normals and "
                                "texture coordinates; owned by the pass until the primitives change; null "
                                "until a primitive is added or an option is set"_s}},
        .options = {
            {.name = u"primitives"_s,
             .meaning = u"the cubes and quads, in drawing order"_s,
             .defaultValue = QVariantList(),
             .members = {{.name = u"type"_s,
                          .meaning = u"a cube has edges of length size; a quad spans 2 x size in x "
                                     "and y and faces -z"_s,
                          .defaultValue = u"cube"_s,
                          .choices = {u"cube"_s, u"quad"_s}},
                         {.name = u"size"_s, .meaning = u"scale of the unit shape"_s, .defaultValue = 1.0F},
                         {.name = u"position"_s,
                          .meaning = u"the centre, in world space"_s,
                          .defaultValue = QVector3D()}}},
            {.name = u"useIndirectDrawCommands"_s,
             .meaning = u"whether the batch also gets one indirect draw command for each "
                        "primitive"_s,
             .defaultValue = true}}};
    return description;
}

PrimitiveBuilderRenderPass::PrimitiveBuilderRenderPass()
{
    declarePorts(description());
}

PrimitiveBuilderRenderPass::~PrimitiveBuilderRenderPass() = default;

void PrimitiveBuilderRenderPass::addQuad(float size, const QVector3D& position)
{
    m_primitives.emplace_back(Quad, size, position);
    m_dirty = true;
}

void PrimitiveBuilderRenderPass::addCube(float size, const QVector3D& position)
{
    m_primitives.emplace_back(Cube, size, position);
    m_dirty = true;
}

void PrimitiveBuilderRenderPass::setUseIndirectDrawCommands(bool use)
{
    m_useIndirectDrawCommands = use;
    m_dirty = true;
}

void PrimitiveBuilderRenderPass::start(RenderCallbacks* /*callbacks*/)
{
    if (m_dirty) {
        m_dirty = false;
        rebuild();
    }
    m_outputs[Geometry].value = QVariant::fromValue<QObject*>(m_batch);
}

void PrimitiveBuilderRenderPass::rebuild()
{
    delete std::exchange(m_batch, nullptr);
    const Arrays arrays(m_primitives);
    const auto numIndices = static_cast<int>(arrays.indices.size());
    const auto vertexArray = OpenGLDeviceContext::current()->createVertexArray();
    m_batch = new DrawBuffers(nullptr);
    ResourceScope::leave(m_batch);
    m_batch->setVAO(vertexArray);

    const auto indexBuffer = QSharedPointer<BufferObject>::create(GL_ELEMENT_ARRAY_BUFFER);
    m_batch->setIndexedDraw(indexBuffer, numIndices, GL_UNSIGNED_INT);
    const AutoBinder vertexArrayBinder(vertexArray);
    indexBuffer->uploadGLuintData(arrays.indices.data(), numIndices, GL_STATIC_DRAW);
    const auto uploadAttribute = [&](const QString& name, const std::vector<float>& values, int components) {
        const auto buffer = QSharedPointer<BufferObject>::create(GL_ARRAY_BUFFER);
        vertexArray->upload(name, buffer, components, GL_FLOAT);
        buffer->upload(values.data(), static_cast<int>(values.size()), GL_STATIC_DRAW);
    };
    uploadAttribute(u"va_Vertex"_s, arrays.positions, 3);
    uploadAttribute(u"va_TexCoord"_s, arrays.texCoords, 2);
    uploadAttribute(u"va_Normal"_s, arrays.normals, 3);

    m_batch->setPrimitiveType(GL_TRIANGLES);
    if (m_useIndirectDrawCommands) {
        m_batch->setDrawElementsIndirectCommands(arrays.commands.data(),
                                                 static_cast<int>(arrays.commands.size()));
    }
}

} // namespace Morvane::Qel
