#version 150
// Shows alpha as grey.
in vec2 vo_TexCoord;
out vec4 o_Picture;
uniform sampler2D u_Data;
uniform float Qel_float_Factor;

void main()
{
    o_Picture = vec4(vec3(texture(u_Data, vo_TexCoord).a * Qel_float_Factor), 1.0);
}
