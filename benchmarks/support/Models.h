#pragma once

#include <functional>

#include <Qel/model/ModelImport.h>

namespace Morvane::Qel::Bench {

struct SurfacePoint
{
    QVector3D position;
    QVector3D normal;
    QVector2D texCoord;
};

/// Returns one mesh of 2 * columns * rows triangles over the parameters u and v, both from 0 to 1, with one
/// instance and a default material.
ModelData makeSurface(unsigned int columns, unsigned int rows,
                      const std::function<SurfacePoint(float u, float v)>& point);

} // namespace Morvane::Qel::Bench
