#version 150
// Shows unit vectors as colours: -1 to 1 become 0 to 1.
in vec2 vo_TexCoord;
out vec4 o_Picture;
uniform sampler2D u_Data;
uniform float Qel_float_Factor;

void main()
{
    vec3 normal = texture(u_Data, vo_TexCoord).xyz * Qel_float_Factor;
    o_Picture = vec4(dot(normal, normal) > 0.0 ? normal * 0.5 + 0.5 : vec3(0.0), 1.0);
}
