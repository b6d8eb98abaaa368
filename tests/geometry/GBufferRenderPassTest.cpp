// The G-buffer of surfaces whose normals, depths and places are known.

#include <QMatrix4x4>
#include <QPointer>
#include <QRect>

#include <cmath>
#include <functional>
#include <memory>
#include <numbers>
#include <optional>

#include <epoxy/gl.h>

#include "support/Models.h"
#include "support/Passes.h"
#include "support/Pixels.h"
#include "support/ScopedGLTest.h"
#include <Qel/RenderPasses/geometry/GBufferRenderPass.h>
#include <Qel/gl/DrawBuffers.h>
#include <Qel/gl/OpenGLDeviceContext.h>
#include <Qel/gl/Texture.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel::Test {
namespace {

constexpr int width = 48;
constexpr int height = 40;

struct Ray
{
    QVector3D origin;
    QVector3D direction;
};

/// What a ray meets first, in the space of the surface.
struct Hit
{
    float distance = 0.0F;
    QVector3D normal;
    /// The side of a solid, -1 where there is none.
    int face = -1;
};

/// A mesh and the surface that it stands for.
struct Surface
{
    const char* name;
    MeshData mesh;
    std::function<std::optional<Hit>(const Ray&)> intersect;
    /// How far the mesh may be from the surface.
    float tolerance;
};

Surface makePlane()
{
    MeshData mesh;
    mesh.positions = {{-1, 0, -1}, {1, 0, -1}, {1, 0, 1}, {-1, 0, 1}};
    mesh.normals.assign(4, {0, 1, 0});
    mesh.texCoords = {{-1, -1}, {1, -1}, {1, 1}, {-1, 1}};
    mesh.indices = {0, 1, 2, 0, 2, 3};
    const auto intersect = [](const Ray& ray) -> std::optional<Hit> {
        const float distance = -ray.origin.y() / ray.direction.y();
        const QVector3D place = ray.origin + distance * ray.direction;
        if (!(distance > 0.0F) || std::abs(place.x()) > 1.0F || std::abs(place.z()) > 1.0F) {
            return {};
        }
        return Hit{distance, {0, 1, 0}, 0};
    };
    return {"plane", mesh, intersect, 2e-5F};
}

/// Where the ray enters the slabs of the cube from -0.5 to 0.5. Faces are numbered x-, x+, y-, ...
Surface makeBox()
{
    const auto intersect = [](const Ray& ray) -> std::optional<Hit> {
        float enter = -1e9F;
        float leave = 1e9F;
        Hit hit;
        for (int axis = 0; axis < 3; ++axis) {
            const float side = ray.direction[axis] > 0.0F ? -0.5F : 0.5F;
            const float near = (side - ray.origin[axis]) / ray.direction[axis];
            leave = std::min(leave, (-side - ray.origin[axis]) / ray.direction[axis]);
            if (near > enter) {
                enter = near;
                hit = {near, {}, 2 * axis + (side > 0.0F ? 1 : 0)};
                hit.normal[axis] = 2.0F * side;
            }
        }
        return enter < leave && enter > 0.0F ? std::optional(hit) : std::nullopt;
    };
    return {"cube", makeCube(), intersect, 2e-5F};
}

Surface makeSphere()
{
    constexpr int rings = 128;
    constexpr int sectors = 256;
    MeshData mesh;
    for (int i = 0; i <= rings; ++i) {
        const float polar = std::numbers::pi_v<float> * static_cast<float>(i) / rings;
        for (int j = 0; j <= sectors; ++j) {
            const float azimuth = 2.0F * std::numbers::pi_v<float> * static_cast<float>(j) / sectors;
            mesh.positions.emplace_back(std::sin(polar) * std::cos(azimuth), std::cos(polar),
                                        std::sin(polar) * std::sin(azimuth));
            mesh.texCoords.emplace_back(azimuth, polar);
            if (i < rings && j < sectors) {
                const auto corner = static_cast<unsigned int>(i * (sectors + 1) + j);
                for (const unsigned int offset : {0U, 1U, sectors + 1U, sectors + 1U, 1U, sectors + 2U}) {
                    mesh.indices.push_back(corner + offset);
                }
            }
        }
    }
    mesh.normals = mesh.positions;
    const auto intersect = [](const Ray& ray) -> std::optional<Hit> {
        const float a = ray.direction.lengthSquared();
        const float b = QVector3D::dotProduct(ray.origin, ray.direction);
        const float discriminant = b * b - a * (ray.origin.lengthSquared() - 1.0F);
        if (discriminant < 0.0F) {
            return {};
        }
        const float distance = (-b - std::sqrt(discriminant)) / a;
        return Hit{distance, ray.origin + distance * ray.direction, 0};
    };
    // The facets lie up to 1 - cos(pi / rings) below the sphere; seen at a slant that is more along the ray.
    return {"sphere", mesh, intersect, 4e-3F};
}

/// The mesh moved into world space: normals by the inverse transposed, which leaves them of other lengths.
MeshData transformed(MeshData mesh, const QMatrix4x4& transform)
{
    const QMatrix4x4 normalMatrix = transform.inverted().transposed();
    for (QVector3D& position : mesh.positions) {
        position = transform.map(position);
    }
    for (QVector3D& normal : mesh.normals) {
        normal = normalMatrix.mapVector(normal);
    }
    return mesh;
}

std::unique_ptr<GPUModel> makeModel(const MeshData& mesh)
{
    ModelData data;
    data.meshes = {mesh};
    data.materials.emplace_back();
    data.instances.emplace_back();
    return std::make_unique<GPUModel>(data);
}

QVariant batchOf(const GPUModel& model)
{
    return QVariant::fromValue<QObject*>(model.drawBuffers(0));
}

/// What is seen through the middle of a pixel, with the neighbourhood that decides whether an edge is near.
class View
{
public:
    View(const Surface& surface, const QMatrix4x4& transform, const QMatrix4x4& clipFromWorld)
        : m_surface(surface)
        , m_clipFromObject(clipFromWorld * transform)
        , m_objectFromClip(m_clipFromObject.inverted())
    {
    }

    Ray ray(int x, int y) const
    {
        const float u = (static_cast<float>(x) + 0.5F) / width * 2.0F - 1.0F;
        const float v = (static_cast<float>(y) + 0.5F) / height * 2.0F - 1.0F;
        const QVector3D origin = m_objectFromClip.map(QVector3D(u, v, -1));
        return {origin, m_objectFromClip.map(QVector3D(u, v, 1)) - origin};
    }
    std::optional<Hit> at(int x, int y) const { return m_surface.intersect(ray(x, y)); }
    /// Whether all that surrounds a pixel is the same face, or nothing.
    bool isInside(int x, int y) const
    {
        const auto faceAt = [&](int i, int j) {
            const std::optional<Hit> hit = at(i, j);
            return hit ? hit->face : -1;
        };
        for (const int i : {x - 1, x, x + 1}) {
            for (const int j : {y - 1, y, y + 1}) {
                if (faceAt(i, j) != faceAt(x, y)) {
                    return false;
                }
            }
        }
        return true;
    }
    float depth(int x, int y, const Hit& hit) const
    {
        const Ray seen = ray(x, y);
        return m_clipFromObject.map(seen.origin + hit.distance * seen.direction).z() * 0.5F + 0.5F;
    }

private:
    const Surface& m_surface;
    QMatrix4x4 m_clipFromObject;
    QMatrix4x4 m_objectFromClip;
};

using GBufferRenderPassTest = ScopedGLTest;

TEST_F(GBufferRenderPassTest, HoldsNormalsPlacesAndPrimitivesOfKnownSurfaces)
{
    QMatrix4x4 skewed;
    skewed.translate(0.2F, -0.1F, 0.3F);
    skewed.rotate(25.0F, 1.0F, 2.0F, -1.0F);
    skewed.scale(0.7F, 1.4F, 1.1F);
    QMatrix4x4 perspective;
    perspective.perspective(45.0F, static_cast<float>(width) / height, 1.5F, 7.0F);
    QMatrix4x4 orthographic;
    orthographic.ortho(-1.8F, 1.8F, -1.5F, 1.5F, 1.0F, 7.0F);
    QMatrix4x4 camera;
    camera.lookAt({1.9F, 2.1F, 2.6F}, {0, 0, 0}, {0, 1, 0});

    for (const Surface& surface : {makePlane(), makeBox(), makeSphere()}) {
        for (const QMatrix4x4& transform : {QMatrix4x4(), skewed}) {
            const auto model = makeModel(transformed(surface.mesh, transform));
            for (const QMatrix4x4& projection : {perspective, orthographic}) {
                SCOPED_TRACE(testing::Message()
                             << surface.name << (transform.isIdentity() ? "" : ", skewed")
                             << (projection == perspective ? ", perspective" : ", orthographic"));
                GBufferRenderPass pass;
                runFrame(pass, {QRect(0, 0, width, height), projection, camera, batchOf(*model)});
                const Pixels normals = readTexture(outputTexture(pass, GBufferRenderPass::Normal));
                const Pixels coords = readTexture(outputTexture(pass, GBufferRenderPass::TexCoord));
                const Pixels depths = readTexture(outputTexture(pass, GBufferRenderPass::Depth));
                const Pixels ids = readTexture(outputTexture(pass, GBufferRenderPass::Id));

                const View view(surface, transform, projection * camera);
                const QMatrix4x4 normalMatrix = transform.inverted().transposed();
                int numCovered = 0;
                int numFaults = 0;
                const auto expectNear = [&](float actual, float expected, const char* what, int x, int y) {
                    if (!(std::abs(actual - expected) <= surface.tolerance) && ++numFaults < 5) {
                        ADD_FAILURE()
                            << what << " at " << x << ", " << y << ": " << actual << ", not " << expected;
                    }
                };
                for (int y = 0; y < height; ++y) {
                    for (int x = 0; x < width; ++x) {
                        // A pixel at an edge may belong to either side of it.
                        if (!view.isInside(x, y)) {
                            continue;
                        }
                        const std::optional<Hit> hit = view.at(x, y);
                        const float id = ids.at(x, y).x();
                        if (!hit) {
                            EXPECT_EQ(id, 0.0F);
                            EXPECT_EQ(normals.at(x, y).toVector3D(), QVector3D());
                            EXPECT_EQ(depths.at(x, y).x(), 1.0F);
                            continue;
                        }
                        ++numCovered;
                        const QVector3D normal = normalMatrix.mapVector(hit->normal);
                        for (int axis = 0; axis < 3; ++axis) {
                            expectNear(normals.at(x, y)[axis], normal[axis], "normal", x, y);
                        }
                        expectNear(depths.at(x, y).x(), view.depth(x, y, *hit), "depth", x, y);
                        // The texture coordinate says which triangle of its two a pixel of a flat side is in.
                        const QVector2D coord = coords.at(x, y).toVector2D();
                        const Ray ray = view.ray(x, y);
                        const QVector3D place = ray.origin + hit->distance * ray.direction;
                        if (surface.mesh.indices.size() == 6) {
                            expectNear(coord.x(), place.x(), "texture coordinate", x, y);
                            expectNear(coord.y(), place.z(), "texture coordinate", x, y);
                            EXPECT_EQ(id, coord.y() < coord.x() ? 1.0F : 2.0F);
                        } else if (surface.mesh.indices.size() == 36) {
                            const int triangle = coord.x() + coord.y() < 1.0F ? 0 : 1;
                            EXPECT_EQ(id, static_cast<float>(2 * hit->face + triangle + 1));
                        }
                    }
                }
                EXPECT_GT(numCovered, 100) << "the view misses the surface";
            }
        }
    }
}

/// A square of 2 x 2 in the plane z = `z`, with the normal (0, 0, z): it tells which square a pixel shows.
std::unique_ptr<GPUModel> makeSquare(float left, float right, float z)
{
    MeshData square;
    square.positions = {{left, -1, z}, {right, -1, z}, {right, 1, z}, {left, 1, z}};
    square.normals.assign(4, {0, 0, z});
    square.texCoords.resize(4);
    square.indices = {0, 1, 2, 0, 2, 3};
    return makeModel(square);
}

TEST_F(GBufferRenderPassTest, DrawsAllBatchesOfAListInOneBuffer)
{
    // Without matrices the vertices are in clip space: the smaller z the nearer.
    const auto near = makeSquare(-1.0F, 0.0F, -0.5F);
    const auto far = makeSquare(-1.0F, 0.5F, 0.5F);
    const QRect viewport(0, 0, 8, 4);
    const auto expected = [](bool hasNear, bool hasFar) {
        return Pixels::generate(8, 4, [&](int x, int) {
            const float z = hasNear && x < 4 ? -0.5F : hasFar && x < 6 ? 0.5F : 0.0F;
            return QVector4D(0, 0, z, 1);
        });
    };
    const auto normals = [&](const QVariant& geometry) {
        GBufferRenderPass pass;
        runFrame(pass, {viewport, QVariant(), QVariant(), geometry});
        // Ids begin anew in each batch.
        for (const QVector4D& id : readTexture(outputTexture(pass, GBufferRenderPass::Id)).values) {
            EXPECT_LE(id.x(), 2.0F);
        }
        return readTexture(outputTexture(pass, GBufferRenderPass::Normal));
    };
    const QVariant nearBatch = batchOf(*near);
    const QVariant farBatch = batchOf(*far);
    EXPECT_TRUE(equal(normals(nearBatch), expected(true, false)));
    EXPECT_TRUE(equal(normals(QVariant::fromValue(far->drawBuffers(0))), expected(false, true)));
    EXPECT_TRUE(equal(normals(QVariantList{nearBatch, farBatch}), expected(true, true)));
    EXPECT_TRUE(equal(normals(QVariantList{farBatch, nearBatch}), expected(true, true)));
    const QList<DrawBuffers*> typed{near->drawBuffers(0), far->drawBuffers(0)};
    EXPECT_TRUE(equal(normals(QVariant::fromValue(typed)), expected(true, true)));
    EXPECT_TRUE(messages().information.isEmpty()) << qPrintable(messages().information.join(u'\n'));

    // What is no batch is left out, with one line however often and however many there are.
    GBufferRenderPass pass;
    for (int frame = 0; frame < 2; ++frame) {
        runFrame(pass,
                 {viewport, QVariant(), QVariant(),
                  QVariantList{farBatch, 3, QVariant::fromValue<QObject*>(outputTexture(pass)), QVariant()}});
        EXPECT_TRUE(equal(readTexture(outputTexture(pass)), expected(false, true)));
    }
    EXPECT_EQ(messages().information.size(), 1);
    EXPECT_TRUE(messages().information.front().contains(u"must be a DrawBuffers*, not int"))
        << qPrintable(messages().information.front());
}

TEST_F(GBufferRenderPassTest, WithoutGeometryClearsToTheColourInForceAndLeavesTheDepthTestAlone)
{
    const auto start = [&](GBufferRenderPass& pass, const QRect& viewport, const QVariant& geometry) {
        pass.setInput(GBufferRenderPass::Viewport, viewport);
        pass.setInput(GBufferRenderPass::Geometry, geometry);
        context().applyBaseState();
        glClearColor(0.25F, 0.5F, 0.75F, 0.125F);
        pass.start(nullptr);
    };
    GBufferRenderPass pass;
    start(pass, QRect(), {});
    EXPECT_EQ(outputTexture(pass, GBufferRenderPass::Depth), nullptr) << "no size, no texture";
    for (const QVariant& nothing :
         {QVariant(), QVariant(QVariantList()), QVariant::fromValue<QObject*>(nullptr)}) {
        start(pass, QRect(0, 0, 3, 2), nothing);
        EXPECT_FALSE(context().isEnabled(GL_DEPTH_TEST));
        const auto expect = [&](int output, const QVector4D& color) {
            EXPECT_TRUE(equal(readTexture(outputTexture(pass, output)),
                              Pixels::generate(3, 2, [&](int, int) { return color; })))
                << "output " << output;
        };
        // Components that a format lacks read back as 0, alpha as 1.
        expect(GBufferRenderPass::Normal, {0.25F, 0.5F, 0.75F, 1});
        expect(GBufferRenderPass::TexCoord, {0.25F, 0.5F, 0, 1});
        expect(GBufferRenderPass::Depth, {1, 1, 1, 1});
        expect(GBufferRenderPass::Id, {0.25F, 0, 0, 1});
    }
    EXPECT_TRUE(messages().information.isEmpty());

    const QPointer<Texture> before = outputTexture(pass);
    const auto square = makeSquare(-1.0F, 1.0F, 0.0F);
    start(pass, QRect(5, 5, 3, 2), batchOf(*square));
    EXPECT_TRUE(context().isEnabled(GL_DEPTH_TEST)) << "left enabled";
    EXPECT_EQ(outputTexture(pass), before) << "the same size keeps the textures";
    start(pass, QRect(0, 0, 3, 3), batchOf(*square));
    EXPECT_FALSE(before) << "replaced ones are deleted";
    EXPECT_EQ(outputTexture(pass)->size(), QSize(3, 3));
}

TEST_F(GBufferRenderPassTest, DrawsWithAProgramFromOutside)
{
    ShaderProgram program;
    program.setFragDataLocations({u"out_Normal"_s, u"out_TexCoord"_s, u"out_Id"_s});
    program.addShader(GL_VERTEX_SHADER, uR"(#version 150
uniform mat4 u_ProjectionMatrix;
uniform mat4 u_CameraMatrix;
in vec3 va_Vertex;
void main() { gl_Position = u_ProjectionMatrix * u_CameraMatrix * vec4(va_Vertex, 1.0); })"_s,
                      {});
    program.addShader(GL_FRAGMENT_SHADER, uR"(#version 150
out vec3 out_Normal;
out vec2 out_TexCoord;
out vec4 out_Id;
void main() { out_Normal = vec3(4.0, 5.0, 6.0); out_TexCoord = vec2(7.0, 8.0); out_Id = vec4(9.0); })"_s,
                      {});
    const auto square = makeSquare(-1.0F, 1.0F, 0.0F);
    GBufferRenderPass pass;
    pass.setShaderProgram(&program);
    runFrame(pass, {QRect(0, 0, 1, 1), QVariant(), QVariant(), batchOf(*square)});
    const auto value = [&](int output) { return readTexture(outputTexture(pass, output)).values.front(); };
    EXPECT_EQ(value(GBufferRenderPass::Normal), QVector4D(4, 5, 6, 1));
    EXPECT_EQ(value(GBufferRenderPass::TexCoord), QVector4D(7, 8, 0, 1));
    EXPECT_EQ(value(GBufferRenderPass::Id), QVector4D(9, 0, 0, 1));
}

} // namespace
} // namespace Morvane::Qel::Test
