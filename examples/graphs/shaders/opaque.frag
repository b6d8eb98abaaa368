#version 150
// Sets alpha to 1: FXAA leaves luma in the alpha of the pixels that it filters.
uniform sampler2D u_Frame;
in vec2 vo_TexCoord;
out vec4 o_Frame;

void main()
{
    o_Frame = vec4(texture(u_Frame, vo_TexCoord).rgb, 1.0);
}
