#version 150
// Bright pass: fades everything darker than the threshold to black. Keeps alpha, because the blur does not spread
// into transparent texels.

uniform sampler2D u_Frame;
uniform float Qel_float_Threshold;
in vec2 vo_TexCoord;
out vec4 o_Frame;

void main()
{
    vec4 colour = texture(u_Frame, vo_TexCoord);
    float luma = dot(colour.rgb, vec3(0.2126, 0.7152, 0.0722));
    o_Frame = vec4(colour.rgb * smoothstep(Qel_float_Threshold, Qel_float_Threshold + 0.2, luma), colour.a);
}
