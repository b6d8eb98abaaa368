#version 150
// Colours shaded primitives by their ids: each cube gets its own colour, all quads the same one. Cubes come first
// in the batch.

uniform sampler2D u_Shading;
uniform sampler2D u_TexCoord;
uniform sampler2D u_Id;
uniform int Qel_int_CubeCount;
in vec2 vo_TexCoord;
out vec4 o_Frame;

const int trianglesPerCube = 12;

void main()
{
    ivec2 texel = ivec2(gl_FragCoord.xy);
    int triangle = int(texelFetch(u_Id, texel, 0).r) - 1;
    if (triangle < 0) {
        o_Frame = vec4(mix(vec3(0.93, 0.90, 0.86), vec3(0.55, 0.66, 0.76), vo_TexCoord.y), 1.0);
        return;
    }
    vec2 coord = fract(texelFetch(u_TexCoord, texel, 0).xy);
    vec2 toEdge = min(coord, 1.0 - coord);
    int cube = triangle / trianglesPerCube;
    vec3 color = vec3(0.62, 0.68, 0.76);
    if (cube < Qel_int_CubeCount) {
        float hue = fract(float(cube) * 0.61803399);
        color = mix(vec3(0.93, 0.56, 0.30), vec3(0.30, 0.62, 0.70), hue);
        color = mix(color, vec3(0.97, 0.92, 0.82), fract(hue * 7.0) * 0.6);
    }
    color *= mix(0.82, 1.0, smoothstep(0.0, 0.06, min(toEdge.x, toEdge.y)));
    float light = texelFetch(u_Shading, texel, 0).r;
    o_Frame = vec4(color * (0.30 + 0.85 * light), 1.0);
}
