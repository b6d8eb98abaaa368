#version 150
#extension GL_ARB_tessellation_shader : require
// Lifts the points of the divided grid to the height of the terrain.

layout(triangles, fractional_odd_spacing, ccw) in;

#include "terrain.glslh"

uniform mat4 Qel_QMatrix4x4_ProjectionMatrix;
uniform mat4 Qel_QMatrix4x4_CameraMatrix;
in vec2 vo_Corner[];
out vec3 vo_World;

void main()
{
    vec2 p = mat3x2(vo_Corner[0], vo_Corner[1], vo_Corner[2]) * gl_TessCoord;
    vo_World = vec3(p.x, max(terrainHeight(p), 0.0), p.y);
    gl_Position = Qel_QMatrix4x4_ProjectionMatrix * Qel_QMatrix4x4_CameraMatrix * vec4(vo_World, 1.0);
}
