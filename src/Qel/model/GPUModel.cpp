#include <Qel/model/GPUModel.h>

#include <QSharedPointer>

#include <algorithm>
#include <array>
#include <cstring>
#include <limits>
#include <vector>

#include <epoxy/gl.h>

#include <Qel/gl/BufferObject.h>
#include <Qel/gl/DrawBuffers.h>
#include <Qel/gl/Guards.h>
#include <Qel/gl/InstanceData.h>
#include <Qel/gl/OpenGLDeviceContext.h>
#include <Qel/gl/ShaderProgram.h>
#include <Qel/gl/Texture.h>
#include <Qel/gl/VertexArrayObject.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

/// The buffers of a mesh, which all its batches share.
struct GPUMesh
{
    QSharedPointer<VertexArrayObject> vertexArray;
    QSharedPointer<BufferObject> indices;
    int numIndices = 0;
};

/// A uniform buffer that is filled block by block.
class BlockBuffer
{
public:
    explicit BlockBuffer(const InstanceDataPlan& plan)
        : m_stride(roundUp(plan.blockSize(), InstanceDataCollection::uniformBufferAlignment()))
    {
    }

    void append(const void* block, size_t size)
    {
        m_bytes.resize(m_bytes.size() + static_cast<size_t>(m_stride));
        std::memcpy(m_bytes.data() + m_bytes.size() - static_cast<size_t>(m_stride), block, size);
    }

    QSharedPointer<BufferObject> upload() const
    {
        auto buffer = QSharedPointer<BufferObject>::create(GL_UNIFORM_BUFFER);
        buffer->uploadBytes(m_bytes.data(), static_cast<qsizetype>(m_bytes.size()), GL_STATIC_DRAW);
        return buffer;
    }

    qintptr offset(size_t index) const { return static_cast<qintptr>(index) * m_stride; }

private:
    static qintptr roundUp(qintptr size, qintptr alignment)
    {
        return (size + alignment - 1) / alignment * alignment;
    }

    qintptr m_stride;
    std::vector<char> m_bytes;
};

template<typename Vector>
QSharedPointer<BufferObject> uploadVectors(const std::vector<Vector>& vectors)
{
    auto buffer = QSharedPointer<BufferObject>::create(GL_ARRAY_BUFFER);
    const size_t size = vectors.size() * sizeof(Vector);
    buffer->uploadBytes(vectors.data(), static_cast<qsizetype>(size), GL_STATIC_DRAW);
    return buffer;
}

GPUMesh uploadMesh(const MeshData& mesh, const OpenGLDeviceContext& context)
{
    static_assert(sizeof(QVector3D) == 3 * sizeof(float) && sizeof(QVector2D) == 2 * sizeof(float));
    GPUMesh result;
    result.vertexArray = QSharedPointer<VertexArrayObject>::create();
    result.vertexArray->upload(u"va_Vertex"_s, uploadVectors(mesh.positions), 3, GL_FLOAT);
    result.vertexArray->upload(u"va_Normal"_s, uploadVectors(mesh.normals), 3, GL_FLOAT);
    result.vertexArray->upload(u"va_TexCoord"_s, uploadVectors(mesh.texCoords), 2, GL_FLOAT);
    context.label(GL_VERTEX_ARRAY, result.vertexArray->getVAO(), mesh.name);
    result.numIndices = static_cast<int>(mesh.indices.size());
    result.indices = QSharedPointer<BufferObject>::create(GL_ELEMENT_ARRAY_BUFFER);
    result.indices->uploadGLuintData(mesh.indices.data(), result.numIndices, GL_STATIC_DRAW);
    return result;
}

Texture* uploadImage(QImage image, int maxSize, QObject* parent)
{
    if (image.width() > maxSize || image.height() > maxSize) {
        image = image.scaled(maxSize, maxSize, Qt::KeepAspectRatio, Qt::SmoothTransformation);
    }
    image = image.convertToFormat(QImage::Format_RGBA8888);
    // An image over somebody else's pixels may have padded rows; a copy has none.
    if (image.bytesPerLine() != 4 * image.width()) {
        image = image.copy();
    }
    auto* texture = new Texture(parent);
    texture->setImage2D(0, GL_RGBA8, image.width(), image.height(), GL_RGBA, GL_UNSIGNED_BYTE,
                        image.constBits());
    texture->generateMipmap();
    texture->setFilter(GL_LINEAR_MIPMAP_LINEAR, GL_LINEAR);
    texture->setWrap(GL_REPEAT);
    texture->setReadOnly();
    return texture;
}

bool hasTranslucentTexels(const QImage& image)
{
    if (!image.hasAlphaChannel()) {
        return false;
    }
    const QImage rgba = image.convertToFormat(QImage::Format_RGBA8888);
    for (int y = 0; y < rgba.height(); ++y) {
        const uchar* line = rgba.constScanLine(y);
        for (int x = 0; x < rgba.width(); ++x) {
            if (line[4 * x + 3] != 255) {
                return true;
            }
        }
    }
    return false;
}

OBJMaterialBlock toBlock(const MaterialData& material)
{
    OBJMaterialBlock block;
    for (int i = 0; i < 3; ++i) {
        block.kd[i] = material.kd[i];
        block.ks[i] = material.ks[i];
    }
    block.d = material.d;
    block.ns = material.ns;
    return block;
}

unsigned int frontFace(WindingType winding)
{
    return winding == WindingType::CounterClockwise ? GL_CCW : GL_CW;
}

} // namespace

struct GPUModel::Batch
{
    DrawBuffers* drawBuffers;
    InstanceDataCollection* object;
    InstanceDataCollection* material;
    unsigned long long flags;
    /// Whether the transform turns clockwise into counter-clockwise.
    bool isMirrored;
};

struct GPUModel::Private
{
    /// The uniform "u_DrawID" as the programs that draw this model know it.
    class DrawIdUniforms
    {
    public:
        Uniform& of(const ShaderProgram* program)
        {
            for (Entry& entry : m_entries) {
                if (entry.program == program) {
                    return entry.uniform;
                }
            }
            m_next = (m_next + 1) % m_entries.size();
            m_entries[m_next].program = program;
            return m_entries[m_next].uniform;
        }

    private:
        struct Entry
        {
            const ShaderProgram* program = nullptr;
            Uniform uniform{"u_DrawID"};
        };
        // A frame draws a model with a few programs; with more than these the uniform is looked up again.
        std::array<Entry, 8> m_entries;
        size_t m_next = 0;
    };

    void draw(ShaderProgram* program, TextureManager* textureManager, unsigned long long value,
              unsigned long long mask, unsigned int winding);

    std::vector<Batch> batches;
    DrawIdUniforms drawIds;
    QVector3D lower;
    QVector3D upper;
    int numTriangles = 0;
};

GPUModel::GPUModel(const ModelData& data, QObject* parent)
    : QObject(parent)
    , d(std::make_unique<Private>())
{
    const OpenGLDeviceContext& context = *OpenGLDeviceContext::current();

    std::vector<Texture*> textures;
    std::vector<bool> isTranslucent;
    for (const QImage& image : data.images) {
        textures.push_back(uploadImage(image, context.maxTextureSize(), this));
        isTranslucent.push_back(hasTranslucentTexels(image));
    }

    const InstanceDataPlan* materialPlan = InstanceDataRegistry::Instance()->getPlan(u"OBJMaterial"_s);
    BlockBuffer materialBlocks(*materialPlan);
    for (const MaterialData& material : data.materials) {
        const OBJMaterialBlock block = toBlock(material);
        materialBlocks.append(&block, sizeof(block));
    }
    const QSharedPointer<BufferObject> materialBuffer = materialBlocks.upload();
    std::vector<InstanceDataCollection*> materials;
    std::vector<unsigned long long> materialFlags;
    for (const MaterialData& material : data.materials) {
        auto* collection = new InstanceDataCollection(materialPlan, materialBuffer,
                                                      materialBlocks.offset(materials.size()), this);
        unsigned long long flags = 0;
        if (material.mapKd >= 0) {
            const auto map = static_cast<size_t>(material.mapKd);
            collection->setTexture(0, textures.at(map));
            flags |= isTranslucent.at(map) ? DrawFlag::CutOut : 0;
        }
        if (material.mapKs >= 0) {
            collection->setTexture(1, textures.at(static_cast<size_t>(material.mapKs)));
        }
        flags |= material.d < 1.0F ? DrawFlag::Transparent : 0;
        flags |= material.doubleSided ? DrawFlag::DoubleSided : 0;
        materials.push_back(collection);
        materialFlags.push_back(flags);
    }

    std::vector<GPUMesh> meshes;
    for (const MeshData& mesh : data.meshes) {
        meshes.push_back(uploadMesh(mesh, context));
    }

    const InstanceDataPlan* objectPlan = InstanceDataRegistry::Instance()->getPlan(u"InstanceInfo"_s);
    BlockBuffer objectBlocks(*objectPlan);
    for (const InstanceData& instance : data.instances) {
        const InstanceInfoBlock block(instance.transform);
        objectBlocks.append(&block, sizeof(block));
    }
    const QSharedPointer<BufferObject> objectBuffer = objectBlocks.upload();
    constexpr float infinity = std::numeric_limits<float>::infinity();
    QVector3D lower(infinity, infinity, infinity);
    QVector3D upper = -lower;
    for (const InstanceData& instance : data.instances) {
        const MeshData& mesh = data.meshes.at(static_cast<size_t>(instance.mesh));
        const GPUMesh& buffers = meshes[static_cast<size_t>(instance.mesh)];
        const auto material = static_cast<size_t>(mesh.material);
        auto* drawBuffers = new DrawBuffers(this);
        drawBuffers->setVAO(buffers.vertexArray);
        drawBuffers->setPrimitiveType(GL_TRIANGLES);
        drawBuffers->setIndexedDraw(buffers.indices, buffers.numIndices, GL_UNSIGNED_INT);
        auto* object = new InstanceDataCollection(objectPlan, objectBuffer,
                                                  objectBlocks.offset(d->batches.size()), this);
        d->batches.push_back({drawBuffers, object, materials.at(material), materialFlags.at(material),
                              instance.transform.determinant() < 0.0});
        d->numTriangles += buffers.numIndices / 3;
        for (const QVector3D& position : mesh.positions) {
            const QVector3D p = instance.transform.map(position);
            for (int i = 0; i < 3; ++i) {
                lower[i] = std::min(lower[i], p[i]);
                upper[i] = std::max(upper[i], p[i]);
            }
        }
    }
    if (lower.x() <= upper.x()) {
        d->lower = lower;
        d->upper = upper;
    }
}

GPUModel::~GPUModel() = default;

void GPUModel::draw(ShaderProgram* program, unsigned long long value, unsigned long long mask,
                    WindingType winding)
{
    OpenGLDeviceContext::current()->setFrontFace(frontFace(winding));
    d->draw(program, nullptr, value, mask, frontFace(winding));
}

void GPUModel::draw(ShaderProgram* program, TextureManager* textureManager, unsigned long long value,
                    unsigned long long mask)
{
    d->draw(program, textureManager, value, mask, OpenGLDeviceContext::current()->frontFace());
}

void GPUModel::Private::draw(ShaderProgram* program, TextureManager* textureManager, unsigned long long value,
                             unsigned long long mask, unsigned int winding)
{
    if (program == nullptr || !program->isValid()) {
        return;
    }
    const AutoBinder binder(program);
    Uniform& drawId = drawIds.of(program);
    const unsigned int oppositeWinding = winding == GL_CCW ? GL_CW : GL_CCW;
    const Batch* previous = nullptr;
    bool isMirrored = false;
    for (size_t i = 0; i < batches.size(); ++i) {
        const Batch& batch = batches[i];
        if ((batch.flags & mask) != value) {
            continue;
        }
        if (batch.isMirrored != isMirrored) {
            isMirrored = batch.isMirrored;
            glFrontFace(isMirrored ? oppositeWinding : winding);
        }
        batch.object->bind(textureManager);
        if (previous == nullptr || batch.material != previous->material) {
            batch.material->bind(textureManager);
        }
        if (previous == nullptr) {
            batch.drawBuffers->bind();
        } else if (batch.drawBuffers->VAO() != previous->drawBuffers->VAO()) {
            // In this order, because releasing first would make the vertex array below current in between.
            batch.drawBuffers->bind();
            previous->drawBuffers->release();
        }
        program->setUniform(drawId, static_cast<int>(i));
        batch.drawBuffers->draw();
        previous = &batch;
    }
    if (previous != nullptr) {
        previous->drawBuffers->release();
        previous->material->unbind(textureManager);
        previous->object->unbind(textureManager);
    }
    if (isMirrored) {
        glFrontFace(winding);
    }
}

bool GPUModel::isDrawEmpty(unsigned long long value, unsigned long long mask) const
{
    return std::none_of(d->batches.begin(), d->batches.end(),
                        [=](const Batch& batch) { return (batch.flags & mask) == value; });
}

int GPUModel::numBatches() const
{
    return static_cast<int>(d->batches.size());
}

DrawBuffers* GPUModel::drawBuffers(int batch) const
{
    return hasBatch(batch) ? d->batches[static_cast<size_t>(batch)].drawBuffers : nullptr;
}

InstanceDataCollection* GPUModel::materialData(int batch) const
{
    return hasBatch(batch) ? d->batches[static_cast<size_t>(batch)].material : nullptr;
}

InstanceDataCollection* GPUModel::objectData(int batch) const
{
    return hasBatch(batch) ? d->batches[static_cast<size_t>(batch)].object : nullptr;
}

unsigned long long GPUModel::drawFlags(int batch) const
{
    return hasBatch(batch) ? d->batches[static_cast<size_t>(batch)].flags : 0;
}

void GPUModel::setDrawFlags(int batch, unsigned long long flags)
{
    if (hasBatch(batch)) {
        d->batches[static_cast<size_t>(batch)].flags = flags;
    }
}

bool GPUModel::hasBatch(int batch) const
{
    return batch >= 0 && batch < numBatches();
}

QPair<QVector3D, QVector3D> GPUModel::bounds() const
{
    return {d->lower, d->upper};
}

int GPUModel::numTriangles() const
{
    return d->numTriangles;
}

} // namespace Morvane::Qel
