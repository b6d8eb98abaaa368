#pragma once

namespace Morvane::Qel {

/// The binding points of uniform blocks, the same in every program. Not installed.
enum UniformBlockBinding : unsigned int
{
    InstanceInfoBinding = 0,
    OBJMaterialBinding = 1,
    VeskInstanceBinding = 2,
    DrawElementsIndirectCommandsBinding = 3,
};

} // namespace Morvane::Qel
