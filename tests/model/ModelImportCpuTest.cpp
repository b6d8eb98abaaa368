#include <QBuffer>
#include <QColor>
#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QTemporaryDir>

#include <algorithm>
#include <array>
#include <limits>

#include <gtest/gtest.h>

#include <Qel/model/ModelImport.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

/// A folder with the files of a model.
class ModelImport : public testing::Test
{
protected:
    QString write(const QString& name, const QByteArray& contents)
    {
        QString path = m_folder.filePath(name);
        QDir().mkpath(QFileInfo(path).path());
        QFile file(path);
        EXPECT_TRUE(file.open(QIODevice::WriteOnly));
        file.write(contents);
        return path;
    }

    /// A picture of one column, given from its top row down.
    QString writeImage(const QString& name, const QList<QColor>& rows)
    {
        QString path = write(name, {});
        EXPECT_TRUE(column(rows).save(path));
        return path;
    }

    static QImage column(const QList<QColor>& rows)
    {
        QImage image(1, static_cast<int>(rows.size()), QImage::Format_ARGB32);
        for (int y = 0; y < image.height(); ++y) {
            image.setPixelColor(0, y, rows[y]);
        }
        return image;
    }

    ModelData import(const QString& path)
    {
        QString error;
        std::optional<ModelData> model = importModel(path, &error);
        EXPECT_TRUE(model.has_value()) << qPrintable(error);
        return model.value_or(ModelData());
    }

    /// The one line that a file fails with.
    QString failure(const QString& path)
    {
        QString error;
        EXPECT_FALSE(importModel(path, &error).has_value());
        EXPECT_TRUE(error.startsWith(path + u": cannot read model: "_s)) << qPrintable(error);
        EXPECT_FALSE(error.contains(u'\n'));
        return error;
    }

    QString folder() const { return m_folder.path(); }

private:
    QTemporaryDir m_folder;
};

const QByteArray triangle = "v 0 0 0\nv 1 0 0\nv 0 1 0\nvt 0 0\nvt 1 0\nvt 0 1\n";

/// An OBJ file with a triangle for each of the materials of "m.mtl".
QByteArray withMaterials(const QList<QByteArray>& materials)
{
    QByteArray obj = "mtllib m.mtl\n" + triangle;
    for (const QByteArray& material : materials) {
        obj += "usemtl " + material + "\nf 1/1 2/2 3/3\n";
    }
    return obj;
}

const MaterialData& materialNamed(const ModelData& model, const char* name)
{
    static const MaterialData none;
    for (const MaterialData& material : model.materials) {
        if (material.name == QString::fromUtf8(name)) {
            return material;
        }
    }
    ADD_FAILURE() << "no material " << name;
    return none;
}

QByteArray base64(const std::vector<float>& values)
{
    return QByteArray(reinterpret_cast<const char*>(values.data()),
                      static_cast<qsizetype>(values.size()) * static_cast<qsizetype>(sizeof(float)))
        .toBase64();
}

/// A glTF file with one triangle, whose texture coordinates run downwards, in mesh 0.
QByteArray gltf(const QByteArray& nodes, const QByteArray& material, const QByteArray& image)
{
    const std::vector<float> values{0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 1, 0, 0, 1, 0, 1, 1, 1, 0, 0};
    return R"({"asset": {"version": "2.0"}, "scene": 0, "scenes": [{"nodes": [0]}], "nodes": )" + nodes +
           R"(, "meshes": [{"primitives": [{"material": 0,
                "attributes": {"POSITION": 0, "NORMAL": 1, "TEXCOORD_0": 2}}]}],
            "accessors": [
                {"bufferView": 0, "componentType": 5126, "count": 3, "type": "VEC3",
                 "min": [0, 0, 0], "max": [1, 1, 0]},
                {"bufferView": 1, "componentType": 5126, "count": 3, "type": "VEC3"},
                {"bufferView": 2, "componentType": 5126, "count": 3, "type": "VEC2"}],
            "bufferViews": [{"buffer": 0, "byteOffset": 0, "byteLength": 36},
                {"buffer": 0, "byteOffset": 36, "byteLength": 36},
                {"buffer": 0, "byteOffset": 72, "byteLength": 24}],
            "buffers": [{"byteLength": 96, "uri": "data:application/octet-stream;base64,)" +
           base64(values) + R"("}], "materials": [)" + material +
           R"(], "textures": [{"source": 0}], "images": [{"uri": ")" + image + R"("}]})";
}

/// Triangles as a normal and three corners each.
QByteArray binaryStl(const std::vector<std::array<float, 12>>& triangles)
{
    QByteArray stl(80, ' ');
    const auto count = static_cast<quint32>(triangles.size());
    stl.append(reinterpret_cast<const char*>(&count), sizeof(count));
    for (const std::array<float, 12>& values : triangles) {
        stl.append(reinterpret_cast<const char*>(values.data()), sizeof(values));
        stl.append(2, '\0');
    }
    return stl;
}

/// The texture coordinate at a position.
QVector2D texCoordAt(const MeshData& mesh, const QVector3D& position)
{
    const auto found = std::find(mesh.positions.begin(), mesh.positions.end(), position);
    EXPECT_NE(found, mesh.positions.end());
    return mesh.texCoords[static_cast<size_t>(found - mesh.positions.begin())];
}

TEST_F(ModelImport, readsMaterialLibraries)
{
    writeImage(u"kd.png"_s, {Qt::red});
    writeImage(u"ks.png"_s, {Qt::blue});
    write(u"m.mtl"_s, "newmtl full\nKd 0.1 0.2 0.3\nKs 0.4 0.5 0.6\nNs 96.5\nd 0.25\n"
                      "map_Kd kd.png\nmap_Ks ks.png\n"
                      "newmtl theirGrey\nKd 0.6 0.6 0.6\nTr 0.25\nd 1.5\n"
                      "newmtl bare\nnewmtl mapped\nmap_Kd kd.png\n");
    const ModelData model =
        import(write(u"a.obj"_s, withMaterials({"full", "theirGrey", "bare", "mapped", "undefined"})));
    EXPECT_TRUE(model.warnings.isEmpty()) << qPrintable(model.warnings.join(u' '));

    const MaterialData& full = materialNamed(model, "full");
    EXPECT_EQ(full.kd, QVector3D(0.1F, 0.2F, 0.3F));
    EXPECT_EQ(full.ks, QVector3D(0.4F, 0.5F, 0.6F));
    EXPECT_EQ(full.ns, 96.5F);
    EXPECT_EQ(full.d, 0.25F);
    ASSERT_EQ(model.images.size(), 2U) << "an image is loaded once";
    EXPECT_EQ(model.images.at(static_cast<size_t>(full.mapKd)).pixelColor(0, 0), QColor(Qt::red));
    EXPECT_EQ(model.images.at(static_cast<size_t>(full.mapKs)).pixelColor(0, 0), QColor(Qt::blue));

    const MaterialData& theirGrey = materialNamed(model, "theirGrey");
    EXPECT_EQ(theirGrey.kd, QVector3D(0.6F, 0.6F, 0.6F)) << "a colour that equals the importer's own";
    EXPECT_EQ(theirGrey.d, 1.0F) << "clamped";

    for (const char* name : {"bare", "undefined"}) {
        const MaterialData& material = materialNamed(model, name);
        EXPECT_EQ(material.kd, QVector3D(0.8F, 0.8F, 0.8F)) << name;
        EXPECT_EQ(material.ks, QVector3D()) << name;
        EXPECT_GT(material.ns, 0.0F) << name;
        EXPECT_EQ(material.d, 1.0F) << name;
        EXPECT_EQ(material.mapKd, -1) << name;
    }
    const MaterialData& mapped = materialNamed(model, "mapped");
    EXPECT_EQ(mapped.kd, QVector3D(1.0F, 1.0F, 1.0F));
    EXPECT_EQ(mapped.mapKd, full.mapKd);
}

TEST_F(ModelImport, findsMaterialLibrariesOrSaysSo)
{
    const QString obj = write(u"a.obj"_s, "mtllib Sub\\M.MTL\n" + triangle + "usemtl x\nf 1 2 3\n");
    const ModelData without = import(obj);
    EXPECT_EQ(without.materials.at(0).kd, QVector3D(0.8F, 0.8F, 0.8F));
    ASSERT_EQ(without.warnings.size(), 1);
    EXPECT_TRUE(without.warnings[0].startsWith(obj + u": material library "_s));
    EXPECT_TRUE(without.warnings[0].contains(u"M.MTL"_s));

    write(u"sub/m.mtl"_s, "newmtl x\nKd 1 0 0\n");
    const ModelData with = import(obj);
    EXPECT_EQ(with.materials.at(0).kd, QVector3D(1.0F, 0.0F, 0.0F));
    EXPECT_TRUE(with.warnings.isEmpty());
}

TEST_F(ModelImport, vRunsUpwardsInEveryFormat)
{
    writeImage(u"t.png"_s, {Qt::red, Qt::green, Qt::blue});
    write(u"m.mtl"_s, "newmtl x\nmap_Kd t.png\n");
    const QString obj = write(u"a.obj"_s, withMaterials({"x"}));
    const QString gl =
        write(u"a.gltf"_s, gltf(R"([{"mesh": 0}])",
                                R"({"pbrMetallicRoughness": {"baseColorTexture": {"index": 0}}})", "t.png"));
    for (const QString& path : {obj, gl}) {
        const ModelData model = import(path);
        ASSERT_EQ(model.images.size(), 1U) << qPrintable(path);
        const QImage& image = model.images[0];
        EXPECT_EQ(image.format(), QImage::Format_RGBA8888);
        EXPECT_EQ(image.pixelColor(0, 0), QColor(Qt::blue)) << "the bottom row comes first";
        EXPECT_EQ(image.pixelColor(0, 2), QColor(Qt::red));
        // Both files put the image's lower left corner at the origin.
        EXPECT_EQ(texCoordAt(model.meshes.at(0), {0, 0, 0}), QVector2D(0, 0)) << qPrintable(path);
        EXPECT_EQ(texCoordAt(model.meshes.at(0), {1, 0, 0}), QVector2D(1, 0)) << qPrintable(path);
        EXPECT_EQ(texCoordAt(model.meshes.at(0), {0, 1, 0}), QVector2D(0, 1)) << qPrintable(path);
    }
}

TEST_F(ModelImport, keepsNodesAndSharesMeshes)
{
    const QByteArray nodes = R"([{"children": [1, 2], "translation": [10, 0, 0]},
        {"mesh": 0, "translation": [0, 2, 0]}, {"mesh": 0, "scale": [-1, 1, 1]}])";
    const ModelData model = import(write(u"a.gltf"_s, gltf(nodes, "{}", "none.png")));
    ASSERT_EQ(model.meshes.size(), 1U);
    EXPECT_EQ(model.meshes[0].positions.size(), 3U);
    EXPECT_EQ(model.meshes[0].indices.size(), 3U);
    ASSERT_EQ(model.instances.size(), 2U);
    EXPECT_EQ(model.instances[0].transform.map(QVector3D(1, 1, 1)), QVector3D(11, 3, 1));
    EXPECT_EQ(model.instances[1].transform.map(QVector3D(1, 1, 1)), QVector3D(9, 1, 1));
}

TEST_F(ModelImport, mapsPhysicallyBasedMaterials)
{
    const auto material = [&](const QByteArray& more) {
        return import(
            write(u"a.gltf"_s, gltf(R"([{"mesh": 0}])",
                                    R"({"pbrMetallicRoughness": {"baseColorFactor": [0.5, 0.25, 1, 0.5],
                                 "baseColorTexture": {"index": 0}, )" +
                                        more + "}",
                                    "t.png")));
    };
    writeImage(u"t.png"_s, {QColor(10, 20, 30, 40)});

    const ModelData matt = material(R"("metallicFactor": 0, "roughnessFactor": 1}, "doubleSided": true)");
    EXPECT_EQ(matt.materials.at(0).kd, QVector3D(0.5F, 0.25F, 1.0F));
    EXPECT_EQ(matt.materials.at(0).ks, QVector3D());
    EXPECT_TRUE(matt.materials.at(0).doubleSided);
    EXPECT_EQ(matt.materials.at(0).d, 1.0F) << "opaque unless the file says otherwise";
    EXPECT_EQ(matt.images.at(0).pixelColor(0, 0), QColor(10, 20, 30, 255));

    const ModelData blended =
        material(R"("metallicFactor": 1, "roughnessFactor": 0.5}, "alphaMode": "BLEND")");
    EXPECT_EQ(blended.materials.at(0).d, 0.5F);
    EXPECT_FALSE(blended.materials.at(0).doubleSided);
    EXPECT_EQ(blended.images.at(0).pixelColor(0, 0), QColor(10, 20, 30, 40));
    EXPECT_EQ(blended.materials.at(0).ks, QVector3D(0.25F, 0.125F, 0.5F)) << "metal reflects in its colour";
    // 2 / 0.5^4 - 2
    EXPECT_NEAR(blended.materials.at(0).ns, 30.0F, 1.0e-3F);

    const ModelData masked = material(R"("metallicFactor": 0}, "alphaMode": "MASK")");
    EXPECT_EQ(masked.materials.at(0).d, 1.0F);
    EXPECT_EQ(masked.images.at(0).pixelColor(0, 0).alpha(), 40);
}

TEST_F(ModelImport, readsImagesInsideTheModel)
{
    QByteArray png;
    {
        QBuffer buffer(&png);
        column({Qt::red, Qt::blue}).save(&buffer, "PNG");
    }
    const ModelData model =
        import(write(u"a.gltf"_s, gltf(R"([{"mesh": 0}])",
                                       R"({"pbrMetallicRoughness": {"baseColorTexture": {"index": 0}}})",
                                       "data:image/png;base64," + png.toBase64())));
    EXPECT_TRUE(model.warnings.isEmpty()) << qPrintable(model.warnings.join(u' '));
    ASSERT_EQ(model.images.size(), 1U);
    EXPECT_EQ(model.images[0].pixelColor(0, 0), QColor(Qt::blue));
    EXPECT_EQ(model.images[0].pixelColor(0, 1), QColor(Qt::red));
}

TEST_F(ModelImport, findsImagesOfOtherMachines)
{
    writeImage(u"model/beside.png"_s, {Qt::red});
    writeImage(u"model/Maps/inner.png"_s, {Qt::green});
    writeImage(u"textures/wood/Outer 1.png"_s, {Qt::blue});
    // Under a wrong ending.
    EXPECT_TRUE(QFile::rename(writeImage(u"model/x.bmp"_s, {Qt::cyan}), folder() + u"/model/lies.png"_s));
    write(u"model/m.mtl"_s, "newmtl a\nmap_Kd C:\\Users\\me\\BESIDE.PNG\n"
                            "newmtl b\nmap_Kd /home/you/inner.png\n"
                            "newmtl c\nmap_Kd ..\\Textures\\Wood\\outer 1.png\n"
                            "newmtl d\nmap_Kd wood/Outer%201.png\n"
                            "newmtl e\nmap_Kd lies.png\n");
    const ModelData model = import(write(u"model/a.obj"_s, withMaterials({"a", "b", "c", "d", "e"})));
    EXPECT_TRUE(model.warnings.isEmpty()) << qPrintable(model.warnings.join(u' '));
    const auto colour = [&model](const char* material) {
        return model.images.at(static_cast<size_t>(materialNamed(model, material).mapKd)).pixelColor(0, 0);
    };
    EXPECT_EQ(colour("a"), QColor(Qt::red));
    EXPECT_EQ(colour("b"), QColor(Qt::green));
    EXPECT_EQ(colour("c"), QColor(Qt::blue));
    EXPECT_EQ(colour("d"), QColor(Qt::blue));
    EXPECT_EQ(colour("e"), QColor(Qt::cyan));
    EXPECT_EQ(model.images.size(), 4U) << "one file is loaded once, whatever it is called";
}

TEST_F(ModelImport, replacesMissingAndBrokenImagesByWhite)
{
    write(u"broken.png"_s, "no picture");
    write(u"m.mtl"_s,
          "newmtl first\nmap_Kd nowhere.png\nmap_Ks nowhere.png\nnewmtl second\nmap_Kd broken.png\n");
    const QString obj = write(u"a.obj"_s, withMaterials({"first", "second"}));
    const ModelData model = import(obj);
    ASSERT_EQ(model.warnings.size(), 2) << qPrintable(model.warnings.join(u'\n'));
    EXPECT_EQ(model.warnings[0],
              obj + u": texture nowhere.png of material \"first\" not found; white is used"_s);
    EXPECT_TRUE(model.warnings[1].startsWith(
        obj + u": texture broken.png of material \"second\" cannot be read ("_s));
    for (const MaterialData& material : model.materials) {
        const QImage& image = model.images.at(static_cast<size_t>(material.mapKd));
        EXPECT_EQ(image.size(), QSize(1, 1));
        EXPECT_EQ(image.pixelColor(0, 0), QColor(Qt::white));
    }
}

TEST_F(ModelImport, makesSoundMeshes)
{
    // An octahedron: without normals in the file, they point from the centre through the corners.
    const ModelData smooth = import(
        write(u"smooth.obj"_s, "v 1 0 0\nv -1 0 0\nv 0 1 0\nv 0 -1 0\nv 0 0 1\nv 0 0 -1\n"
                               "f 1 3 5\nf 3 2 5\nf 2 4 5\nf 4 1 5\nf 3 1 6\nf 2 3 6\nf 4 2 6\nf 1 4 6\n"));
    const MeshData& octahedron = smooth.meshes.at(0);
    EXPECT_EQ(octahedron.positions.size(), 6U) << "equal vertices are joined";
    EXPECT_EQ(octahedron.indices.size(), 24U);
    for (size_t i = 0; i < octahedron.positions.size(); ++i) {
        EXPECT_LT((octahedron.normals[i] - octahedron.positions[i]).length(), 1.0e-6F);
    }

    // A quad with a normal of no direction, beside a triangle of no area.
    const ModelData mended =
        import(write(u"mended.obj"_s, "v 0 0 0\nv 2 0 0\nv 2 2 0\nv 0 2 0\nv 0 0 0\nvn 0 0 0\nvn 0 0 5\n"
                                      "f 1//1 2//2 3//2 4//2\nf 1//2 2//2 5//2\n"));
    const MeshData& quad = mended.meshes.at(0);
    EXPECT_EQ(quad.indices.size(), 6U);
    EXPECT_EQ(quad.positions.size(), 4U);
    EXPECT_EQ(quad.texCoords.size(), 4U);
    for (const QVector3D& normal : quad.normals) {
        EXPECT_EQ(normal, QVector3D(0, 0, 1));
    }

    // A triangle far too small for a float's square, and one with a corner that is no number.
    const float tiny = 1.0e-9F;
    const ModelData numbers = import(
        write(u"numbers.stl"_s,
              binaryStl({{0, 0, 0, 0, 0, 0, tiny, 0, 0, 0, tiny, 0},
                         {0, 0, 1, 5, 0, 0, std::numeric_limits<float>::quiet_NaN(), 0, 0, 0, 5, 0}})));
    EXPECT_EQ(numbers.meshes.at(0).positions.size(), 3U);
    EXPECT_EQ(numbers.meshes.at(0).normals.at(0), QVector3D(0, 0, 1));
    ASSERT_EQ(numbers.warnings.size(), 1);
    EXPECT_TRUE(numbers.warnings[0].contains(u": 1 triangles"_s));

    // Points and lines beside a triangle are left out.
    const ModelData mixed = import(write(u"mixed.obj"_s, triangle + "p 1\nl 1 2\nf 1/1 2/2 3/3\n"));
    ASSERT_EQ(mixed.instances.size(), 1U);
    EXPECT_EQ(mixed.meshes.at(0).indices.size(), 3U);
}

TEST_F(ModelImport, saysWhyAFileGivesNoModel)
{
    EXPECT_TRUE(failure(folder() + u"/none.obj"_s).endsWith(u"no such file"_s));
    EXPECT_TRUE(failure(folder()).endsWith(u"not a file"_s));
    EXPECT_TRUE(failure(write(u"empty.obj"_s, {})).endsWith(u"is empty"_s));
    EXPECT_TRUE(failure(write(u"notes.txt"_s, "hello")).contains(u"OBJ, glTF"_s));
    EXPECT_TRUE(failure(write(u"points.obj"_s, triangle + "p 1\nl 1 2\n")).endsWith(u"no triangles"_s));
    failure(write(u"broken.gltf"_s, "{\"asset\": {\"version\""));
    failure(write(u"index.obj"_s, triangle + "f 1 2 9\n"));

    QString error;
    EXPECT_FALSE(importModel(folder(), nullptr).has_value()) << "an error that nobody wants";
}

/// Damaged files that end the process, or never end, when they are read without protection.
TEST_F(ModelImport, survivesFilesThatCrashTheirReader)
{
    // More faces are announced than follow.
    EXPECT_TRUE(
        failure(write(u"cut.off"_s, "OFF\n3 4 0\n0 0 0\n1 0 0\n0 1 0\n3 0 1 2\n")).contains(u"damaged"_s));
    // More vertices and faces are announced than memory holds.
    failure(write(u"huge.off"_s, "OFF\n4000000000 4000000000 0\n0 0 0\n"));
    // The next file is read as if nothing had been.
    EXPECT_EQ(import(write(u"a.obj"_s, triangle + "f 1 2 3\n")).meshes.size(), 1U);
}

/// Every file that other projects test their importers with, the broken ones among them.
TEST(ModelImportSweep, givesAModelOrALineForEveryFile)
{
    int numModels = 0;
    for (const char* root : {"/usr/share/assimp/models", "/usr/share/glmark2/models"}) {
        ASSERT_TRUE(QFileInfo::exists(QString::fromLatin1(root)))
            << root << " is missing; install the packages assimp-testmodels and glmark2-data";
        QDirIterator files(QString::fromLatin1(root), QDir::Files, QDirIterator::Subdirectories);
        while (files.hasNext()) {
            const QString path = files.next();
            SCOPED_TRACE(qPrintable(path));
            QString error;
            const std::optional<ModelData> model = importModel(path, &error);
            if (!model) {
                EXPECT_TRUE(error.startsWith(path + u": cannot read model: "_s));
                EXPECT_FALSE(error.contains(u'\n'));
                // No file of these crashes Assimp, so one that does crashed what takes its scene over.
                // An address sanitizer ends the child that asks for more memory than there is; elsewhere the
                // allocation fails and Assimp says so.
#if defined(__SANITIZE_ADDRESS__)
                const bool asksForTooMuch = path.endsWith(u"/OutOfMemory.off"_s);
#else
                const bool asksForTooMuch = false;
#endif
                EXPECT_TRUE(asksForTooMuch || !error.contains(u"crashes"_s)) << qPrintable(error);
                continue;
            }
            ++numModels;
            ASSERT_FALSE(model->instances.empty());
            for (const InstanceData& instance : model->instances) {
                const MeshData& mesh = model->meshes.at(static_cast<size_t>(instance.mesh));
                ASSERT_EQ(mesh.normals.size(), mesh.positions.size());
                ASSERT_EQ(mesh.texCoords.size(), mesh.positions.size());
                ASSERT_LT(*std::max_element(mesh.indices.begin(), mesh.indices.end()), mesh.positions.size());
                for (const QVector3D& normal : mesh.normals) {
                    ASSERT_NEAR(normal.length(), 1.0F, 1.0e-3F);
                }
                const MaterialData& material = model->materials.at(static_cast<size_t>(mesh.material));
                ASSERT_LT(material.mapKd, static_cast<int>(model->images.size()));
                ASSERT_LT(material.mapKs, static_cast<int>(model->images.size()));
            }
        }
    }
    EXPECT_GT(numModels, 250);
}

} // namespace

} // namespace Morvane::Qel
