#include <Qel/RenderPasses/framework/CommonPorts.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

InputDescription viewportInput(const QString& meaning, const QString& whenMissing)
{
    return {
        .name = u"Qel_QRect_Viewport"_s, .meaning = meaning, .whenMissing = whenMissing, .unit = u"pixels"_s};
}

InputDescription projectionMatrixInput()
{
    return {.name = u"Qel_QMatrix4x4_ProjectionMatrix"_s,
            .meaning = u"eye space to clip space"_s,
            .whenMissing = u"identity"_s};
}

InputDescription cameraMatrixInput()
{
    return {.name = u"Qel_QMatrix4x4_CameraMatrix"_s,
            .meaning = u"world space to eye space"_s,
            .whenMissing = u"identity"_s};
}

InputDescription modelInput(const QString& meaning, const QString& whenMissing)
{
    return {.name = u"Qel_QelGPUModel*_Geometry"_s, .meaning = meaning, .whenMissing = whenMissing};
}

} // namespace Morvane::Qel
