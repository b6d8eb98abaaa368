#include <QColor>
#include <QDir>
#include <QDirIterator>
#include <QElapsedTimer>

#include <algorithm>
#include <array>
#include <cerrno>

#include <pthread.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "support/Folder.h"
#include <Qel/model/ModelImport.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel::Test {
namespace {

QImage column(const QList<QColor>& rows)
{
    QImage image(1, static_cast<int>(rows.size()), QImage::Format_ARGB32);
    for (int y = 0; y < image.height(); ++y) {
        image.setPixelColor(0, y, rows[y]);
    }
    return image;
}

/// Writes the files of a model into a temporary folder.
class ModelImport : public testing::Test
{
protected:
    QString write(const QString& name, const QByteArray& contents)
    {
        QDir().mkpath(QFileInfo(folder.path(name)).path());
        folder.write(name, QString::fromUtf8(contents));
        return folder.path(name);
    }

    /// Writes an image of one column, given from its top row down.
    void writeImage(const QString& name, const QList<QColor>& rows, const char* format = "PNG")
    {
        write(name, {});
        EXPECT_TRUE(column(rows).save(folder.path(name), format));
    }

    /// Imports a file in this process and in a child, which must give the same model.
    static ModelData import(const QString& path, int numWarnings = 0)
    {
        QString error;
        std::optional<ModelData> model = importModel(path, &error);
        EXPECT_TRUE(model.has_value()) << qPrintable(error);
        EXPECT_TRUE(model == importModel(path, &error, {.isolated = true}));
        EXPECT_TRUE(model && model->warnings.size() == numWarnings)
            << qPrintable(model.value_or(ModelData()).warnings.join(u'\n'));
        return model.value_or(ModelData());
    }

    /// Imports a file that must fail and returns the cause. Isolated, because Assimp may leak or crash.
    static QString failure(const QString& path)
    {
        QString error;
        EXPECT_FALSE(importModel(path, &error, {.isolated = true}).has_value());
        const QString prefix = path + u": cannot read model: "_s;
        EXPECT_TRUE(error.startsWith(prefix) && !error.contains(u'\n')) << qPrintable(error);
        return error.mid(prefix.size());
    }

    Folder folder;
};

const QByteArray triangle = "v 0 0 0\nv 1 0 0\nv 0 1 0\nvt 0 0\nvt 1 0\nvt 0 1\n";

/// Returns an OBJ file with a triangle for each of the materials of "m.mtl".
QByteArray withMaterials(const QList<QByteArray>& materials)
{
    QByteArray obj = "mtllib m.mtl\n" + triangle;
    for (const QByteArray& material : materials) {
        obj += "usemtl " + material + "\nf 1/1 2/2 3/3\n";
    }
    return obj;
}

/// Returns a glTF file whose mesh 0 is a triangle; its texture coordinates have v pointing down.
QByteArray gltf(const QByteArray& nodes, const QByteArray& material, const QByteArray& image)
{
    constexpr std::array<float, 15> values{0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 1, 1, 1, 0, 0};
    const QByteArray buffer(reinterpret_cast<const char*>(values.data()), sizeof(values));
    return R"({"asset": {"version": "2.0"}, "scene": 0, "scenes": [{"nodes": [0]}], "nodes": )" + nodes +
           R"(, "meshes": [{"primitives": [{"material": 0, "attributes": {"POSITION": 0, "TEXCOORD_0": 1}}]}],
            "accessors": [
                {"bufferView": 0, "componentType": 5126, "count": 3, "type": "VEC3",
                 "min": [0, 0, 0], "max": [1, 1, 0]},
                {"bufferView": 0, "byteOffset": 36, "componentType": 5126, "count": 3, "type": "VEC2"}],
            "bufferViews": [{"buffer": 0, "byteLength": 60}],
            "buffers": [{"byteLength": 60, "uri": "data:application/octet-stream;base64,)" +
           buffer.toBase64() + R"("}], "materials": [)" + material +
           R"(], "textures": [{"source": 0}], "images": [{"uri": ")" + image + R"("}]})";
}

const QByteArray textured = R"({"pbrMetallicRoughness": {"baseColorTexture": {"index": 0}}})";

TEST_F(ModelImport, ReadsMaterialLibraries)
{
    writeImage(u"kd.png"_s, {Qt::red});
    writeImage(u"ks.png"_s, {Qt::blue});
    write(u"m.mtl"_s, "newmtl full\nKd 0.1 0.2 0.3\nKs 0.4 0.5 0.6\nNs 96.5\nd 0.25\n"
                      "map_Kd kd.png\nmap_Ks ks.png\n"
                      "newmtl grey\nKd 0.6 0.6 0.6\nTr 0.25\nd 1.5\n"
                      "newmtl bare\nnewmtl mapped\nmap_Kd kd.png\n"
                      "newmtl dull\nKs 1 1 1\nnewmtl diffuse\nKs 1 1 1\nNs 10\nillum 1\n");
    const ModelData model = import(
        write(u"a.obj"_s, withMaterials({"full", "grey", "bare", "mapped", "undefined", "dull", "diffuse"})));
    ASSERT_EQ(model.images.size(), 2U) << "an image is loaded once";
    const auto expect = [&](const QString& name, MaterialData expected) {
        expected.name = name;
        EXPECT_EQ(std::count(model.materials.begin(), model.materials.end(), expected), 1)
            << qPrintable(name);
    };
    expect(u"full"_s, {{}, {0.1F, 0.2F, 0.3F}, {0.4F, 0.5F, 0.6F}, 96.5F, 0.25F, false, 0, 1});
    // Equal to the colour that Assimp gives to materials without Kd; the dissolve is clamped.
    expect(u"grey"_s, {{}, {0.6F, 0.6F, 0.6F}});
    expect(u"bare"_s, {});
    expect(u"undefined"_s, {});
    // Without an exponent, or with a shading model without highlights, the specular colour does not count.
    expect(u"dull"_s, {});
    expect(u"diffuse"_s, {});
    for (const char* path : {"glmark2/models/horse.3ds", "assimp/models/Collada/sphere.dae"}) {
        EXPECT_EQ(importModel(u"/usr/share/"_s + path, nullptr)->materials.at(0).ks, QVector3D()) << path;
    }
    expect(u"mapped"_s, {{}, {1, 1, 1}, {}, 1, 1, false, 0});

    const QString obj = write(u"b.obj"_s, "mtllib Sub\\M2.MTL\n" + triangle + "usemtl x\nf 1 2 3\n");
    const ModelData without = import(obj, 1);
    EXPECT_EQ(without.materials.at(0).kd, QVector3D(0.8F, 0.8F, 0.8F));
    EXPECT_EQ(without.warnings.value(0),
              obj + u": material library Sub\\M2.MTL not found; its materials are drawn in grey"_s);
    write(u"sub/m2.mtl"_s, "newmtl x\nKd 1 0 0\n");
    EXPECT_EQ(import(obj).materials.at(0).kd, QVector3D(1, 0, 0));
}

TEST_F(ModelImport, VPointsUpInEveryFormat)
{
    writeImage(u"t.png"_s, {Qt::red, Qt::green, Qt::blue});
    write(u"m.mtl"_s, "newmtl x\nmap_Kd t.png\n");
    const QByteArray node = R"([{"mesh": 0}])";
    const QByteArray embedded = "data:image/png;base64," + folder.contents(u"t.png"_s).toBase64();
    for (const QString& path :
         {write(u"a.obj"_s, withMaterials({"x"})), write(u"a.gltf"_s, gltf(node, textured, "t.png")),
          write(u"embedded.gltf"_s, gltf(node, textured, embedded))}) {
        SCOPED_TRACE(qPrintable(path));
        const ModelData model = import(path);
        ASSERT_EQ(model.images.size(), 1U);
        EXPECT_EQ(model.images[0],
                  column({Qt::blue, Qt::green, Qt::red}).convertToFormat(QImage::Format_RGBA8888));
        const MeshData& mesh = model.meshes.at(0);
        for (size_t i = 0; i < 3; ++i) {
            EXPECT_EQ(mesh.texCoords.at(i), mesh.positions[i].toVector2D());
        }
    }
}

TEST_F(ModelImport, NodesShareMeshesAndTheirScaleShearAndMirroringGoIntoTheVertices)
{
    QMatrix4x4 turn;
    turn.rotate(QQuaternion(0.64F, 0.48F, 0.6F, 0));
    QMatrix4x4 mirror;
    mirror.scale(-2, 3, 0.01F);
    QMatrix4x4 flat;
    flat.scale(2, 3, 0);
    // A scale above a rotation shears.
    const std::array nodes{mirror, turn * mirror, mirror * turn, turn * flat};
    QByteArray json = R"([{"children": [1, 2, 3, 4], "translation": [7, 8, 9]})";
    for (const QMatrix4x4& node : nodes) {
        json += R"(, {"mesh": 0, "matrix": [)" + QByteArray::number(double(node.constData()[0]));
        for (const float* value = node.constData() + 1; value != node.constData() + 16; ++value) {
            json += ", " + QByteArray::number(double(*value));
        }
        json += "]}";
    }
    const ModelData model = import(write(u"a.gltf"_s, gltf(json + "]", "{}", "none.png")));
    EXPECT_EQ(model.meshes.size(), 3U) << "instances with the same scale share a mesh";
    for (size_t i = 0; i < nodes.size(); ++i) {
        const QMatrix4x4& rigid = model.instances.at(i).transform;
        EXPECT_NEAR(rigid.determinant(), 1.0, 1e-5);
        const MeshData& mesh = model.meshes.at(static_cast<size_t>(model.instances[i].mesh));
        std::array<QVector3D, 3> corners;
        for (size_t corner = 0; corner < 3; ++corner) {
            const unsigned int index = mesh.indices.at(corner);
            corners[corner] = rigid.map(mesh.positions[index]);
            const QVector3D expected = QVector3D(7, 8, 9) + nodes[i].map(QVector3D(mesh.texCoords[index]));
            EXPECT_LT((corners[corner] - expected).length(), 1e-5F);
        }
        // The mesh faces +z, and its front faces are wound around its normals, mirrored or not.
        const QVector3D front = QVector3D::normal(corners[0], corners[1], corners[2]);
        EXPECT_GT(QVector3D::dotProduct(front, rigid.mapVector(mesh.normals[0])), 0.9999F);
        EXPECT_TRUE(i == 3 || QVector3D::dotProduct(front, nodes[i].mapVector({0, 0, 1})) > 0) << i;
    }
}

TEST_F(ModelImport, MapsPhysicallyBasedMaterials)
{
    writeImage(u"t.png"_s, {QColor(10, 20, 30, 40)});
    const auto import = [&](const QByteArray& more) {
        const QByteArray material = R"({"pbrMetallicRoughness": {"baseColorFactor": [0.5, 0.25, 1, 0.5],
                                        "baseColorTexture": {"index": 0}, )" +
                                    more + "}";
        return ModelImport::import(write(u"a.gltf"_s, gltf(R"([{"mesh": 0}])", material, "t.png")));
    };
    const auto alpha = [](const ModelData& model) { return model.images.at(0).pixelColor(0, 0).alpha(); };

    // Opaque unless the file says otherwise. An exponent of 2 / 1 - 2 is raised to 1.
    const ModelData matt = import(R"("metallicFactor": 0, "roughnessFactor": 1}, "doubleSided": true)");
    EXPECT_TRUE(matt.materials.at(0) == (MaterialData{{}, {0.5F, 0.25F, 1}, {}, 1, 1, true, 0}));
    EXPECT_EQ(alpha(matt), 255);

    // Metals reflect in their own colour. The exponent is 2 / 0.5^4 - 2.
    const ModelData blended = import(R"("metallicFactor": 1, "roughnessFactor": 0.5}, "alphaMode": "BLEND")");
    EXPECT_TRUE(blended.materials.at(0) ==
                (MaterialData{{}, {0.5F, 0.25F, 1}, {0.25F, 0.125F, 0.5F}, 30, 0.5F, false, 0}));
    EXPECT_EQ(alpha(blended), 40);

    const ModelData masked = import(R"("metallicFactor": 0}, "alphaMode": "MASK")");
    EXPECT_EQ(masked.materials.at(0).d, 1.0F);
    EXPECT_EQ(alpha(masked), 40);
}

TEST_F(ModelImport, FindsImagesByPathsFromOtherMachines)
{
    writeImage(u"model/beside.png"_s, {Qt::red});
    writeImage(u"model/Maps/inner.png"_s, {Qt::green});
    writeImage(u"textures/wood/Outer 1.png"_s, {Qt::blue});
    writeImage(u"model/misnamed.png"_s, {Qt::cyan}, "BMP");
    const std::array<std::pair<const char*, Qt::GlobalColor>, 5> references{
        {{"C:\\Users\\me\\BESIDE.PNG", Qt::red},
         {"/home/you/inner.png", Qt::green},
         {"..\\Textures\\Wood\\outer 1.png", Qt::blue},
         {"wood/Outer%201.png", Qt::blue},
         {"misnamed.png", Qt::cyan}}};
    QByteArray library;
    for (const auto& [reference, colour] : references) {
        library += QByteArray("newmtl ") + reference[0] + "\nmap_Kd " + reference + "\n";
    }
    write(u"model/m.mtl"_s, library);
    const ModelData model = import(write(u"model/a.obj"_s, withMaterials({"C", "/", ".", "w", "m"})));
    for (const auto& [reference, colour] : references) {
        for (const MaterialData& material : model.materials) {
            if (material.name == QLatin1Char(reference[0])) {
                const QImage& image = model.images.at(static_cast<size_t>(material.mapKd));
                EXPECT_EQ(image.pixelColor(0, 0), QColor(colour)) << reference;
            }
        }
    }
    EXPECT_EQ(model.materials.size(), 5U);
    EXPECT_EQ(model.images.size(), 4U) << "a file is loaded once, whatever path leads to it";
}

TEST_F(ModelImport, ReplacesMissingAndBrokenImagesByWhite)
{
    write(u"broken.png"_s, "no image");
    write(u"m.mtl"_s, "newmtl a\nmap_Kd nowhere.png\nmap_Ks nowhere.png\nnewmtl b\nmap_Kd broken.png\n");
    const QString obj = write(u"a.obj"_s, withMaterials({"a", "b"}));
    const ModelData model = import(obj, 2);
    EXPECT_EQ(model.warnings.value(0),
              obj + u": texture nowhere.png of material \"a\" not found; white is used"_s);
    EXPECT_TRUE(model.warnings.value(1).startsWith(
        obj + u": texture broken.png of material \"b\" cannot be read ("_s));
    const QImage white = column({Qt::white}).convertToFormat(QImage::Format_RGBA8888);
    EXPECT_EQ(model.images, std::vector<QImage>(model.images.size(), white));
}

TEST_F(ModelImport, RepairsMeshes)
{
    // An octahedron without normals in the file: its smooth normals point from the centre to the corners.
    const ModelData smooth = import(
        write(u"smooth.obj"_s, "v 1 0 0\nv -1 0 0\nv 0 1 0\nv 0 -1 0\nv 0 0 1\nv 0 0 -1\n"
                               "f 1 3 5\nf 3 2 5\nf 2 4 5\nf 4 1 5\nf 3 1 6\nf 2 3 6\nf 4 2 6\nf 1 4 6\n"));
    const MeshData& octahedron = smooth.meshes.at(0);
    EXPECT_EQ(octahedron.positions.size(), 6U) << "equal vertices are joined";
    for (size_t i = 0; i < octahedron.positions.size(); ++i) {
        EXPECT_LT((octahedron.normals[i] - octahedron.positions[i]).length(), 1.0e-6F);
    }

    // The two sides of a thin plate keep their own normals; 0 and -0 are the same place.
    const ModelData plate =
        import(write(u"plate.obj"_s, "v 0 0 0\nv 9 0 0\nv 0 9 0\nv 0 -0 1e-5\nv 9 0 1e-5\nv 0 9 1e-5\n"
                                     "v 0 0 1e-5\nv -9 0 1e-5\nf 1 3 2\nf 4 5 6\nf 7 6 8\n"));
    const MeshData& sides = plate.meshes.at(0);
    EXPECT_EQ(sides.positions.size(), 7U);
    for (size_t i = 0; i < sides.positions.size(); ++i) {
        EXPECT_EQ(sides.normals[i], QVector3D(0, 0, sides.positions[i].z() > 0.0F ? 1 : -1));
    }

    // A quad with a zero normal, a triangle without area, a point and a line.
    const ModelData repaired =
        import(write(u"repaired.obj"_s, "v 0 0 0\nv 2 0 0\nv 2 2 0\nv 0 2 0\nv 0 0 0\nvn 0 0 0\nvn 0 0 5\n"
                                        "f 1//1 2//2 3//2 4//2\nf 1//2 2//2 5//2\np 1\nl 1 2\n"));
    EXPECT_EQ(repaired.instances.size(), 1U);
    const MeshData& quad = repaired.meshes.at(0);
    EXPECT_EQ(quad.indices.size(), 6U);
    EXPECT_EQ(quad.normals, std::vector<QVector3D>(4, {0, 0, 1}));

    // A triangle whose squared size underflows, and one with a corner that is NaN.
    const QString numeric = write(u"numbers.obj"_s, "v 0 0 0\nv 1e-9 0 0\nv 0 1e-9 0\nv nan 0 0\n"
                                                    "f 1 2 3\nf 1 2 4\n");
    const std::optional<ModelData> numbers = importModel(numeric, nullptr);
    ASSERT_TRUE(numbers);
    EXPECT_EQ(numbers->meshes.at(0).normals, std::vector<QVector3D>(3, {0, 0, 1}));
    EXPECT_EQ(numbers->warnings, QStringList(numeric + u": skipped 1 triangles with invalid corners"_s));
}

TEST_F(ModelImport, SaysWhyAFileGivesNoModel)
{
    EXPECT_EQ(failure(folder.path(u"none.obj"_s)), u"no such file"_s);
    EXPECT_EQ(failure(folder.path({})), u"not a file"_s);
    EXPECT_EQ(failure(write(u"empty.obj"_s, {})), u"the file is empty"_s);
    EXPECT_TRUE(failure(write(u"notes.txt"_s, "hello")).contains(u"OBJ, glTF"_s));
    EXPECT_EQ(failure(write(u"points.obj"_s, triangle + "p 1\nl 1 2\n")), u"it contains no triangles"_s);
    failure(write(u"broken.gltf"_s, "{\"asset\": {\"version\""));
    failure(write(u"index.obj"_s, triangle + "f 1 2 9\n"));
    EXPECT_FALSE(importModel(folder.path({}), nullptr).has_value()) << "the error may be null";
    // Fewer faces than the header says, and more vertices than fit into memory.
    EXPECT_TRUE(
        failure(write(u"cut.off"_s, "OFF\n3 4 0\n0 0 0\n1 0 0\n0 1 0\n3 0 1 2\n")).contains(u"crashes"_s));
    failure(write(u"huge.off"_s, "OFF\n4000000000 4000000000 0\n0 0 0\n"));
}

TEST_F(ModelImport, ForksOnlyOnRequestAndKillsAChildThatHangs)
{
    static int numForks = 0;
    static bool childHangs = false;
    ASSERT_EQ(pthread_atfork([] { ++numForks; }, nullptr,
                             [] {
                                 if (childHangs) {
                                     pause();
                                 }
                             }),
              0);
    const QString path = write(u"a.obj"_s, triangle + "f 1 2 3\n");
    EXPECT_TRUE(importModel(path, nullptr));
    EXPECT_EQ(numForks, 0);
    EXPECT_TRUE(importModel(path, nullptr, {.isolated = true}));
    EXPECT_EQ(numForks, 1);

    // The child sleeps, so only the wall clock can tell that it is late.
    childHangs = true;
    QElapsedTimer timer;
    timer.start();
    QString error;
    EXPECT_FALSE(importModel(path, &error, {.isolated = true, .deadline = std::chrono::milliseconds(250)}));
    childHangs = false;
    EXPECT_GE(timer.elapsed(), 250);
    EXPECT_EQ(error, path + u": cannot read model: not read within 0.25 s; the file may be damaged"_s);
    EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG), -1);
    EXPECT_EQ(errno, ECHILD) << "a child is left";
}

/// Imports all models that Assimp and glmark2 provide, including broken ones.
TEST(ModelImportSweep, EveryFileGivesAModelOrAnError)
{
    int numModels = 0;
    for (const QString& root : {u"/usr/share/assimp/models"_s, u"/usr/share/glmark2/models"_s}) {
        ASSERT_TRUE(QFileInfo::exists(root)) << "install the packages assimp-testmodels and glmark2-data";
        QDirIterator files(root, QDir::Files, QDirIterator::Subdirectories);
        while (files.hasNext()) {
            const QString path = files.next();
            SCOPED_TRACE(qPrintable(path));
            QString error;
            const std::optional<ModelData> model =
                importModel(path, &error, {.isolated = true, .deadline = std::chrono::minutes(1)});
            if (!model) {
                EXPECT_TRUE(error.startsWith(path + u": cannot read model: "_s));
                // None of these files crashes Assimp, so a crash is one of the conversion. But the address
                // sanitizer ends a process that allocates too much, where malloc otherwise fails.
#if defined(__SANITIZE_ADDRESS__)
                const bool allocatesTooMuch = path.endsWith(u"/OutOfMemory.off"_s);
#else
                const bool allocatesTooMuch = false;
#endif
                EXPECT_TRUE(allocatesTooMuch || !error.contains(u"crashes"_s)) << qPrintable(error);
                continue;
            }
            ++numModels;
            for (const MeshData& mesh : model->meshes) {
                ASSERT_EQ(mesh.normals.size(), mesh.positions.size());
                ASSERT_LT(*std::max_element(mesh.indices.begin(), mesh.indices.end()), mesh.positions.size());
            }
        }
    }
    EXPECT_GT(numModels, 250);
}

} // namespace
} // namespace Morvane::Qel::Test
