#include <QColor>
#include <QImage>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QMatrix4x4>
#include <QRegularExpression>

#include <gtest/gtest.h>

#include <Qel/gl/Image.h>

#include "support/Folder.h"
#include "support/Program.h"

namespace Morvane::Qel::Test {

namespace {

class Dump : public testing::Test, protected Folder
{
protected:
    Dump()
    {
        // A square on the ground.
        write("m.obj", "v -1 0 1\nv 1 0 1\nv 1 0 -1\nv -1 0 -1\nf 1 2 3\nf 1 3 4\n");
    }

    ProgramResult render(const QString& graph, const QStringList& options)
    {
        write("g.json", graph);
        return runProgram(QStringList{"render", path("g.json"), "--device", "software"} + options);
    }
    /// Dumps the outputs and returns what outputs.json says.
    QJsonObject dump(const QString& graph)
    {
        const ProgramResult result = render(graph, {"--dump", path("d")});
        EXPECT_EQ(result.exitCode, 0) << qPrintable(result.errors);
        return QJsonDocument::fromJson(contents("d/outputs.json")).object();
    }
    double sample(const QString& name, int x = 0, int channel = 0)
    {
        return image("d/" + name).sample(x, 0, channel);
    }
    QColor previewed(const QString& name, int x, int y = 0)
    {
        return QImage(path("d/" + name)).pixelColor(x, y);
    }
};

QString shaderPass(const QString& name, const QString& options)
{
    return QString(R"({"name": "%1", "type": "ShaderRenderPass", "options": {"fragmentShader": "s.frag",
        "inputs": ["Qel_QRect_Viewport"], %2}})")
        .arg(name, options);
}

} // namespace

TEST_F(Dump, OutputsHaveTheFormatsOfTheGraph)
{
    // Two texels, of which the left one is 0 everywhere.
    write("s.frag", R"(#version 150
        in vec2 vo_TexCoord;
        out vec4 o_Half; out float o_Float; out uint o_Count; out ivec4 o_Offset; out vec4 o_Byte;
        void main() {
            bool on = vo_TexCoord.x > 0.5;
            o_Half = on ? vec4(5.5, -2.25, 0.0, 0.0) : vec4(0.0);
            o_Float = on ? 0.1 : 0.0;
            o_Count = on ? 4000000000u : 0u;
            o_Offset = on ? ivec4(-7, 1, 2, 3) : ivec4(0);
            o_Byte = vec4(on ? 5.5 : 0.0);
        })");
    const QString outputs =
        R"("outputs": ["Qel_QelTexture*_Half", "Qel_QelTexture*_Float", "Qel_QelTexture*_Count",
        "Qel_QelTexture*_Offset", "Qel_QelTexture*_Byte"],
        "formats": {"Half": "rgba16f", "Float": "r32f", "Qel_QelTexture*_Count": "r32ui", "Offset": "rgba32i"})";
    const QJsonObject json = dump(QString(R"({"viewport": [2, 1], "passes": [%1], "output": "@p.Half"})")
                                      .arg(shaderPass("p", outputs)));
    EXPECT_EQ(sample("p.Half.exr", 1), 5.5);
    EXPECT_EQ(sample("p.Half.exr", 1, 1), -2.25);
    EXPECT_EQ(sample("p.Float.exr", 1), double{0.1F});
    EXPECT_EQ(sample("p.Count.exr", 1), 4.0e9);
    EXPECT_EQ(sample("p.Count.exr", 0), 0.0);
    EXPECT_EQ(sample("p.Offset.exr", 1), -7.0);
    EXPECT_EQ(sample("p.Byte.exr", 1), 1.0);

    // Floats are mapped from their range, here -2.25 to 5.5; integers get colours, and 0 is black.
    EXPECT_EQ(json["p.Half"]["previewRange"], (QJsonArray{-2.25, 5.5}));
    const int zero = qRound(255 * 2.25 / 7.75);
    EXPECT_EQ(previewed("p.Half.png", 0), QColor(zero, zero, zero));
    EXPECT_EQ(previewed("p.Half.png", 1), QColor(255, 0, zero));
    EXPECT_EQ(json["p.Count"]["previewRange"], "false colours");
    for (const char* name : {"p.Count.png", "p.Offset.png"}) {
        EXPECT_EQ(previewed(name, 0), QColor(Qt::black));
        EXPECT_GT(previewed(name, 1).lightness(), 60);
    }
}

TEST_F(Dump, AllMipLevelsAreWrittenAndStandBelowEachOther)
{
    write("i.png", Image{4, 2, {"R"}, std::vector<float>{0, 0.2F, 0.8F, 1, 0.4F, 0.2F, 0.6F, 0}});
    const QJsonObject json = dump(R"({"viewport": [2, 1], "output": "@i.Texture", "passes":
        [{"name": "i", "type": "TextureLoaderRenderPass", "inputs": {"TexturePath": "i.png"}}]})");
    EXPECT_EQ(json["i.Texture"]["files"],
              (QJsonArray{"i.Texture.exr", "i.Texture.level1.exr", "i.Texture.level2.exr"}));
    // Means of four texels, which the driver rounds up or down to 8 bits, once or twice.
    const double step = 1.001 / 255.0;
    EXPECT_NEAR(sample("i.Texture.level1.exr", 0), 0.2, step);
    EXPECT_NEAR(sample("i.Texture.level1.exr", 1), 0.6, step);
    EXPECT_NEAR(sample("i.Texture.level2.exr"), 0.4, step);
    // Two rows, one and one; the rest is black.
    EXPECT_EQ(QImage(path("d/i.Texture.png")).size(), QSize(4, 4));
    EXPECT_EQ(previewed("i.Texture.png", 3, 0), QColor(255, 255, 255));
    EXPECT_EQ(previewed("i.Texture.png", 1, 2).red(), qRound(255 * sample("i.Texture.level1.exr", 1)));
    EXPECT_EQ(previewed("i.Texture.png", 0, 3).red(), qRound(255 * sample("i.Texture.level2.exr")));
    EXPECT_EQ(previewed("i.Texture.png", 3, 3), QColor(0, 0, 0));
    EXPECT_EQ(json["i.Texture"]["encoding"], "display-encoded");
}

TEST_F(Dump, LightDataHasTheLightsTheirMatricesAndTheirMaps)
{
    const QJsonObject json = dump(R"({"viewport": [8, 8], "models": {"m": "m.obj"},
        "lights": [{"type": "point", "position": [0, 3, 0], "color": [1, 0.5, 0], "intensity": 2},
                   {"type": "directional", "direction": [0, -2, 0], "cascades": 2}],
        "passes": [{"name": "s", "type": "ShadowMapRenderPass"},
                   {"name": "f", "type": "ShadowedForwardRenderPass", "inputs": {"ShadowMapData": "@s.ShadowMapData"}}],
        "output": "@f.Frame"})");
    const QJsonValue data = json["s.ShadowMapData"];
    EXPECT_EQ(data["lights"][0]["type"], "point");
    EXPECT_EQ(data["lights"][0]["position"], (QJsonArray{0, 3, 0}));
    EXPECT_EQ(data["lights"][0]["color"], (QJsonArray{2, 1, 0}));
    EXPECT_EQ(data["lights"][1]["direction"], (QJsonArray{0, -1, 0}));
    EXPECT_EQ(data["lights"][1]["firstLayer"], 6);
    EXPECT_EQ(data["layers"].toArray().size(), 8);
    EXPECT_EQ(files("*.exr", "d").filter("s.ShadowMapData.").size(), 8);
    EXPECT_EQ(QImage(path("d/s.ShadowMapData.png")).size(), QSize(8 * 512, 512));
    EXPECT_GT(data["layers"][6]["cascadeEnd"].toDouble(), 0.0);
    EXPECT_TRUE(data["layers"][7]["cascadeEnd"].isNull());
    // The face of the point light that looks down, -y, has the ground below the light in its middle.
    QMatrix4x4 transform;
    for (int i = 0; i < 16; ++i) {
        transform(i / 4, i % 4) = static_cast<float>(data["layers"][3]["transform"][i].toDouble());
    }
    const QVector4D ground = transform * QVector4D(0, 0, 0, 1);
    EXPECT_NEAR(ground.x(), 0.0F, 1e-5F);
    EXPECT_NEAR(ground.y(), 0.0F, 1e-5F);
    // The maps include a bias.
    EXPECT_NEAR(image("d/s.ShadowMapData.3.exr").sample(256, 256, 0), double{ground.z() / ground.w()}, 0.02);
}

TEST_F(Dump, CheckNamesWhatIsWrongInTheFrames)
{
    write("s.frag", R"(#version 150
        out vec4 o_Frame;
        void main() {
            bool bad = gl_FragCoord.x > 1.0 && gl_FragCoord.y > 2.0;
o_Frame = vec4(1.0, 1.0 / (bad ? 0.0 : 1.0), 2.0, 1.0);
        })");
    const QString half = R"("outputs": ["Qel_QelTexture*_Frame"], "formats": {"Frame": "rgba16f"})";
    // The camera looks away from the model.
    const ProgramResult wrong =
        render(QString(R"({"viewport": [3, 4], "models": {"m": "m.obj"}, "output": "@blur.Output",
        "camera": {"eye": [0, 5, 5], "target": [0, 5, 9]},
        "passes": [%1, {"name": "blur", "type": "GaussianBlurRenderPass", "inputs": {"Input": "@nan.Frame", "BlurRadius": 2}},
                   {"name": "jitter", "type": "TemporalAAJitterPass"},
                   {"name": "drawn", "type": "ModelRenderPass", "inputs": {"ProjectionMatrix": "@jitter.ProjectionMatrix"}},
                   {"name": "empty", "type": "WireframeRenderPass"},
                   {"name": "show", "type": "TextureToScreenRenderPass", "inputs": {"Texture": "@drawn.Id"}},
                   {"name": "show2", "type": "TextureToScreenRenderPass", "inputs": {"Texture": "@empty.Frame"}}]})")
                   .arg(shaderPass("nan", half)),
               {"--check", "--frames", "3"});
    EXPECT_EQ(wrong.exitCode, 1);
    // Four texels in the upper rows; what is made from them is not named.
    for (const char* line : {"nan.Frame: 4 texels of frame 0 hold NaN or infinity, the first at (1, 0) from "
                             "the upper left, channel G",
                             "drawn.Depth: the depth is 1 everywhere in frame 0",
                             "jitter.ProjectionMatrix: the jitter did not change in 3 frames",
                             "show2.Texture: is empty: \"@empty.Frame\" published no texture in frame 0"}) {
        EXPECT_TRUE(wrong.errors.contains(QString("g.json: ") + line)) << line << '\n'
                                                                       << qPrintable(wrong.errors);
    }
    EXPECT_EQ(wrong.errors.count("g.json: "), 4) << qPrintable(wrong.errors);

    write("s.frag", "#version 150\nout vec4 o_Frame;\nvoid main() { o_Frame = vec4(2.0); }");
    const ProgramResult right =
        render(QString(R"({"viewport": [3, 4], "models": {"m": "m.obj"}, "output": "@blur.Output",
        "passes": [%1, {"name": "blur", "type": "GaussianBlurRenderPass", "inputs": {"Input": "@nan.Frame", "BlurRadius": 2}},
                   {"name": "jitter", "type": "TemporalAAJitterPass", "inputs": {"Dirty": false}},
                   {"name": "drawn", "type": "ModelRenderPass", "inputs": {"ProjectionMatrix": "@jitter.ProjectionMatrix"}},
                   {"name": "show", "type": "TextureToScreenRenderPass", "inputs": {"Texture": "@drawn.Id"}}]})")
                   .arg(shaderPass("nan", half)),
               {"--check", "--frames", "3"});
    EXPECT_EQ(right.exitCode, 0);
    EXPECT_TRUE(right.isOneError("the check found nothing")) << qPrintable(right.errors);
}

TEST_F(Dump, GraphNamesTheSourceOfEveryInput)
{
    write("g.json", R"({"viewport": [3, 4], "models": {"m": "m.obj"}, "output": "@ao.Frame", "passes":
        [{"name": "drawn", "type": "ModelRenderPass"},
         {"name": "ao", "type": "ScalableAmbientObscuranceRenderPass",
          "inputs": {"Depth": "@drawn.Depth", "SAOBias": -1}}]})");
    const ProgramResult text = runProgram({"graph", path("g.json"), "--device", "software"});
    for (const char* line :
         {"Geometry\\s+model @m\n", "CameraMatrix\\s+frame value @CameraMatrix\n",
          "Depth\\s+connection @drawn.Depth\n", "SAOBias\\s+constant -1\n", "SAORadius\\s+default 0.08\n",
          "Normal\\s+\\*\\*not set\\*\\*: on the first frame",
          "out\\s+Frame\\s+3x4 GL_RGBA16F  data, opaque\n"}) {
        EXPECT_TRUE(text.output.contains(QRegularExpression(line))) << line << '\n'
                                                                    << qPrintable(text.output);
    }
    EXPECT_TRUE(text.isOneError("warning: ")) << qPrintable(text.errors);
    const QJsonObject json =
        QJsonDocument::fromJson(
            runProgram({"graph", path("g.json"), "--device", "software", "--json"}).output.toUtf8())
            .object();
    const QJsonValue pass = json["passes"][1];
    EXPECT_EQ(pass["name"], "ao");
    EXPECT_EQ(pass["inputs"][5]["from"], "@drawn.Depth");
    EXPECT_EQ(pass["outputs"][0]["size"], (QJsonArray{3, 4}));
    EXPECT_TRUE(json["warnings"][0].toString().startsWith(
        "ao.SAOBias: -1 is outside of its range, scene units, 0 or more"));
}

} // namespace Morvane::Qel::Test
