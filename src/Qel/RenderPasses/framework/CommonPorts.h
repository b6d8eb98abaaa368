#pragma once

#include <QString>

#include <Qel/RenderPasses/Export.h>
#include <Qel/core/PassDescription.h>

/// Rows of port tables that many passes share, for their descriptions.
namespace Morvane::Qel {

/// Qel_QRect_Viewport, in pixels.
QEL_RENDERPASSES_EXPORT InputDescription viewportInput(const QString& meaning, const QString& whenMissing);

/// Qel_QMatrix4x4_ProjectionMatrix, from eye space to clip space; the identity when missing.
QEL_RENDERPASSES_EXPORT InputDescription projectionMatrixInput();

/// Qel_QMatrix4x4_CameraMatrix, from world space to eye space; the identity when missing.
QEL_RENDERPASSES_EXPORT InputDescription cameraMatrixInput();

/// Qel_QelGPUModel*_Geometry.
QEL_RENDERPASSES_EXPORT InputDescription modelInput(const QString& meaning, const QString& whenMissing);

} // namespace Morvane::Qel
