#version 150
// Adds ambient light to the model and composites it over a background.

uniform sampler2D u_Frame;
uniform sampler2D u_Diffuse;
uniform sampler2D u_Background;
uniform sampler2D u_Id;
uniform vec4 Qel_QColor_Ambient;
in vec2 vo_TexCoord;
out vec4 o_Frame;

void main()
{
    bool covered = texture(u_Id, vo_TexCoord).r > 0.0;
    vec3 ambient = texture(u_Diffuse, vo_TexCoord).rgb * Qel_QColor_Ambient.rgb;
    vec4 background = texture(u_Background, vo_TexCoord);
    o_Frame = covered ? vec4(texture(u_Frame, vo_TexCoord).rgb + ambient, 1.0) : background;
}
