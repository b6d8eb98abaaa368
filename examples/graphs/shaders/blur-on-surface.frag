#version 150
// Blurs along one axis without blurring across silhouettes and creases: the weight of a tap falls off with its
// distance from the tangent plane of the pixel.

uniform sampler2D u_Frame;
uniform sampler2D u_Position;          // eye space
uniform sampler2D u_Normal;            // eye space, 0 where there is no surface
uniform vec2 Qel_QVector2D_Axis;
uniform float Qel_float_Thickness;     // distance from the plane at which the weight is 0
in vec2 vo_TexCoord;
out vec4 o_Frame;

const int reach = 6;                   // taps on either side

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
