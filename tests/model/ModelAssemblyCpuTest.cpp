#include <QRandomGenerator>

#include <algorithm>
#include <cmath>

#include <gtest/gtest.h>

#include "support/Models.h"
#include <Qel/model/ModelAssembly.h>

namespace Morvane::Qel::Test {
namespace {

struct Corner
{
    QVector3D position;
    QVector3D normal;
};

/// The corners of all triangles in world space.
std::vector<Corner> cornersOf(const ModelData& model)
{
    std::vector<Corner> corners;
    for (const InstanceData& instance : model.instances) {
        const MeshData& mesh = model.meshes.at(static_cast<size_t>(instance.mesh));
        for (const unsigned int index : mesh.indices) {
            corners.push_back({instance.transform.map(mesh.positions.at(index)),
                               instance.transform.mapVector(mesh.normals.at(index))});
        }
    }
    return corners;
}

TEST(ModelAssembly, TransformsMoveTheSurfaceAndKeepInstancesRigid)
{
    QMatrix4x4 moved;
    moved.translate(1, 2, 3);
    moved.rotate(40, 0, 1, 0);
    ModelData model = makeModelData(makeCube());
    model.instances.push_back({0, moved});
    model.instances.push_back({7, {}});
    QMatrix4x4 transform;
    transform.translate(-4, 0, 5);
    transform.rotate(25, 1, 0, 0);
    transform.scale(-2, 3, 0.5F);
    const ModelData result = transformed(model, transform);

    // For passes that ignore instance transforms, the first instance still needs none.
    EXPECT_TRUE(result.instances.at(0).transform.isIdentity());
    const QMatrix4x4& rigid = result.instances.at(1).transform;
    EXPECT_LT((rigid.column(0).toVector3D().length() - 1.0F), 1e-5F);
    EXPECT_NEAR(rigid.determinant(), 1.0, 1e-5);
    EXPECT_EQ(result.instances.at(2).mesh, -1) << "there was no such mesh";
    EXPECT_EQ(result.meshes.size(), 2U);

    model.instances.pop_back();
    ModelData whole = result;
    whole.instances.pop_back();
    const std::vector<Corner> before = cornersOf(model);
    const std::vector<Corner> after = cornersOf(whole);
    ASSERT_EQ(after.size(), before.size());
    for (size_t i = 0; i < after.size(); i += 3) {
        // Mirroring swaps the last two corners.
        const std::array<size_t, 3> partners{i, i + 2, i + 1};
        for (size_t k = 0; k < 3; ++k) {
            EXPECT_LT((after[i + k].position - transform.map(before[partners[k]].position)).length(), 1e-5F);
        }
        const QVector3D front =
            QVector3D::normal(after[i].position, after[i + 1].position, after[i + 2].position);
        EXPECT_GT(QVector3D::dotProduct(front, after[i].normal), 0.9999F);
    }
    const auto [lower, upper] = boundsOf(model, transform);
    EXPECT_LT((boundsOf(whole).first - lower).length() + (boundsOf(whole).second - upper).length(), 1e-4F);
}

TEST(ModelAssembly, MergedModelsKeepTheirMeshesMaterialsAndImages)
{
    const auto makeModel = [](const QString& name, int size) {
        ModelData model = makeModelData(makeSquare(), {name});
        model.images = {QImage(1, 1, QImage::Format_RGBA8888), QImage(size, 1, QImage::Format_RGBA8888)};
        model.materials[0].mapKd = 1;
        return model;
    };
    const ModelData a = makeModel("a", 3);
    ModelData b = makeModel("b", 5);
    b.materials[0].mapKs = 9;
    const ModelData result = merged({&a, &b});
    ASSERT_EQ(result.instances.size(), 2U);
    for (size_t i = 0; i < 2; ++i) {
        const MeshData& mesh = result.meshes.at(static_cast<size_t>(result.instances[i].mesh));
        const MaterialData& material = result.materials.at(static_cast<size_t>(mesh.material));
        EXPECT_EQ(material.name, i == 0 ? "a" : "b");
        EXPECT_EQ(result.images.at(static_cast<size_t>(material.mapKd)).width(), i == 0 ? 3 : 5);
        EXPECT_EQ(material.mapKs, -1) << "a map that does not exist";
    }
}

TEST(ModelAssembly, TheOutlineReachesAsFarAsTheModelInEveryDirection)
{
    QRandomGenerator random(7);
    const auto coordinate = [&] { return static_cast<float>(random.generateDouble() - 0.5); };
    MeshData cloud = makeSphere(512, 256);
    for (QVector3D& p : cloud.positions) {
        p *= QVector3D(3, 1, 1.5F) * (1.0F + 0.1F * coordinate());
    }
    const std::vector<QVector3D> outline = outlineOf(makeModelData(cloud));
    EXPECT_LE(outline.size(), 32768U);
    EXPECT_LT(outline.size(), cloud.positions.size() / 3);
    const auto reach = [](const std::vector<QVector3D>& points, const QVector3D& direction) {
        float result = -1e9F;
        for (const QVector3D& p : points) {
            result = std::max(result, QVector3D::dotProduct(p, direction));
        }
        return result;
    };
    for (int i = 0; i < 100; ++i) {
        const QVector3D direction = QVector3D(coordinate(), coordinate(), coordinate()).normalized();
        EXPECT_GT(reach(outline, direction), reach(cloud.positions, direction) - 0.012F * 6.3F);
    }
}

} // namespace
} // namespace Morvane::Qel::Test
