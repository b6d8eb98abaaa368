#version 150
// Shows a window depth as grey that falls with the distance: white at the camera, half grey at the factor, in scene
// units, for a near plane at 0.1 and a far plane at 100.
in vec2 vo_TexCoord;
out vec4 o_Picture;
uniform sampler2D u_Data;
uniform float Qel_float_Factor;

void main()
{
    float depth = texture(u_Data, vo_TexCoord).r;
    float distance = 0.1 * 100.0 / (100.0 - depth * 99.9);
    o_Picture = vec4(vec3(Qel_float_Factor / (Qel_float_Factor + distance)), 1.0);
}
