#pragma once

/// The binding points of the library's uniform blocks, the same in every program.
namespace Morvane::Qel::UniformBlocks {

inline constexpr unsigned int instanceInfo = 0;
inline constexpr unsigned int objMaterial = 1;
inline constexpr unsigned int veskInstance = 2;
inline constexpr unsigned int drawElementsIndirectCommands = 3;
inline constexpr unsigned int shadowedLights = 4;
inline constexpr unsigned int shadowTransforms = 5;

} // namespace Morvane::Qel::UniformBlocks
