#pragma once

#include <QString>

#include <Qel/RenderPasses/Export.h>
#include <Qel/core/PassDescription.h>

/// Descriptions of the inputs that many passes share.
namespace Morvane::Qel {

/// Describes the input Qel_QRect_Viewport, in pixels.
QEL_RENDERPASSES_EXPORT InputDescription viewportInput(const QString& meaning, const QString& whenMissing);

/// Describes the input Qel_QMatrix4x4_ProjectionMatrix, from eye space to clip space; identity when missing.
QEL_RENDERPASSES_EXPORT InputDescription projectionMatrixInput();

/// Describes the input Qel_QMatrix4x4_CameraMatrix, from world space to eye space; identity when missing.
QEL_RENDERPASSES_EXPORT InputDescription cameraMatrixInput();

/// Describes the input Qel_QelGPUModel*_Geometry.
QEL_RENDERPASSES_EXPORT InputDescription modelInput(const QString& meaning, const QString& whenMissing);

} // namespace Morvane::Qel
