#include <Qel/gl/InstanceData.h>

#include <QHash>

#include <cstring>

#include <epoxy/gl.h>

#include <Qel/core/Diagnostics.h>
#include <Qel/gl/BufferObject.h>
#include <Qel/gl/OpenGLDeviceContext.h>
#include <Qel/gl/TextureManager.h>
#include <Qel/gl/UniformBlocks.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

std::array<float, 16> toArray(const QMatrix4x4& matrix)
{
    std::array<float, 16> array{};
    std::memcpy(array.data(), matrix.constData(), sizeof(array));
    return array;
}

template<class Block>
QByteArray toBytes(const Block& block)
{
    return {reinterpret_cast<const char*>(&block), sizeof(Block)};
}

void bindBlock(const InstanceDataPlan& plan, BufferObject& buffer, qintptr offset)
{
    glBindBufferRange(GL_UNIFORM_BUFFER, plan.bindingPoint(), buffer.getBO(), offset, plan.blockSize());
}

/// The buffers with the default data of the plans that were used on a context.
struct DefaultBlocks : ContextData
{
    QHash<const InstanceDataPlan*, QSharedPointer<BufferObject>> buffers;

    void restoreBindings() override
    {
        for (auto buffer = buffers.cbegin(); buffer != buffers.cend(); ++buffer) {
            bindBlock(*buffer.key(), **buffer, 0);
        }
    }
};

QHash<const InstanceDataPlan*, QSharedPointer<BufferObject>>& defaultBlocks()
{
    return OpenGLDeviceContext::current()->data<DefaultBlocks>().buffers;
}

const QString instanceInfoPrototypes = u"mat4 getModelMatrix(); mat4 getModelNormalMatrix();"_s;
const QString instanceInfoDefinitions = uR"(#version 150
layout(std140) uniform InstanceInfo
{
    mat4 modelMatrix;
    mat4 modelNormalMatrix;
} b_InstanceInfo;

mat4 getModelMatrix() { return b_InstanceInfo.modelMatrix; }
mat4 getModelNormalMatrix() { return b_InstanceInfo.modelNormalMatrix; }
)"_s;

const QString objMaterialPrototypes =
    u"vec3 getKd(); vec3 getKs(); float getNs(); float getD(); int getMap_Kd(); int getMap_Ks();"_s;
const QString objMaterialDefinitions = uR"(#version 150
layout(std140) uniform OBJMaterial
{
    vec3 kd;
    float d;
    vec3 ks;
    float ns;
} b_OBJMaterial;

vec3 getKd() { return b_OBJMaterial.kd; }
vec3 getKs() { return b_OBJMaterial.ks; }
float getNs() { return b_OBJMaterial.ns; }
float getD() { return b_OBJMaterial.d; }
int getMap_Kd() { return 0; }
int getMap_Ks() { return 1; }
)"_s;

const QString veskInstancePrototypes = u"mat4 getModelMatrix();"_s;
const QString veskInstanceDefinitions = uR"(#version 150
layout(std140) uniform VeskInstance
{
    mat4 modelMatrix;
} b_VeskInstance;

mat4 getModelMatrix() { return b_VeskInstance.modelMatrix; }
)"_s;

} // namespace

InstanceDataPlan::InstanceDataPlan(QString name, QString prototypes, QString definitions,
                                   unsigned int bindingPoint, QByteArray defaultBlock, int numTextures)
    : m_name(std::move(name))
    , m_prototypes(std::move(prototypes))
    , m_definitions(std::move(definitions))
    , m_bindingPoint(bindingPoint)
    , m_defaultBlock(std::move(defaultBlock))
    , m_numTextures(numTextures)
{
}

void InstanceDataPlan::bindDefault() const
{
    QSharedPointer<BufferObject>& buffer = defaultBlocks()[this];
    if (!buffer) {
        buffer.reset(new BufferObject(GL_UNIFORM_BUFFER));
        buffer->uploadBytes(m_defaultBlock.constData(), m_defaultBlock.size(), GL_STATIC_DRAW);
    }
    bindBlock(*this, *buffer, 0);
}

void InstanceDataPlan::provideDefault() const
{
    if (!defaultBlocks().contains(this)) {
        bindDefault();
    }
}

InstanceDataRegistry* InstanceDataRegistry::Instance()
{
    static InstanceDataRegistry registry;
    return &registry;
}

InstanceDataRegistry::InstanceDataRegistry()
{
    m_plans.emplace_back(new InstanceDataPlan(u"InstanceInfo"_s, instanceInfoPrototypes,
                                              instanceInfoDefinitions, UniformBlocks::instanceInfo,
                                              toBytes(InstanceInfoBlock(QMatrix4x4())), 0));
    m_plans.emplace_back(new InstanceDataPlan(u"OBJMaterial"_s, objMaterialPrototypes, objMaterialDefinitions,
                                              UniformBlocks::objMaterial, toBytes(OBJMaterialBlock()), 2));
    m_plans.emplace_back(new InstanceDataPlan(u"VeskInstance"_s, veskInstancePrototypes,
                                              veskInstanceDefinitions, UniformBlocks::veskInstance,
                                              toBytes(VeskInstanceBlock{toArray(QMatrix4x4())}), 0));
    for (const auto& plan : m_plans) {
        m_prototypes.insert(plan->name(), plan->glslh());
    }
}

const InstanceDataPlan* InstanceDataRegistry::getPlan(const QString& name) const
{
    for (const auto& plan : m_plans) {
        if (plan->name() == name) {
            return plan.get();
        }
    }
    logCritical(__FILE__, __LINE__, u"there is no instance-data plan \"%1\""_s.arg(name));
    return nullptr;
}

InstanceInfoBlock::InstanceInfoBlock(const QMatrix4x4& model)
    : modelMatrix(toArray(model))
    , modelNormalMatrix(toArray(model.inverted().transposed()))
{
}

InstanceDataCollection::InstanceDataCollection(const InstanceDataPlan* plan,
                                               QSharedPointer<BufferObject> buffer, qintptr offset,
                                               QObject* parent)
    : QObject(parent)
    , m_plan(plan)
    , m_buffer(std::move(buffer))
    , m_offset(offset)
{
}

InstanceDataCollection::~InstanceDataCollection() = default;

void InstanceDataCollection::setTexture(int slot, Texture* texture)
{
    m_textures[static_cast<size_t>(slot)] = texture;
}

Texture* InstanceDataCollection::texture(int slot) const
{
    return m_textures[static_cast<size_t>(slot)];
}

void InstanceDataCollection::bind(TextureManager* textureManager)
{
    // Otherwise a program that is built while the collection is bound would bind the default over it.
    m_plan->provideDefault();
    bindBlock(*m_plan, *m_buffer, m_offset);
    TextureManager* manager = textureManager != nullptr ? textureManager : TextureManager::Instance();
    for (int slot = 0; slot < m_plan->numTextures(); ++slot) {
        manager->bindManagedTexture(slot, texture(slot));
    }
}

void InstanceDataCollection::unbind(TextureManager* textureManager)
{
    m_plan->bindDefault();
    TextureManager* manager = textureManager != nullptr ? textureManager : TextureManager::Instance();
    for (int slot = 0; slot < m_plan->numTextures(); ++slot) {
        manager->bindManagedTexture(slot, nullptr);
    }
}

int InstanceDataCollection::uniformBufferAlignment()
{
    int alignment = 1;
    glGetIntegerv(GL_UNIFORM_BUFFER_OFFSET_ALIGNMENT, &alignment);
    return alignment;
}

} // namespace Morvane::Qel
