#version 150
// Adds a background behind the output of the transparency pass. Where nothing opaque was drawn, its alpha is
// r (1 - r) for a transmittance r of all layers. No material of this scene has a transmittance above one half, so
// that the smaller solution is r.

uniform sampler2D u_Frame;
uniform sampler2D u_Depth;
uniform sampler2D u_Background;
in vec2 vo_TexCoord;
out vec4 o_Frame;

void main()
{
    vec4 frame = texture(u_Frame, vo_TexCoord);
    float throughLayers = frame.a > 0.0 ? 0.5 - sqrt(max(0.25 - frame.a, 0.0)) : 1.0;
    bool opaque = texture(u_Depth, vo_TexCoord).r < 1.0;
    vec3 background = opaque ? vec3(0.0) : throughLayers * texture(u_Background, vo_TexCoord).rgb;
    o_Frame = vec4(frame.rgb + background, 1.0);
}
