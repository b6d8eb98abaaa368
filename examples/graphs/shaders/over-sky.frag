#version 150
// Composites what has an alpha of 1 over a background.

uniform sampler2D u_Frame;
uniform sampler2D u_Background;
in vec2 vo_TexCoord;
out vec4 o_Frame;

void main()
{
    vec4 frame = texture(u_Frame, vo_TexCoord);
    o_Frame = vec4(mix(texture(u_Background, vo_TexCoord).rgb, frame.rgb, frame.a), 1.0);
}
