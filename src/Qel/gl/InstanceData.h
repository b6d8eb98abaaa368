#pragma once

#include <QByteArray>
#include <QMatrix4x4>
#include <QObject>
#include <QSharedPointer>
#include <QString>

#include <array>
#include <memory>
#include <vector>

#include <Qel/gl/Export.h>

namespace Morvane::Qel {

class BufferObject;
class ShaderProgram;
class Texture;
class TextureManager;

/// How the data of an instance or of a material reaches a shader: a std140 uniform block at a fixed binding
/// point, and GLSL functions that read it.
class QEL_GL_EXPORT InstanceDataPlan
{
public:
    /// The name, which is that of the block as well.
    QString name() const { return m_name; }
    /// GLSL that defines the accessor functions; added as a further source of the stage that calls them.
    QString glslc() const { return m_definitions; }
    /// GLSL that declares them, in one line; what `#instancedata "name"` stands for.
    QString glslh() const { return m_prototypes; }
    /// Checks that a linked program has the block with the size that the host writes; reports a failed check
    /// and returns false otherwise. A program that calls no accessor has no block and passes.
    bool assertShaderProgram(const ShaderProgram* program) const;
    unsigned int bindingPoint() const { return m_bindingPoint; }
    /// Size of the block in bytes.
    qsizetype blockSize() const { return m_defaultBlock.size(); }
    /// How many managed texture slots the plan's accessors name, from 0 on.
    int numTextures() const { return m_numTextures; }
    /// Binds the data that draws read while no collection is bound: identity matrices, a white material.
    void bindDefault() const;
    /// The same the first time on the current context; nothing later, so that what is bound stays.
    void provideDefault() const;

private:
    friend class InstanceDataRegistry;
    InstanceDataPlan(QString name, QString prototypes, QString definitions, unsigned int bindingPoint,
                     QByteArray defaultBlock, int numTextures);

    QString m_name;
    QString m_prototypes;
    QString m_definitions;
    unsigned int m_bindingPoint;
    QByteArray m_defaultBlock;
    int m_numTextures;
};

/// The plans by name:
/// - "InstanceInfo": getModelMatrix() and getModelNormalMatrix() (mat4) of a model's batch.
/// - "OBJMaterial": getKd(), getKs() (vec3), getNs(), getD() (float), getMap_Kd(), getMap_Ks() (int, for
///   managedTexture).
/// - "VeskInstance": getModelMatrix() of an instance; identity where no collection is bound.
class QEL_GL_EXPORT InstanceDataRegistry
{
public:
    static InstanceDataRegistry* Instance();
    /// Null for an unknown name, which is reported.
    const InstanceDataPlan* getPlan(const QString& name) const;
    /// Every plan; a linked program's blocks are bound by them.
    const std::vector<std::unique_ptr<InstanceDataPlan>>& plans() const { return m_plans; }

private:
    InstanceDataRegistry();
    std::vector<std::unique_ptr<InstanceDataPlan>> m_plans;
};

/// The block of "InstanceInfo" as the host writes it.
struct QEL_GL_EXPORT InstanceInfoBlock
{
    explicit InstanceInfoBlock(const QMatrix4x4& modelMatrix);
    std::array<float, 16> modelMatrix;
    /// Transposed inverse of the model matrix.
    std::array<float, 16> modelNormalMatrix;
};

/// The block of "OBJMaterial" as the host writes it.
struct OBJMaterialBlock
{
    /// Diffuse colour and dissolve (1 is opaque).
    float kd[3] = {1.0F, 1.0F, 1.0F};
    float d = 1.0F;
    /// Specular colour and exponent.
    float ks[3] = {0.0F, 0.0F, 0.0F};
    float ns = 1.0F;
};

/// The block of "VeskInstance" as the host writes it.
struct VeskInstanceBlock
{
    std::array<float, 16> modelMatrix;
};

/// The data of one instance or material, in a range of a buffer that may hold many, and its textures. Bound
/// around a draw.
class QEL_GL_EXPORT InstanceDataCollection : public QObject
{
    Q_OBJECT
public:
    /// `offset` must be a multiple of uniformBufferAlignment().
    InstanceDataCollection(const InstanceDataPlan* plan, QSharedPointer<BufferObject> buffer, qintptr offset,
                           QObject* parent = nullptr);
    ~InstanceDataCollection() override;

    const InstanceDataPlan* plan() const { return m_plan; }
    /// The texture of a managed slot, not owned; null, as initially, for the stand-in.
    void setTexture(int slot, Texture* texture);
    Texture* texture(int slot) const;

    /// Binds the block's range to the plan's binding point, and for plans with textures those to their slots,
    /// through the texture manager; null stands for the process's one.
    void bind(TextureManager* textureManager);
    /// Puts the plan's default data back.
    void unbind(TextureManager* textureManager);

    /// The alignment that block ranges need in the current context.
    static int uniformBufferAlignment();

private:
    const InstanceDataPlan* m_plan;
    QSharedPointer<BufferObject> m_buffer;
    qintptr m_offset;
    std::array<Texture*, 2> m_textures{};
};

} // namespace Morvane::Qel
