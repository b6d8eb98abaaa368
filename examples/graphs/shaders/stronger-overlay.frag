#version 150
// Amplifies a faint premultiplied overlay without exceeding full opacity.

uniform sampler2D u_Frame;
uniform float Qel_float_Factor;
in vec2 vo_TexCoord;
out vec4 o_Frame;

void main()
{
    vec4 overlay = texture(u_Frame, vo_TexCoord);
    o_Frame = overlay * min(Qel_float_Factor, 1.0 / max(overlay.a, 1e-6));
}
