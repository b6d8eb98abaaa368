#version 150
#extension GL_ARB_tessellation_shader : require
// Divides every edge so that its parts look equally long from the camera.

layout(vertices = 3) out;

uniform mat4 Qel_QMatrix4x4_CameraMatrix;
in vec2 vo_Plane[];
out vec2 vo_Corner[];

// Depends only on the edge, so that neighbouring patches meet without a gap.
float levelOf(vec2 from, vec2 to)
{
    vec3 eye = inverse(Qel_QMatrix4x4_CameraMatrix)[3].xyz;
    vec2 middle = 0.5 * (from + to);
    return clamp(160.0 * distance(from, to) / distance(eye, vec3(middle.x, 0.0, middle.y)), 1.0, 64.0);
}

void main()
{
    vo_Corner[gl_InvocationID] = vo_Plane[gl_InvocationID];
    for (int i = 0; i < 3; ++i) {
        gl_TessLevelOuter[i] = levelOf(vo_Plane[(i + 1) % 3], vo_Plane[(i + 2) % 3]);
    }
    gl_TessLevelInner[0] = max(max(gl_TessLevelOuter[0], gl_TessLevelOuter[1]), gl_TessLevelOuter[2]);
}
