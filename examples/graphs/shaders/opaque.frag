#version 150
// FXAA leaves luma in the alpha of the pixels that it filtered; a picture file is to be opaque.
uniform sampler2D u_Frame;
in vec2 vo_TexCoord;
out vec4 o_Frame;

void main()
{
    o_Frame = vec4(texture(u_Frame, vo_TexCoord).rgb, 1.0);
}
