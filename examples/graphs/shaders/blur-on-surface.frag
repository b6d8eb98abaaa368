#version 150
// Blurs along one axis over pixels of the same surface: taps count the less the farther they lie off the plane
// through the pixel, so that neither silhouettes nor creases bleed.

uniform sampler2D u_Frame;
uniform sampler2D u_Position;          // eye space
uniform sampler2D u_Normal;            // eye space, 0 where there is no surface
uniform vec2 Qel_QVector2D_Axis;
uniform float Qel_float_Thickness;     // distance off the plane from which taps do not count
in vec2 vo_TexCoord;
out vec4 o_Frame;

const int reach = 6;                   // taps to either side

void main()
{
    ivec2 pixel = ivec2(gl_FragCoord.xy);
    ivec2 last = textureSize(u_Frame, 0) - 1;
    vec3 position = texelFetch(u_Position, pixel, 0).xyz;
    vec3 normal = texelFetch(u_Normal, pixel, 0).xyz;
    vec4 sum = texelFetch(u_Frame, pixel, 0);
    float total = 1.0;
    if (normal != vec3(0.0)) {
        for (int i = -reach; i <= reach; ++i) {
            ivec2 tap = clamp(pixel + i * ivec2(Qel_QVector2D_Axis), ivec2(0), last);
            float offPlane = abs(dot(normal, texelFetch(u_Position, tap, 0).xyz - position));
            float sameSide = max(0.0, dot(normal, texelFetch(u_Normal, tap, 0).xyz));
            float weight = i == 0 ? 0.0 : exp(-float(i * i) / float(reach * reach)) * sameSide
                                              * max(0.0, 1.0 - offPlane / Qel_float_Thickness);
            sum += texelFetch(u_Frame, tap, 0) * weight;
            total += weight;
        }
    }
    o_Frame = sum / total;
}
