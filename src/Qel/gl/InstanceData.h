#pragma once

#include <QByteArray>
#include <QMap>
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

/// The layout in which shaders receive the data of an instance or a material: a std140 uniform block at a
/// fixed binding point, and GLSL functions that read it.
class QEL_GL_EXPORT InstanceDataPlan
{
public:
    /// The name of the plan and of its uniform block.
    QString name() const { return m_name; }
    /// GLSL that defines the accessor functions, to be added as another source of the stage that calls them.
    QString glslc() const { return m_definitions; }
    /// GLSL that declares the accessor functions, in one line; inserted for `#instancedata "name"`.
    QString glslh() const { return m_prototypes; }
    /// Checks that the block of a linked program has the size and the binding point that the host uses; if
    /// not, logs a failed check and returns false. A program that calls no accessor has no block and passes.
    bool assertShaderProgram(const ShaderProgram* program) const;
    unsigned int bindingPoint() const { return m_bindingPoint; }
    /// The size of the block in bytes.
    qsizetype blockSize() const { return m_defaultBlock.size(); }
    /// The number of material texture slots that the plan uses, from slot 0 on.
    int numTextures() const { return m_numTextures; }
    /// Binds the default block, which draws read while no collection is bound: identity matrices, a white
    /// material.
    void bindDefault() const;
    /// Binds the default block, but only on the first call per context, so that later bindings survive.
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

/// All instance-data plans:
/// - "InstanceInfo": getModelMatrix() and getModelNormalMatrix() (mat4) of a model's batch.
/// - "OBJMaterial": getKd(), getKs() (vec3), getNs(), getD() (float), and getMap_Kd(), getMap_Ks() (int, to
///   be passed to managedTexture).
/// - "VeskInstance": getModelMatrix() (mat4) of an instance; identity if no collection is bound.
class QEL_GL_EXPORT InstanceDataRegistry
{
public:
    static InstanceDataRegistry* Instance();
    /// The plan of a name; null, and logged, if there is none.
    const InstanceDataPlan* getPlan(const QString& name) const;
    /// Every plan, in the order of binding points.
    const std::vector<std::unique_ptr<InstanceDataPlan>>& plans() const { return m_plans; }
    /// InstanceDataPlan::glslh of every plan by its name, for GLSLMacroProcessor::process.
    const QMap<QString, QString>& prototypes() const { return m_prototypes; }

private:
    InstanceDataRegistry();
    std::vector<std::unique_ptr<InstanceDataPlan>> m_plans;
    QMap<QString, QString> m_prototypes;
};

/// The std140 layout of the block "InstanceInfo"; matrices are column-major.
struct QEL_GL_EXPORT InstanceInfoBlock
{
    explicit InstanceInfoBlock(const QMatrix4x4& modelMatrix);
    std::array<float, 16> modelMatrix;
    /// The inverse transpose of the model matrix.
    std::array<float, 16> modelNormalMatrix;
};

/// The std140 layout of the block "OBJMaterial".
struct OBJMaterialBlock
{
    /// Diffuse colour and opacity (1 is opaque).
    float kd[3] = {1.0F, 1.0F, 1.0F};
    float d = 1.0F;
    /// Specular colour and exponent.
    float ks[3] = {0.0F, 0.0F, 0.0F};
    float ns = 1.0F;
};

/// The std140 layout of the block "VeskInstance"; the matrix is column-major.
struct VeskInstanceBlock
{
    std::array<float, 16> modelMatrix;
};

/// The data of one instance or material, to be bound around a draw: a range of a uniform buffer, which may
/// hold many of them, and textures.
class QEL_GL_EXPORT InstanceDataCollection : public QObject
{
    Q_OBJECT
public:
    /// `offset` must be a multiple of uniformBufferAlignment().
    InstanceDataCollection(const InstanceDataPlan* plan, QSharedPointer<BufferObject> buffer, qintptr offset,
                           QObject* parent = nullptr);
    ~InstanceDataCollection() override;

    const InstanceDataPlan* plan() const { return m_plan; }
    /// Sets the texture of a material texture slot. Not owned; null, the initial value, selects the texture
    /// manager's stand-in.
    void setTexture(int slot, Texture* texture);
    Texture* texture(int slot) const;

    /// Binds the range to the plan's binding point and the textures to their slots. The slots belong to the
    /// given texture manager; null selects TextureManager::Instance().
    void bind(TextureManager* textureManager);
    /// Binds the plan's default block and the stand-in textures again.
    void unbind(TextureManager* textureManager);

    /// The alignment in bytes that the current context requires for the offsets of ranges.
    static int uniformBufferAlignment();

private:
    const InstanceDataPlan* m_plan;
    QSharedPointer<BufferObject> m_buffer;
    qintptr m_offset;
    std::array<Texture*, 2> m_textures{};
};

} // namespace Morvane::Qel
