#version 150
// Shows premultiplied colours over a checkerboard.
in vec2 vo_TexCoord;
out vec4 o_Picture;
uniform sampler2D u_Data;
uniform float Qel_float_Factor;

void main()
{
    vec4 colour = texture(u_Data, vo_TexCoord) * Qel_float_Factor;
    ivec2 cell = ivec2(gl_FragCoord.xy) / 10;
    float board = (cell.x + cell.y) % 2 == 0 ? 0.78 : 0.6;
    o_Picture = vec4(colour.rgb + (1.0 - colour.a) * board, 1.0);
}
