#include <QFileInfo>
#include <QImage>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <gtest/gtest.h>

#include "support/Folder.h"
#include "support/Program.h"

namespace Morvane::Qel::Test {

class ModelCommand : public testing::Test, protected Folder
{
protected:
    ModelCommand()
    {
        write("box.obj", "mtllib box.mtl\nv 1 0 0\nv 3 0 0\nv 1 4 0\nv 1 0 2\n"
                         "o side\nusemtl paint\nf 1 2 3\nf 1 3 4\no floor\nusemtl bare\nf 1 2 4\n");
        write("box.mtl",
              "newmtl paint\nKd 1 0.5 0.25\nmap_Kd paint.png\nmap_Ks gone.png\nnewmtl bare\nKd 1 1 1\n");
        QImage(6, 4, QImage::Format_RGB32).save(path("paint.png"));
    }
};

TEST_F(ModelCommand, DescribesAFileAsJson)
{
    const ProgramResult result = runProgram({"model", path("box.obj"), "--json"});
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_TRUE(result.isOneError("gone.png")) << qPrintable(result.errors);
    const QJsonObject model = QJsonDocument::fromJson(result.output.toUtf8()).object();
    EXPECT_EQ(model["bounds"], (QJsonObject{{"min", QJsonArray{1, 0, 0}},
                                            {"max", QJsonArray{3, 4, 2}},
                                            {"size", QJsonArray{2, 4, 2}}}));
    EXPECT_EQ(model["triangles"], 3);
    EXPECT_TRUE(model["upAxis"].isNull() && model["metresPerUnit"].isNull());
    const QJsonArray materials = model["materials"].toArray();
    ASSERT_EQ(materials.size(), 2);
    EXPECT_EQ(materials[0]["Kd"], (QJsonArray{1, 0.5, 0.25}));
    EXPECT_EQ(materials[0]["mapKd"], (QJsonObject{{"reference", "paint.png"},
                                                  {"file", QFileInfo(path("paint.png")).canonicalFilePath()},
                                                  {"size", QJsonArray{6, 4}}}));
    EXPECT_EQ(materials[0]["mapKs"], (QJsonObject{{"reference", "gone.png"}, {"problem", "not found"}}));
    const QJsonArray meshes = model["meshes"].toArray();
    ASSERT_EQ(meshes.size(), 2);
    EXPECT_EQ(meshes[0]["triangles"], 2);
    EXPECT_EQ(meshes[1]["material"], 1);
    const QJsonObject camera = model["camera"].toObject();
    EXPECT_GT(camera["near"].toDouble(), 0.0);
    EXPECT_GT(camera["far"].toDouble(), camera["near"].toDouble());
}

TEST_F(ModelCommand, DescribesAFileAsText)
{
    const QString text = runProgram({"model", path("box.obj")}).output;
    for (const char* line : {"bounds      [1, 0, 0] to [3, 4, 2], size [2, 4, 2]\n", "triangles   3\n",
                             "unit        not told by the file\n",
                             "  \"floor\": 1 triangles, 3 vertices, 1 instance, material \"bare\"\n",
                             "    mapKs  gone.png: not found\n", "paint.png, 6x4\n"}) {
        EXPECT_TRUE(text.contains(line)) << line << qPrintable(text);
    }
    const ProgramResult missing = runProgram({"model", path("none.obj")});
    EXPECT_EQ(missing.exitCode, 2);
    EXPECT_TRUE(missing.isOneError("none.obj: cannot read model: no such file"));

    const auto source = [](const QString& file) {
        const QString output = runProgram({"model", "/usr/share/assimp/models/" + file, "--json"}).output;
        const QJsonObject model = QJsonDocument::fromJson(output.toUtf8()).object();
        return std::pair(model["upAxis"].toString(), model["metresPerUnit"].toDouble());
    };
    EXPECT_EQ(source("Collada/duck.dae"), std::pair(QString("y"), 1.0));
    EXPECT_EQ(source("FBX/box.fbx"), std::pair(QString("y"), 1.0));
    EXPECT_EQ(source("FBX/phong_cube.fbx"), std::pair(QString("y"), 0.01));
}

} // namespace Morvane::Qel::Test
