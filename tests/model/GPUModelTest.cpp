#include <algorithm>
#include <array>

#include <epoxy/gl.h>

#include <Qel/gl/DrawBuffers.h>
#include <Qel/gl/FramebufferObject.h>
#include <Qel/gl/Guards.h>
#include <Qel/gl/InstanceData.h>
#include <Qel/gl/OpenGLDeviceContext.h>
#include <Qel/gl/ShaderProgram.h>
#include <Qel/gl/Texture.h>
#include <Qel/gl/TextureManager.h>

#include "support/GLState.h"
#include "support/GLTest.h"
#include "support/Models.h"
#include "support/Pixels.h"

using namespace Qt::StringLiterals;

namespace Morvane::Qel::Test {
namespace {

/// Transforms the unit square to the part of clip space from (x, -1) to (x + width, 1).
QMatrix4x4 column(float x, float width)
{
    QMatrix4x4 matrix;
    matrix.translate(x + width / 2, 0);
    matrix.scale(width, 2);
    return matrix;
}

class GPUModelTest : public GLTest
{
protected:
    void SetUp() override
    {
        GLTest::SetUp();
        const InstanceDataRegistry* registry = InstanceDataRegistry::Instance();
        m_program = std::make_unique<ShaderProgram>();
        m_program->addShader(GL_VERTEX_SHADER, uR"(#version 150
#instancedata "InstanceInfo"
in vec3 va_Vertex;
in vec2 va_TexCoord;
out vec2 vo_TexCoord;
void main()
{
    gl_Position = getModelMatrix() * vec4(va_Vertex, 1.0);
    vo_TexCoord = va_TexCoord;
}
)"_s,
                             QString());
        m_program->addShader(GL_VERTEX_SHADER, registry->getPlan(u"InstanceInfo"_s)->glslc(), QString());
        m_program->addShader(GL_FRAGMENT_SHADER, uR"(#version 150
#instancedata "OBJMaterial"
#include "TextureManager.glslh"
uniform int u_DrawID;
in vec2 vo_TexCoord;
out vec4 out_Color;
void main()
{
    vec4 kd = managedTexture(getMap_Kd(), vo_TexCoord);
    out_Color = vec4(getKd() * kd.rgb + getKs() * managedTexture(getMap_Ks(), vo_TexCoord).rgb,
                     float(u_DrawID + 1) + getD() * kd.a * 0.25 + getNs());
}
)"_s,
                             QString());
        m_program->addShader(GL_FRAGMENT_SHADER, registry->getPlan(u"OBJMaterial"_s)->glslc(), QString());
        m_program->addShaderFromFile(GL_FRAGMENT_SHADER, u"TextureManager.glslc"_s);
        ASSERT_TRUE(m_program->isValid()) << qPrintable(m_program->log());
    }

    void TearDown() override
    {
        m_program.reset();
        GLTest::TearDown();
    }

    /// Returns an 8x4 image, cleared to zero, after a draw into it.
    static Pixels image(const std::function<void()>& draw)
    {
        const auto texture = makeTexture(Pixels::filled(8, 4, {}), GL_RGBA32F);
        FramebufferObject framebuffer;
        framebuffer.attach(texture.get(), GL_COLOR_ATTACHMENT0, 0);
        const AutoBinder binder(&framebuffer);
        framebuffer.setDrawBuffers();
        draw();
        return readTexture(texture.get());
    }

    Pixels drawn(GPUModel& model, unsigned long long value = 0, unsigned long long mask = 0,
                 WindingType winding = WindingType::CounterClockwise)
    {
        return image([&] { model.draw(program(), value, mask, winding); });
    }

    ShaderProgram* program() { return m_program.get(); }

private:
    std::unique_ptr<ShaderProgram> m_program;
};

TEST_F(GPUModelTest, DerivesDrawFlagsFromMaterials)
{
    QImage opaque(2, 2, QImage::Format_RGBA8888);
    opaque.fill(Qt::white);
    QImage leaf = opaque;
    leaf.setPixelColor(1, 1, QColor(0, 0, 0, 254));
    ModelData data;
    data.images = {opaque, leaf};
    for (int i = 0; i < 5; ++i) {
        addObject(data, makeSquare());
    }
    data.materials[1].d = 0.5F;
    data.materials[2].doubleSided = true;
    data.materials[3].mapKd = 1;
    data.materials[4].mapKd = 0;
    data.materials[4].mapKs = 1;
    GPUModel model(data);
    // Only the alpha of the diffuse map counts.
    const std::array<unsigned long long, 5> expected{0, DrawFlag::Transparent, DrawFlag::DoubleSided,
                                                     DrawFlag::CutOut, 0};
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(model.drawFlags(i), expected[static_cast<size_t>(i)]) << i;
    }

    EXPECT_TRUE(model.isDrawEmpty(DrawFlag::Hidden, DrawFlag::Hidden));
    model.setDrawFlags(0, DrawFlag::Hidden);
    EXPECT_FALSE(model.isDrawEmpty(DrawFlag::Hidden, DrawFlag::Hidden));
}

TEST_F(GPUModelTest, DrawsEachBatchWithItsData)
{
    // Each column is two pixels wide.
    QImage map(1, 2, QImage::Format_RGBA8888);
    map.setPixelColor(0, 0, QColor(255, 0, 255, 0));
    map.setPixelColor(0, 1, QColor(0, 255, 255, 255));
    ModelData data;
    data.images = {map};
    addObject(data, makeSquare(), {{}, {0.5F, 0.25F, 1}}, column(-1, 0.5F));
    // The same mesh again.
    data.instances.push_back({0, column(-0.5F, 0.5F)});
    addObject(data, makeSquare(), {{}, {0, 1, 0}}, column(0, 0.5F));
    data.materials[1].d = 0.5F;
    addObject(data, makeSquare(), {{}, {1, 0.5F, 0.5F}}, column(0.5F, 0.5F));
    data.materials[2].ks = {0, 0.25F, 0};
    data.materials[2].ns = 7;
    data.materials[2].mapKd = 0;
    data.meshes[2].texCoords = {{0, 0.25F}, {1, 0.25F}, {1, 0.25F}, {0, 0.25F}};
    GPUModel model(data);
    EXPECT_EQ(model.drawBuffers(0)->VAO(), model.drawBuffers(1)->VAO());
    EXPECT_EQ(model.objectData(4), nullptr);
    EXPECT_EQ(model.bounds(), qMakePair(QVector3D(-1, -1, 0), QVector3D(1, 1, 0)));
    EXPECT_EQ(GPUModel{ModelData()}.bounds(), qMakePair(QVector3D(), QVector3D()));

    // Alpha is the batch's number from 1, plus a quarter of its opacity, plus the exponent. Texture
    // coordinate 0.25 is the centre of the map's bottom row, which is its first.
    const std::array<QVector4D, 4> columns{QVector4D(0.5F, 0.25F, 1, 2.25F), QVector4D(0.5F, 0.25F, 1, 3.25F),
                                           QVector4D(0, 1, 0, 4.125F), QVector4D(1, 0.25F, 0.5F, 11)};
    const auto expect = [&](unsigned int drawn) {
        return Pixels::generate(8, 4, [&](int x, int) {
            return ((drawn >> (x / 2)) & 1U) != 0 ? columns[static_cast<size_t>(x / 2)] : QVector4D();
        });
    };
    EXPECT_TRUE(equal(drawn(model), expect(0b1111)));
    EXPECT_TRUE(equal(drawn(model, DrawFlag::Transparent, DrawFlag::Transparent), expect(0b0100)));
    EXPECT_TRUE(equal(drawn(model, 0, DrawFlag::Transparent | DrawFlag::CutOut), expect(0b0011)));
    model.setDrawFlags(2, 0);
    const auto drawnByOpacity = [&](Opacity opacity) {
        return image([&] { model.draw(program(), opacity, WindingType::CounterClockwise); });
    };
    EXPECT_TRUE(equal(drawnByOpacity(Opacity::Transparent), expect(0b0100)));
    EXPECT_TRUE(equal(drawnByOpacity(Opacity::Opaque), expect(0b1011)));
    model.setDrawFlags(2, DrawFlag::Transparent);
    EXPECT_TRUE(equal(
        image([&] { model.draw(program(), TextureManager::Instance(), DrawFlag::CutOut, DrawFlag::CutOut); }),
        expect(0b1000)));

    // Without a valid program nothing is drawn.
    ShaderProgram broken;
    broken.addShader(GL_VERTEX_SHADER, u"#version 150\nvoid main() { nonsense }\n"_s, QString());
    EXPECT_TRUE(equal(image([&] { model.draw(&broken, nullptr, 0, 0); }), expect(0)));
    EXPECT_TRUE(equal(image([&] { model.draw(nullptr, nullptr, 0, 0); }), expect(0)));
    expectMessage(u"nonsense"_s);

    // Afterwards the previous batch is bound again, and the instance data is back at its default.
    const AutoBinder binder(model.drawBuffers(0));
    EXPECT_TRUE(equal(image([&] {
                          const AutoBinder programBinder(program());
                          model.draw(program(), 0, 0, WindingType::CounterClockwise);
                          glClear(GL_COLOR_BUFFER_BIT);
                          EXPECT_TRUE(model.drawBuffers(0)->draw());
                      }),
                      Pixels::generate(8, 4, [](int x, int y) {
                          return x >= 2 && x < 6 && y >= 1 && y < 3 ? QVector4D(1, 1, 1, 5.25F) : QVector4D();
                      })));
}

TEST_F(GPUModelTest, IncompleteDataIsReportedAndDrawnAsFarAsItGoes)
{
    ModelData data = makeModelData(makeSquare(), {{}, {1, 1, 1}}, column(-1, 1));
    data.images.emplace_back();
    data.materials[0].mapKd = 3;
    data.meshes[0].normals.pop_back();
    data.instances.push_back({-1, {}});
    addObject(data, makeSquare(), {}, column(-1, 2));
    data.meshes[1].indices[2] = 4;
    addObject(data, makeSquare(), {}, column(0, 1));
    data.meshes[2].material = 7;
    GPUModel model(data);
    expectMessage(u"the model is incomplete: image 0 is null and replaced by white; and 5 more"_s);
    EXPECT_TRUE(equal(drawn(model), Pixels::generate(8, 4, [](int x, int) {
                          return x < 4 ? QVector4D(1, 1, 1, 2.25F) : QVector4D(0.8F, 0.8F, 0.8F, 4.25F);
                      })));
}

TEST_F(GPUModelTest, MirroredBatchesKeepTheirFrontFaces)
{
    ModelData data = makeModelData(makeSquare(), {{}, {1, 1, 1}});
    data.instances = {{0, column(0, -1)}, {0, column(0, 0.5F)}, {0, column(1, -0.5F)}};
    GPUModel model(data);
    const AutoEnabler culling(GL_CULL_FACE);
    const auto isDrawn = [](const Pixels& pixels) {
        return std::all_of(pixels.values.begin(), pixels.values.end(),
                           [](const QVector4D& value) { return value.x() == 1.0F; });
    };
    EXPECT_TRUE(isDrawn(drawn(model)));
    EXPECT_EQ(stateInGL(GL_FRONT_FACE), static_cast<unsigned int>(GL_CCW));
    EXPECT_TRUE(equal(drawn(model, 0, 0, WindingType::Clockwise), Pixels::filled(8, 4, {})));
    // The other overload draws with the current winding.
    EXPECT_FALSE(isDrawn(image([&] { model.draw(program(), nullptr, 0, 0); })));
    context().setFrontFace(GL_CCW);
    EXPECT_TRUE(isDrawn(image([&] { model.draw(program(), nullptr, 0, 0); })));
}

TEST_F(GPUModelTest, TexturesRepeatAndHaveMipLevels)
{
    // Stripes of black and white, one texel wide, minified to their mean.
    QImage stripes(16, 16, QImage::Format_RGB888);
    for (int i = 0; i < 256; ++i) {
        stripes.setPixelColor(i % 16, i / 16, i % 2 == 0 ? Qt::white : Qt::black);
    }
    ModelData data = makeModelData(makeSquare(), {{}, {1, 1, 1}}, column(-1, 2));
    data.images = {stripes};
    data.materials[0].mapKd = 0;
    // From half a texel on: every pixel samples the centre of a texel, where level 0 is black or white.
    const float x = 1.0F / 32.0F;
    data.meshes[0].texCoords = {{x, 0}, {40 + x, 0}, {40 + x, 40}, {x, 40}};
    unsigned int texture = 0;
    {
        GPUModel model(data);
        // Each level may round the mean of 0 and 255 to 8 bits.
        EXPECT_TRUE(equal(
            drawn(model).mapped([](const QVector4D& pixel) { return pixel.x() * QVector4D(1, 1, 1, 1); }),
            Pixels::filled(8, 4, {0.5F, 0.5F, 0.5F, 0.5F}), 2.0F / 255.0F));
        texture = model.materialData(0)->texture(0)->textureID();
        EXPECT_TRUE(glIsTexture(texture));
    }
    EXPECT_FALSE(glIsTexture(texture));
}

} // namespace
} // namespace Morvane::Qel::Test
