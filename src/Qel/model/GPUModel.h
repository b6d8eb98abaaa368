#pragma once

#include <QObject>
#include <QPair>
#include <QVector3D>

#include <memory>
#include <vector>

#include <Qel/model/Export.h>
#include <Qel/model/ModelImport.h>

namespace Morvane::Qel {

class DrawBuffers;
class InstanceDataCollection;
class ShaderProgram;
class TextureManager;

/// The winding of front faces on the screen.
enum class WindingType : int
{
    Clockwise = 0,
    CounterClockwise = 1,
};

/// Which batches a draw selects by the dissolve of their material.
enum class Opacity
{
    /// 1 or more.
    Opaque,
    /// Below 1.
    Transparent,
};

/// A scene model on the GPU. It has one batch per instance of a mesh, with a transform ("InstanceInfo"), a
/// material ("OBJMaterial") and 64-bit draw flags (DrawFlag).
///
/// Attributes are va_Vertex and va_Normal (3 floats) and va_TexCoord (2 floats), tightly packed in one buffer
/// each; indices are 32-bit. All instance blocks share one buffer, as do all material blocks. Images larger
/// than the driver's limit are scaled down. Construct and destroy with the GL context current.
///
/// Incomplete data is reported in one line and drawn as far as it goes: instances without a mesh and meshes
/// with indices that they have no positions for are not drawn; arrays shorter or longer than the positions
/// and maps without an image are left out; a mesh without a material gets the default one.
class QEL_MODEL_EXPORT GPUModel : public QObject
{
    Q_OBJECT
public:
    explicit GPUModel(const ModelData& data, QObject* parent = nullptr);
    ~GPUModel() override;

    /// Draws every batch whose flags masked by `mask` equal `value` (0, 0 selects all). Binds `program`, and
    /// for each batch its instance block, material block and textures; sets "u_DrawID" to the batch's index
    /// if the program has it. Faces with the given winding are front faces, in batches with mirroring
    /// transforms too; the context keeps that winding. Draws nothing if the program is null or invalid.
    void draw(ShaderProgram* program, unsigned long long value, unsigned long long mask, WindingType winding);
    /// Draws with the context's current winding, binding material textures through the given manager.
    /// Otherwise as the overload with a winding.
    void draw(ShaderProgram* program, TextureManager* textureManager, unsigned long long value,
              unsigned long long mask);
    /// Draws every batch of this opacity, whatever its flags. Otherwise as the overload with a winding.
    void draw(ShaderProgram* program, Opacity opacity, WindingType winding);
    /// Whether no batch has this opacity.
    bool isDrawEmpty(Opacity opacity) const;
    /// Whether no batch matches, so that a draw with these values would draw nothing.
    bool isDrawEmpty(unsigned long long value, unsigned long long mask) const;

    int numBatches() const;
    /// \name Parts of a batch
    /// Owned by the model; null for an index that does not exist.
    /// @{
    DrawBuffers* drawBuffers(int batch) const;
    InstanceDataCollection* materialData(int batch) const;
    InstanceDataCollection* objectData(int batch) const;
    /// @}
    /// Returns the draw flags of a batch; 0 for an index that does not exist.
    unsigned long long drawFlags(int batch) const;
    /// Sets the draw flags of a batch; an index that does not exist is ignored.
    void setDrawFlags(int batch, unsigned long long flags);

    /// Returns the lower and upper corner of the axis-aligned box around all batches, in world space; both
    /// zero for an empty model.
    QPair<QVector3D, QVector3D> bounds() const;
    /// Returns boxes (lower and upper corner) that together hold all vertices of the batches of an opacity,
    /// in world space, with room for what rounding to single precision moves them in a vertex shader. A large
    /// model has up to 27, which follow its shape. Passes may limit their work to what these boxes cover.
    const std::vector<QPair<QVector3D, QVector3D>>& partBounds(Opacity opacity) const;
    /// Replaces all boxes by one. Call it with a box around all batches in world space before changing the
    /// positions in vertex buffers, for example to animate them.
    void setBounds(const QPair<QVector3D, QVector3D>& box);
    int numTriangles() const;

private:
    struct Batch;
    struct Private;
    bool hasBatch(int batch) const;
    std::unique_ptr<Private> d;
};

} // namespace Morvane::Qel
