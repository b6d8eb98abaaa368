#pragma once

#include <QObject>
#include <QPair>
#include <QVector3D>

#include <memory>

#include <Qel/model/Export.h>
#include <Qel/model/ModelImport.h>

namespace Morvane::Qel {

class DrawBuffers;
class InstanceDataCollection;
class ShaderProgram;
class TextureManager;

/// The order of a front face's corners as seen on the screen.
enum class WindingType : int
{
    Clockwise = 0,
    CounterClockwise = 1,
};

/// An uploaded scene model: one batch for each instance of a mesh, with its transform ("InstanceInfo"), its
/// material ("OBJMaterial") and 64-bit draw flags (DrawFlag). Instance and material blocks live in one buffer
/// each. Attributes are va_Vertex, va_Normal (3 floats) and va_TexCoord (2 floats), tightly packed in buffers
/// of their own; indices are 32-bit. Made and destroyed with the GL context current.
class QEL_MODEL_EXPORT GPUModel : public QObject
{
    Q_OBJECT
public:
    explicit GPUModel(const ModelData& data, QObject* parent = nullptr);
    ~GPUModel() override;

    /// Draws every batch whose flags masked by `mask` equal `value` (0, 0 selects all), with `program` bound:
    /// binds each batch's instance block, material block and textures, and sets "u_DrawID" to the batch's
    /// index where the program has it. Faces of the given winding are the front faces. Draws nothing while
    /// the program is null or not valid.
    void draw(ShaderProgram* program, unsigned long long value, unsigned long long mask, WindingType winding);
    /// The same with the textures of materials bound through a given manager, and the winding in force.
    void draw(ShaderProgram* program, TextureManager* textureManager, unsigned long long value,
              unsigned long long mask);
    /// Whether no batch matches.
    bool isDrawEmpty(unsigned long long value, unsigned long long mask) const;

    int numBatches() const;
    /// Null for an index that does not exist.
    DrawBuffers* drawBuffers(int batch) const;
    InstanceDataCollection* materialData(int batch) const;
    InstanceDataCollection* objectData(int batch) const;
    unsigned long long drawFlags(int batch) const;
    void setDrawFlags(int batch, unsigned long long flags);

    /// The corners of the axis-aligned box around all batches, in world space; both zero for an empty model.
    QPair<QVector3D, QVector3D> bounds() const;
    int numTriangles() const;

private:
    struct Batch;
    struct Private;
    bool hasBatch(int batch) const;
    std::unique_ptr<Private> d;
};

} // namespace Morvane::Qel
