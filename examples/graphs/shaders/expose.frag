#version 150
// Tone mapping: scales the mean luminance to the key and compresses highlights (E. Reinhard, M. Stark, P. Shirley,
// J. Ferwerda: Photographic tone reproduction for digital images, 2002).

uniform sampler2D u_Frame;
uniform float Qel_float_MeanLuminance;
uniform float Qel_float_Key;
in vec2 vo_TexCoord;
out vec4 o_Frame;

void main()
{
    const float white = 1.6;
    vec3 scaled = texture(u_Frame, vo_TexCoord).rgb * (Qel_float_Key / max(Qel_float_MeanLuminance, 1e-4));
    float luminance = dot(scaled, vec3(0.2126, 0.7152, 0.0722));
    float compressed = luminance * (1.0 + luminance / (white * white)) / (1.0 + luminance);
    o_Frame = vec4(scaled * (compressed / max(luminance, 1e-4)), 1.0);
}
