#include <Qel/model/GPUModelUpload.h>

#include <algorithm>
#include <cstring>

#include <epoxy/gl.h>

#include <Qel/core/Diagnostics.h>
#include <Qel/gl/BufferObject.h>
#include <Qel/gl/InstanceData.h>
#include <Qel/gl/OpenGLDeviceContext.h>
#include <Qel/gl/Texture.h>
#include <Qel/gl/VertexArrayObject.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

/// A uniform buffer that is filled one block at a time, each at an offset that can be bound.
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

GPUMesh uploadMesh(const MeshData& mesh, const OpenGLDeviceContext& context, ModelFaults& faults)
{
    static_assert(sizeof(QVector3D) == 3 * sizeof(float) && sizeof(QVector2D) == 2 * sizeof(float));
    GPUMesh result;
    result.vertexArray = QSharedPointer<VertexArrayObject>::create();
    result.vertexArray->upload(u"va_Vertex"_s, uploadVectors(mesh.positions), 3, GL_FLOAT);
    // A shorter array would be read past its end.
    const auto upload = [&](const QString& attribute, const auto& vectors, int components, const char* what) {
        if (faults.check(vectors.size() == mesh.positions.size(), [&] {
                return u"mesh \"%1\" has %2 positions but %3 %4, which are left out"_s.arg(mesh.name)
                    .arg(mesh.positions.size())
                    .arg(vectors.size())
                    .arg(QLatin1StringView(what));
            })) {
            result.vertexArray->upload(attribute, uploadVectors(vectors), components, GL_FLOAT);
        }
    };
    upload(u"va_Normal"_s, mesh.normals, 3, "normals");
    upload(u"va_TexCoord"_s, mesh.texCoords, 2, "texture coordinates");
    context.label(GL_VERTEX_ARRAY, result.vertexArray->getVAO(), mesh.name);
    const auto outside = std::find_if(mesh.indices.begin(), mesh.indices.end(),
                                      [&](unsigned int index) { return index >= mesh.positions.size(); });
    if (faults.check(outside == mesh.indices.end(), [&] {
            return u"mesh \"%1\" has %2 positions but an index %3, so it is not drawn"_s.arg(mesh.name)
                .arg(mesh.positions.size())
                .arg(*outside);
        })) {
        result.numIndices = static_cast<int>(mesh.indices.size());
    }
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
    // An image over external pixels may have padded rows; a copy has none.
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

} // namespace

ModelFaults::~ModelFaults()
{
    if (m_count > 0) {
        logCritical(__FILE__, __LINE__,
                    u"the model is incomplete: "_s + m_first +
                        (m_count > 1 ? u"; and %1 more"_s.arg(m_count - 1) : QString()));
    }
}

std::vector<GPUMesh> uploadMeshes(const std::vector<MeshData>& meshes, ModelFaults& faults)
{
    const OpenGLDeviceContext& context = *OpenGLDeviceContext::current();
    std::vector<GPUMesh> result;
    result.reserve(meshes.size());
    for (const MeshData& mesh : meshes) {
        result.push_back(uploadMesh(mesh, context, faults));
    }
    return result;
}

std::vector<GPUMaterial> uploadMaterials(const ModelData& model, ModelFaults& faults, QObject* owner)
{
    const int maxSize = OpenGLDeviceContext::current()->maxTextureSize();
    std::vector<Texture*> textures;
    std::vector<bool> isTranslucent;
    for (const QImage& image : model.images) {
        const bool isImage = faults.check(!image.isNull(), [&] {
            return u"image %1 is null and replaced by white"_s.arg(textures.size());
        });
        textures.push_back(isImage ? uploadImage(image, maxSize, owner) : nullptr);
        isTranslucent.push_back(hasTranslucentTexels(image));
    }

    const InstanceDataPlan* plan = InstanceDataRegistry::Instance()->getPlan(u"OBJMaterial"_s);
    BlockBuffer blocks(*plan);
    std::vector<MaterialData> materials = model.materials;
    materials.emplace_back();
    for (const MaterialData& material : materials) {
        const OBJMaterialBlock block = toBlock(material);
        blocks.append(&block, sizeof(block));
    }
    const QSharedPointer<BufferObject> buffer = blocks.upload();
    std::vector<GPUMaterial> result;
    const auto hasMap = [&](const MaterialData& material, int map) {
        return map >= 0 && faults.check(static_cast<size_t>(map) < textures.size(), [&] {
            return u"material \"%1\" has a map with image %2 of %3, which is left out"_s.arg(material.name)
                .arg(map)
                .arg(textures.size());
        });
    };
    for (const MaterialData& material : materials) {
        auto* data = new InstanceDataCollection(plan, buffer, blocks.offset(result.size()), owner);
        unsigned long long flags = 0;
        if (hasMap(material, material.mapKd)) {
            const auto map = static_cast<size_t>(material.mapKd);
            data->setTexture(0, textures[map]);
            flags |= isTranslucent[map] ? DrawFlag::CutOut : 0;
        }
        if (hasMap(material, material.mapKs)) {
            data->setTexture(1, textures[static_cast<size_t>(material.mapKs)]);
        }
        const Opacity opacity = material.d < 1.0F ? Opacity::Transparent : Opacity::Opaque;
        flags |= opacity == Opacity::Transparent ? DrawFlag::Transparent : 0;
        flags |= material.doubleSided ? DrawFlag::DoubleSided : 0;
        result.push_back({data, flags, opacity});
    }
    return result;
}

std::vector<InstanceDataCollection*> uploadInstances(const std::vector<InstanceData>& instances,
                                                     QObject* owner)
{
    const InstanceDataPlan* plan = InstanceDataRegistry::Instance()->getPlan(u"InstanceInfo"_s);
    BlockBuffer blocks(*plan);
    for (const InstanceData& instance : instances) {
        const InstanceInfoBlock block(instance.transform);
        blocks.append(&block, sizeof(block));
    }
    const QSharedPointer<BufferObject> buffer = blocks.upload();
    std::vector<InstanceDataCollection*> result;
    for (size_t i = 0; i < instances.size(); ++i) {
        result.push_back(new InstanceDataCollection(plan, buffer, blocks.offset(i), owner));
    }
    return result;
}

} // namespace Morvane::Qel
