#version 150
// Shows eye-space positions: each colour channel is one coordinate and repeats at the factor, in scene units.
in vec2 vo_TexCoord;
out vec4 o_Picture;
uniform sampler2D u_Data;
uniform float Qel_float_Factor;

void main()
{
    o_Picture = vec4(fract(texture(u_Data, vo_TexCoord).xyz / Qel_float_Factor), 1.0);
}
