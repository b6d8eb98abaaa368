#version 150
// Composites the model over a background.

uniform sampler2D u_Frame;
uniform sampler2D u_Background;
uniform sampler2D u_Id;
in vec2 vo_TexCoord;
out vec4 o_Frame;

void main()
{
    bool covered = texture(u_Id, vo_TexCoord).r > 0.0;
    vec4 background = texture(u_Background, vo_TexCoord);
    o_Frame = covered ? vec4(texture(u_Frame, vo_TexCoord).rgb, 1.0) : background;
}
