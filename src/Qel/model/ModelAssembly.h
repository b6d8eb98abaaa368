#pragma once

#include <QMatrix4x4>
#include <QPair>
#include <QVector3D>

#include <vector>

#include <Qel/model/Export.h>
#include <Qel/model/ModelImport.h>

namespace Morvane::Qel {

/// \name Placing and combining models in main memory
/// Incomplete data, such as an instance without a mesh, stays incomplete.
/// @{

/// Returns a model with an affine transform applied in world space. Scale, shear and mirroring go into the
/// vertices, so that rigid instance transforms stay rigid. Where an instance has no transform of its own, the
/// whole transform goes into the vertices, for passes that ignore instance transforms. A mesh becomes several
/// if its instances need different vertices.
QEL_MODEL_EXPORT ModelData transformed(const ModelData& model, const QMatrix4x4& transform);

/// Returns one model with the meshes, materials, images and instances of all.
QEL_MODEL_EXPORT ModelData merged(const std::vector<const ModelData*>& models);

/// Returns the lower and upper corner of the axis-aligned box around all instances, in world space or after a
/// further transform; both zero for an empty model.
QEL_MODEL_EXPORT QPair<QVector3D, QVector3D> boundsOf(const ModelData& model,
                                                      const QMatrix4x4& transform = {});

/// Returns a selection of the world-space vertices, at most 32768, that reaches as far as all of them in any
/// direction, but for 1.2 % of the largest side of the bounds. For fitting views to a model.
QEL_MODEL_EXPORT std::vector<QVector3D> outlineOf(const ModelData& model);

/// @}

} // namespace Morvane::Qel
