#include <Qel/model/GPUModel.h>

#include <algorithm>
#include <array>

#include <epoxy/gl.h>

#include <Qel/gl/BufferObject.h>
#include <Qel/gl/DrawBuffers.h>
#include <Qel/gl/FramebufferObject.h>
#include <Qel/gl/Guards.h>
#include <Qel/gl/InstanceData.h>
#include <Qel/gl/OpenGLDeviceContext.h>
#include <Qel/gl/ShaderProgram.h>
#include <Qel/gl/Texture.h>
#include <Qel/gl/TextureManager.h>
#include <Qel/gl/VertexArrayObject.h>

#include "support/GLTest.h"
#include "support/Pixels.h"

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

using Test::equal;
using Test::GLTest;
using Test::makeTexture;
using Test::Pixels;
using Test::readTexture;

/// Returns a square in the plane z = 0 from (0, 0) to (1, 1), counter-clockwise as seen from +z.
MeshData square(int material)
{
    MeshData mesh;
    mesh.positions = {{0, 0, 0}, {1, 0, 0}, {1, 1, 0}, {0, 1, 0}};
    mesh.normals.assign(4, {0, 0, 1});
    mesh.texCoords = {{0, 0}, {1, 0}, {1, 1}, {0, 1}};
    mesh.indices = {0, 1, 2, 0, 2, 3};
    mesh.material = material;
    return mesh;
}

MaterialData colour(float r, float g, float b)
{
    MaterialData material;
    material.kd = {r, g, b};
    return material;
}

/// Returns the transform of the square to the part of clip space from (x, -1) to (x + width, 1).
QMatrix4x4 column(float x, float width)
{
    QMatrix4x4 matrix;
    matrix.translate(x, -1);
    matrix.scale(width, 2);
    return matrix;
}

template<typename T>
std::vector<T> contents(BufferObject& buffer)
{
    std::vector<T> result(static_cast<size_t>(buffer.size()) / sizeof(T));
    glBindBuffer(GL_COPY_READ_BUFFER, buffer.getBO());
    glGetBufferSubData(GL_COPY_READ_BUFFER, 0, buffer.size(), result.data());
    glBindBuffer(GL_COPY_READ_BUFFER, 0);
    return result;
}

/// Counts the buffers, textures and vertex arrays of the context.
int numObjects()
{
    int count = 0;
    for (unsigned int name = 1; name < 1000; ++name) {
        count += glIsBuffer(name) + glIsTexture(name) + glIsVertexArray(name);
    }
    return count;
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
        m_texture = makeTexture(Pixels::filled(8, 4, {}), GL_RGBA32F);
        m_framebuffer = std::make_unique<FramebufferObject>();
    }

    void TearDown() override
    {
        m_program.reset();
        m_framebuffer.reset();
        m_texture.reset();
        GLTest::TearDown();
    }

    /// Returns an 8x4 image, cleared to zero, after a draw into it.
    Pixels image(const std::function<void()>& draw)
    {
        m_framebuffer->attach(m_texture.get(), GL_COLOR_ATTACHMENT0, 0);
        const AutoBinder framebuffer(m_framebuffer.get());
        m_framebuffer->setDrawBuffers();
        glClear(GL_COLOR_BUFFER_BIT);
        draw();
        return readTexture(m_texture.get());
    }

    ShaderProgram* program() { return m_program.get(); }

private:
    std::unique_ptr<ShaderProgram> m_program;
    std::unique_ptr<Texture> m_texture;
    std::unique_ptr<FramebufferObject> m_framebuffer;
};

TEST_F(GPUModelTest, UploadsMeshesOnceAndBlocksPerBatch)
{
    ModelData data;
    data.meshes = {square(1), square(0)};
    data.meshes[1].positions[2] = {1, 1, -5};
    data.materials = {colour(1, 0, 0), colour(0, 1, 0)};
    QMatrix4x4 turned;
    turned.translate(10, 0);
    turned.rotate(90, 0, 0, 1);
    data.instances = {{0, QMatrix4x4()}, {1, turned}, {0, column(-1, 1)}};
    const GPUModel model(data);

    ASSERT_EQ(model.numBatches(), 3);
    EXPECT_EQ(model.numTriangles(), 6);
    EXPECT_EQ(model.drawBuffers(-1), nullptr);
    EXPECT_EQ(model.objectData(3), nullptr);
    EXPECT_EQ(model.drawBuffers(0)->VAO(), model.drawBuffers(2)->VAO());
    EXPECT_NE(model.drawBuffers(0), model.drawBuffers(2));
    EXPECT_EQ(model.materialData(0), model.materialData(2));
    EXPECT_NE(model.objectData(0), model.objectData(2));
    for (int batch = 0; batch < 2; ++batch) {
        const MeshData& mesh = data.meshes[static_cast<size_t>(batch)];
        const DrawBuffers& buffers = *model.drawBuffers(batch);
        EXPECT_EQ(contents<QVector3D>(*buffers.VAO()->bo(u"va_Vertex"_s)), mesh.positions);
        EXPECT_EQ(contents<QVector3D>(*buffers.VAO()->bo(u"va_Normal"_s)), mesh.normals);
        EXPECT_EQ(contents<QVector2D>(*buffers.VAO()->bo(u"va_TexCoord"_s)), mesh.texCoords);
        EXPECT_EQ(contents<unsigned int>(*buffers.indexBO()), mesh.indices);
    }

    const auto [lower, upper] = model.bounds();
    EXPECT_LT((lower - QVector3D(-1, -1, -5)).length(), 1.0e-5F);
    EXPECT_LT((upper - QVector3D(10, 1, 0)).length(), 1.0e-5F);
    const GPUModel empty{ModelData()};
    EXPECT_EQ(empty.numBatches(), 0);
    EXPECT_EQ(empty.bounds(), qMakePair(QVector3D(), QVector3D()));
}

TEST_F(GPUModelTest, DerivesDrawFlagsFromMaterials)
{
    QImage opaque(2, 2, QImage::Format_RGBA8888);
    opaque.fill(Qt::white);
    QImage leaf = opaque;
    leaf.setPixelColor(1, 1, QColor(0, 0, 0, 254));
    ModelData data;
    data.images = {opaque, leaf};
    data.materials.resize(5);
    data.materials[1].d = 0.5F;
    data.materials[2].doubleSided = true;
    data.materials[3].mapKd = 1;
    data.materials[4].mapKd = 0;
    data.materials[4].mapKs = 1;
    for (int i = 0; i < 5; ++i) {
        data.meshes.push_back(square(i));
        data.instances.push_back({i, QMatrix4x4()});
    }
    GPUModel model(data);
    EXPECT_EQ(model.drawFlags(0), 0U);
    EXPECT_EQ(model.drawFlags(1), DrawFlag::Transparent);
    EXPECT_EQ(model.drawFlags(2), DrawFlag::DoubleSided);
    EXPECT_EQ(model.drawFlags(3), DrawFlag::CutOut);
    EXPECT_EQ(model.drawFlags(4), 0U) << "only the alpha of the diffuse map counts";

    EXPECT_FALSE(model.isDrawEmpty(0, 0));
    EXPECT_TRUE(model.isDrawEmpty(DrawFlag::Hidden, DrawFlag::Hidden));
    model.setDrawFlags(0, DrawFlag::Hidden);
    EXPECT_FALSE(model.isDrawEmpty(DrawFlag::Hidden, DrawFlag::Hidden));
    EXPECT_TRUE(model.isDrawEmpty(1, 0)) << "flags masked by 0 equal only 0";
}

TEST_F(GPUModelTest, DrawsEachBatchWithItsData)
{
    // Each column is two pixels wide.
    QImage map(1, 2, QImage::Format_RGBA8888);
    map.setPixelColor(0, 0, QColor(255, 0, 255, 0));
    map.setPixelColor(0, 1, QColor(0, 255, 255, 255));
    ModelData data;
    data.images = {map};
    data.materials = {colour(0.5F, 0.25F, 1), colour(0, 1, 0), colour(1, 0.5F, 0.5F)};
    data.materials[1].d = 0.5F;
    data.materials[2].ks = {0, 0.25F, 0};
    data.materials[2].ns = 7;
    data.materials[2].mapKd = 0;
    // Consecutive batches with the same mesh, and with different ones.
    data.meshes = {square(0), square(1), square(2)};
    data.meshes[2].texCoords = {{0, 0.25F}, {1, 0.25F}, {1, 0.25F}, {0, 0.25F}};
    data.instances = {
        {0, column(-1, 0.5F)}, {0, column(-0.5F, 0.5F)}, {1, column(0, 0.5F)}, {2, column(0.5F, 0.5F)}};
    GPUModel model(data);

    // Alpha is the batch's number from 1, plus a quarter of its opacity, plus the exponent. Texture
    // coordinate 0.25 is the centre of the map's bottom row, which is its first.
    const std::array<QVector4D, 4> columns{QVector4D(0.5F, 0.25F, 1, 2.25F), QVector4D(0.5F, 0.25F, 1, 3.25F),
                                           QVector4D(0, 1, 0, 4.125F), QVector4D(1, 0.25F, 0.5F, 11)};
    const auto expect = [&](unsigned int drawn) {
        return Pixels::generate(8, 4, [&](int x, int) {
            return ((drawn >> (x / 2)) & 1U) != 0 ? columns[static_cast<size_t>(x / 2)] : QVector4D();
        });
    };
    const auto drawn = [&](unsigned long long value, unsigned long long mask) {
        return image([&] { model.draw(program(), value, mask, WindingType::CounterClockwise); });
    };
    EXPECT_TRUE(equal(drawn(0, 0), expect(0b1111)));
    EXPECT_TRUE(equal(drawn(DrawFlag::Transparent, DrawFlag::Transparent), expect(0b0100)));
    EXPECT_TRUE(equal(drawn(0, DrawFlag::Transparent | DrawFlag::CutOut), expect(0b0011)));
    EXPECT_TRUE(equal(
        image([&] { model.draw(program(), TextureManager::Instance(), DrawFlag::CutOut, DrawFlag::CutOut); }),
        expect(0b1000)));

    // Afterwards the previous batch is bound again, and the instance data is back at its default.
    const AutoBinder binder(model.drawBuffers(0));
    EXPECT_TRUE(equal(image([&] {
                          const AutoBinder programBinder(program());
                          model.draw(program(), 0, 0, WindingType::CounterClockwise);
                          glClear(GL_COLOR_BUFFER_BIT);
                          EXPECT_TRUE(model.drawBuffers(0)->draw());
                      }),
                      Pixels::generate(8, 4, [](int x, int y) {
                          return x >= 4 && y >= 2 ? QVector4D(1, 1, 1, 5.25F) : QVector4D();
                      })));
}

TEST_F(GPUModelTest, DrawsNothingWithoutAValidProgram)
{
    ModelData data;
    data.meshes = {square(0)};
    data.materials = {colour(1, 1, 1)};
    data.instances = {{0, column(-1, 2)}};
    GPUModel model(data);
    ShaderProgram broken;
    broken.addShader(GL_VERTEX_SHADER, u"#version 150\nvoid main() { nonsense }\n"_s, QString());
    const Pixels nothing = Pixels::generate(8, 4, [](int, int) { return QVector4D(); });
    for (ShaderProgram* candidate : {static_cast<ShaderProgram*>(nullptr), &broken}) {
        EXPECT_TRUE(
            equal(image([&] { model.draw(candidate, 0, 0, WindingType::CounterClockwise); }), nothing));
        EXPECT_TRUE(equal(image([&] { model.draw(candidate, nullptr, 0, 0); }), nothing));
    }
    expectMessage(u"nonsense"_s);
}

TEST_F(GPUModelTest, MirroredBatchesKeepTheirFrontFaces)
{
    ModelData data;
    data.meshes = {square(0)};
    data.materials = {colour(1, 1, 1)};
    data.instances = {{0, column(0, -1)}, {0, column(0, 0.5F)}, {0, column(1, -0.5F)}};
    GPUModel model(data);
    const AutoEnabler culling(GL_CULL_FACE);
    const auto numDrawn = [](const Pixels& pixels) {
        return std::count_if(pixels.values.begin(), pixels.values.end(),
                             [](const QVector4D& value) { return value.x() == 1.0F; });
    };
    const auto frontFace = [] {
        int winding = 0;
        glGetIntegerv(GL_FRONT_FACE, &winding);
        return static_cast<unsigned int>(winding);
    };
    EXPECT_EQ(numDrawn(image([&] { model.draw(program(), 0, 0, WindingType::CounterClockwise); })), 32);
    EXPECT_EQ(frontFace(), static_cast<unsigned int>(GL_CCW));
    EXPECT_EQ(numDrawn(image([&] { model.draw(program(), 0, 0, WindingType::Clockwise); })), 0);
    EXPECT_EQ(frontFace(), static_cast<unsigned int>(GL_CW));
    EXPECT_EQ(numDrawn(image([&] { model.draw(program(), nullptr, 0, 0); })), 0)
        << "uses the current winding";
    context().setFrontFace(GL_CCW);
    EXPECT_EQ(numDrawn(image([&] { model.draw(program(), nullptr, 0, 0); })), 32);
}

TEST_F(GPUModelTest, TexturesRepeatAndHaveMipLevels)
{
    // Stripes of black and white, one texel wide, minified to their mean.
    QImage stripes(16, 16, QImage::Format_RGB888);
    for (int i = 0; i < 256; ++i) {
        stripes.setPixelColor(i % 16, i / 16, i % 2 == 0 ? Qt::white : Qt::black);
    }
    ModelData data;
    data.images = {stripes};
    data.materials = {colour(1, 1, 1)};
    data.materials[0].mapKd = 0;
    data.meshes = {square(0)};
    // From half a texel on: every pixel samples the centre of a texel, where level 0 is black or white.
    const float x = 1.0F / 32.0F;
    data.meshes[0].texCoords = {{x, 0}, {40 + x, 0}, {40 + x, 40}, {x, 40}};
    data.instances = {{0, column(-1, 2)}};
    GPUModel model(data);
    const Texture* texture = model.materialData(0)->texture(0);
    ASSERT_NE(texture, nullptr);
    EXPECT_TRUE(texture->isReadOnly());
    const Pixels pixels = image([&] { model.draw(program(), 0, 0, WindingType::CounterClockwise); });
    for (const QVector4D& pixel : pixels.values) {
        // Each level may round the mean of 0 and 255 to 8 bits.
        EXPECT_NEAR(pixel.x(), 0.5F, 2.0F / 255.0F);
    }
}

TEST_F(GPUModelTest, DeletesItsGLObjects)
{
    ModelData data;
    data.images = {QImage(3, 5, QImage::Format_RGB888)};
    data.images[0].fill(Qt::red);
    data.materials = {colour(1, 1, 1)};
    data.materials[0].mapKd = 0;
    data.meshes = {square(0)};
    data.instances = {{0, column(-1, 2)}};
    const auto drawOnce = [&] {
        GPUModel model(data);
        image([&] { model.draw(program(), 0, 0, WindingType::CounterClockwise); });
    };
    // The first draw on a context creates objects that all models share.
    drawOnce();
    const int before = numObjects();
    EXPECT_GT(before, 0);
    drawOnce();
    EXPECT_EQ(numObjects(), before);
}

} // namespace

} // namespace Morvane::Qel
