#version 150
// Keeps what is brighter than the threshold and fades the rest to black. Alpha stays, since a blur does not
// spread into transparent texels.

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
