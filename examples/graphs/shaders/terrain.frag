#version 150
// Shades water, sand, grass, rock and snow under a low sun, with haze towards the edges.

#include "terrain.glslh"

uniform mat4 Qel_QMatrix4x4_CameraMatrix;
uniform vec4 Qel_QColor_Haze;
in vec3 vo_World;
out vec4 o_Frame;

const vec3 toSun = normalize(vec3(-0.6, 0.45, 0.35));
const vec3 sunColor = vec3(1.25, 1.1, 0.9);
const vec3 skyColor = vec3(0.32, 0.4, 0.52);

vec3 normalAt(vec2 p)
{
    const float reach = 0.02;
    float slopeX = terrainHeight(p + vec2(reach, 0.0)) - terrainHeight(p - vec2(reach, 0.0));
    float slopeZ = terrainHeight(p + vec2(0.0, reach)) - terrainHeight(p - vec2(0.0, reach));
    return normalize(vec3(-slopeX, 2.0 * reach, -slopeZ));
}

vec3 groundColor(float height, float steepness)
{
    vec3 color = mix(vec3(0.62, 0.55, 0.4), vec3(0.2, 0.3, 0.1), smoothstep(0.04, 0.22, height));
    color = mix(color, vec3(0.34, 0.3, 0.27), smoothstep(0.25, 0.5, steepness + 0.12 * height));
    return mix(color, vec3(0.9, 0.93, 0.97), smoothstep(1.55, 1.9, height - 0.9 * steepness));
}

void main()
{
    vec3 eye = inverse(Qel_QMatrix4x4_CameraMatrix)[3].xyz;
    vec3 toEye = normalize(eye - vo_World);
    float height = terrainHeight(vo_World.xz);
    vec3 color;
    if (height > 0.0) {
        vec3 normal = normalAt(vo_World.xz);
        vec3 light = sunColor * max(dot(normal, toSun), 0.0) + skyColor * (0.5 + 0.5 * normal.y);
        color = groundColor(height, 1.0 - normal.y) * light;
    } else {
        vec3 normal = normalize(vec3(0.03 * noise(9.0 * vo_World.xz), 1.0, 0.03 * noise(11.0 * vo_World.zx)));
        float fresnel = 0.04 + 0.96 * pow(1.0 - max(dot(normal, toEye), 0.0), 5.0);
        float glint = pow(max(dot(normal, normalize(toSun + toEye)), 0.0), 200.0);
        vec3 depthColor = mix(vec3(0.1, 0.3, 0.3), vec3(0.01, 0.06, 0.12), smoothstep(0.0, 0.8, -height));
        color = mix(depthColor, Qel_QColor_Haze.rgb, fresnel) + glint * sunColor;
    }
    float haze = smoothstep(15.0, 25.0, distance(eye, vo_World));
    o_Frame = vec4(mix(color, Qel_QColor_Haze.rgb, haze), 1.0);
}
