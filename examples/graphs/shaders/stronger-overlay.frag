#version 150
// Makes a faint overlay of premultiplied colours stronger.

uniform sampler2D u_Frame;
uniform float Qel_float_Factor;
in vec2 vo_TexCoord;
out vec4 o_Frame;

void main()
{
    vec4 overlay = texture(u_Frame, vo_TexCoord);
    o_Frame = overlay * min(Qel_float_Factor, 1.0 / max(overlay.a, 1e-6));
}
