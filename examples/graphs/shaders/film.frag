#version 150
// Applies an exponential tone curve and a vignette.

uniform sampler2D u_Frame;
uniform vec4 Qel_QRect_Viewport;
uniform float Qel_float_Exposure;
uniform float Qel_float_Vignette;
in vec2 vo_TexCoord;
out vec4 o_Frame;

void main()
{
    vec3 exposed = 1.0 - exp(-Qel_float_Exposure * texture(u_Frame, vo_TexCoord).rgb);
    vec2 aspect = vec2(Qel_QRect_Viewport.z / Qel_QRect_Viewport.w, 1.0);
    float distanceToCorner = length((vo_TexCoord - 0.5) * aspect) / length(0.5 * aspect);
    float vignette = 1.0 - Qel_float_Vignette * smoothstep(0.35, 1.0, distanceToCorner);
    o_Frame = vec4(exposed * vignette, 1.0);
}
