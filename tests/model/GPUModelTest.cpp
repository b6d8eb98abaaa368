#include <Qel/model/GPUModel.h>

#include <QDirIterator>
#include <QPainter>

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

/// A square in the plane z = 0 from (0, 0) to (1, 1), counter-clockwise from the front.
MeshData square(int material)
{
    MeshData mesh;
    mesh.name = u"square"_s;
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

/// Maps the square to the part of clip space from (x, -1) to (x + width, 1).
QMatrix4x4 column(float x, float width)
{
    QMatrix4x4 matrix;
    matrix.translate(x, -1);
    matrix.scale(width, 2);
    return matrix;
}

std::vector<std::byte> bytes(BufferObject& buffer)
{
    std::vector<std::byte> result(static_cast<size_t>(buffer.size()));
    glBindBuffer(GL_COPY_READ_BUFFER, buffer.getBO());
    glGetBufferSubData(GL_COPY_READ_BUFFER, 0, buffer.size(), result.data());
    glBindBuffer(GL_COPY_READ_BUFFER, 0);
    return result;
}

template<typename T>
std::vector<std::byte> bytes(const std::vector<T>& values)
{
    const auto* first = reinterpret_cast<const std::byte*>(values.data());
    return {first, first + values.size() * sizeof(T)};
}

/// How many buffers, textures and vertex arrays there are.
int numObjects()
{
    int count = 0;
    for (unsigned int name = 1; name < 20000; ++name) {
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

    /// What a draw leaves on an 8x4 picture of zeroes.
    Pixels picture(const std::function<void()>& draw)
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

TEST_F(GPUModelTest, uploadsMeshesOnceAndBlocksForEveryBatch)
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
    EXPECT_EQ(model.drawBuffers(0)->indexBO(), model.drawBuffers(2)->indexBO());
    EXPECT_NE(model.drawBuffers(0), model.drawBuffers(2));
    EXPECT_NE(model.drawBuffers(0)->VAO(), model.drawBuffers(1)->VAO());
    EXPECT_EQ(model.materialData(0), model.materialData(2));
    EXPECT_NE(model.objectData(0), model.objectData(2));

    for (int batch = 0; batch < 2; ++batch) {
        const MeshData& mesh = data.meshes[static_cast<size_t>(batch)];
        const DrawBuffers& buffers = *model.drawBuffers(batch);
        EXPECT_EQ(bytes(*buffers.VAO()->bo(u"va_Vertex"_s)), bytes(mesh.positions));
        EXPECT_EQ(bytes(*buffers.VAO()->bo(u"va_Normal"_s)), bytes(mesh.normals));
        EXPECT_EQ(bytes(*buffers.VAO()->bo(u"va_TexCoord"_s)), bytes(mesh.texCoords));
        EXPECT_EQ(bytes(*buffers.indexBO()), bytes(mesh.indices));
        EXPECT_EQ(buffers.count(), 6);
    }

    const auto [lower, upper] = model.bounds();
    EXPECT_LT((lower - QVector3D(-1, -1, -5)).length(), 1.0e-5F);
    EXPECT_LT((upper - QVector3D(10, 1, 0)).length(), 1.0e-5F);
    const GPUModel empty{ModelData()};
    EXPECT_EQ(empty.numBatches(), 0);
    EXPECT_EQ(empty.bounds(), qMakePair(QVector3D(), QVector3D()));
}

TEST_F(GPUModelTest, derivesDrawFlagsFromMaterials)
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
    EXPECT_EQ(model.drawFlags(4), 0U) << "only the diffuse map's alpha counts";

    EXPECT_FALSE(model.isDrawEmpty(0, 0));
    EXPECT_TRUE(model.isDrawEmpty(DrawFlag::Hidden, DrawFlag::Hidden));
    model.setDrawFlags(0, DrawFlag::Hidden);
    EXPECT_FALSE(model.isDrawEmpty(DrawFlag::Hidden, DrawFlag::Hidden));
    EXPECT_TRUE(model.isDrawEmpty(1, 0)) << "no flags masked by nothing equal a value";
}

TEST_F(GPUModelTest, drawsEveryBatchWithItsData)
{
    // The top row of the first map is cut off by texture coordinates; columns of two pixels each.
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
    // Meshes and materials alternate, are shared and follow each other.
    data.meshes = {square(0), square(1), square(2)};
    data.meshes[2].texCoords = {{0, 0.25F}, {1, 0.25F}, {1, 0.25F}, {0, 0.25F}};
    data.instances = {
        {0, column(-1, 0.5F)}, {0, column(-0.5F, 0.5F)}, {1, column(0, 0.5F)}, {2, column(0.5F, 0.5F)}};
    GPUModel model(data);

    // Alpha is the batch's number from 1, a quarter of its opacity, and the exponent. Texture coordinate 0.25
    // is the centre of the map's first row, the bottom one.
    const std::array<QVector4D, 4> columns{QVector4D(0.5F, 0.25F, 1, 2.25F), QVector4D(0.5F, 0.25F, 1, 3.25F),
                                           QVector4D(0, 1, 0, 4.125F), QVector4D(1, 0.25F, 0.5F, 11)};
    const auto expect = [&](unsigned int drawn) {
        return Pixels::generate(8, 4, [&](int x, int) {
            return ((drawn >> (x / 2)) & 1U) != 0 ? columns[static_cast<size_t>(x / 2)] : QVector4D();
        });
    };
    const auto drawn = [&](unsigned long long value, unsigned long long mask) {
        return picture([&] { model.draw(program(), value, mask, WindingType::CounterClockwise); });
    };
    EXPECT_TRUE(equal(drawn(0, 0), expect(0b1111)));
    EXPECT_TRUE(equal(drawn(DrawFlag::Transparent, DrawFlag::Transparent), expect(0b0100)));
    EXPECT_TRUE(equal(drawn(0, DrawFlag::Transparent | DrawFlag::CutOut), expect(0b0011)));
    EXPECT_TRUE(equal(picture([&] {
                          model.draw(program(), TextureManager::Instance(), DrawFlag::CutOut,
                                     DrawFlag::CutOut);
                      }),
                      expect(0b1000)));

    // What was bound is bound again, and instance data is back at the default.
    const AutoBinder binder(model.drawBuffers(0));
    EXPECT_TRUE(equal(picture([&] {
                          const AutoBinder programBinder(program());
                          model.draw(program(), 0, 0, WindingType::CounterClockwise);
                          glClear(GL_COLOR_BUFFER_BIT);
                          EXPECT_TRUE(model.drawBuffers(0)->draw());
                      }),
                      Pixels::generate(8, 4, [](int x, int y) {
                          return x >= 4 && y >= 2 ? QVector4D(1, 1, 1, 5.25F) : QVector4D();
                      })));
}

TEST_F(GPUModelTest, drawsNothingWithoutAValidProgram)
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
            equal(picture([&] { model.draw(candidate, 0, 0, WindingType::CounterClockwise); }), nothing));
        EXPECT_TRUE(equal(picture([&] { model.draw(candidate, nullptr, 0, 0); }), nothing));
    }
    expectMessage(u"nonsense"_s);
}

TEST_F(GPUModelTest, mirroredBatchesKeepTheirFrontFaces)
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
    EXPECT_EQ(numDrawn(picture([&] { model.draw(program(), 0, 0, WindingType::CounterClockwise); })), 32);
    EXPECT_EQ(frontFace(), static_cast<unsigned int>(GL_CCW));
    EXPECT_EQ(numDrawn(picture([&] { model.draw(program(), 0, 0, WindingType::Clockwise); })), 0);
    EXPECT_EQ(frontFace(), static_cast<unsigned int>(GL_CW));
    EXPECT_EQ(numDrawn(picture([&] { model.draw(program(), nullptr, 0, 0); })), 0) << "the winding in force";
    context().setFrontFace(GL_CCW);
    EXPECT_EQ(numDrawn(picture([&] { model.draw(program(), nullptr, 0, 0); })), 32);
}

TEST_F(GPUModelTest, texturesRepeatAndHaveMipmaps)
{
    // Fine stripes of black and white, seen from so far that only their mean is left.
    QImage stripes(16, 16, QImage::Format_RGB888);
    stripes.fill(Qt::black);
    {
        QPainter painter(&stripes);
        for (int x = 0; x < 16; x += 2) {
            painter.fillRect(x, 0, 1, 16, Qt::white);
        }
    }
    ModelData data;
    data.images = {stripes, QImage(3, 5, QImage::Format_RGB888)};
    data.materials = {colour(1, 1, 1)};
    data.materials[0].mapKd = 0;
    data.meshes = {square(0)};
    data.meshes[0].texCoords = {{0, 0}, {40, 0}, {40, 40}, {0, 40}};
    data.instances = {{0, column(-1, 2)}};
    data.images[1].fill(Qt::red);
    GPUModel model(data);
    const Texture* texture = model.materialData(0)->texture(0);
    ASSERT_NE(texture, nullptr);
    EXPECT_TRUE(texture->isReadOnly());
    EXPECT_EQ(texture->size(), QSize(16, 16));
    const Pixels pixels = picture([&] { model.draw(program(), 0, 0, WindingType::CounterClockwise); });
    for (const QVector4D& pixel : pixels.values) {
        // The mean of 0 and 255, in 8 bits a level.
        EXPECT_NEAR(pixel.x(), 0.5F, 2.0F / 255.0F);
    }
}

/// Every file that other projects test their importers with goes to the GPU and leaves nothing there.
TEST_F(GPUModelTest, uploadsEveryModelAndLeaksNothing)
{
    {
        // The first draw of a context makes what all its models share.
        ModelData data;
        data.meshes = {square(0)};
        data.materials.resize(1);
        data.instances.resize(1);
        GPUModel first(data);
        picture([&] { first.draw(program(), 0, 0, WindingType::CounterClockwise); });
    }
    const int before = numObjects();
    int numModels = 0;
    for (const char* root : {"/usr/share/assimp/models", "/usr/share/glmark2/models"}) {
        ASSERT_TRUE(QFileInfo::exists(QString::fromLatin1(root)))
            << root << " is missing; install the packages assimp-testmodels and glmark2-data";
        QDirIterator files(QString::fromLatin1(root), QDir::Files, QDirIterator::Subdirectories);
        while (files.hasNext()) {
            const QString path = files.next();
            SCOPED_TRACE(qPrintable(path));
            // What Qt's image plugins say of broken images is no failure.
            const QtMessageHandler handler =
                qInstallMessageHandler([](QtMsgType, const QMessageLogContext&, const QString&) {});
            const std::optional<ModelData> data = importModel(path, nullptr);
            qInstallMessageHandler(handler);
            if (!data) {
                continue;
            }
            ++numModels;
            GPUModel model(*data);
            EXPECT_EQ(model.numBatches(), static_cast<int>(data->instances.size()));
            EXPECT_GT(model.numTriangles(), 0);
            picture([&] { model.draw(program(), 0, 0, WindingType::CounterClockwise); });
        }
    }
    EXPECT_GT(numModels, 250);
    EXPECT_EQ(numObjects(), before);
}

} // namespace

} // namespace Morvane::Qel
