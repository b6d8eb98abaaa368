#version 150
// Draws premultiplied tiles over a checkerboard, seven per row from the upper left. Tiles before the first one
// are copied from the sheet so far.

uniform sampler2D u_SheetSoFar;
uniform sampler2D u_Tile0;
uniform sampler2D u_Tile1;
uniform sampler2D u_Tile2;
uniform sampler2D u_Tile3;
uniform sampler2D u_Tile4;
uniform sampler2D u_Tile5;
uniform sampler2D u_Tile6;
uniform sampler2D u_Tile7;
uniform sampler2D u_Tile8;
uniform int Qel_int_FirstTile;
uniform int Qel_int_TileCount;
in vec2 vo_TexCoord;
out vec4 o_Sheet;

const int tileSize = 160;

vec4 tile(int number, ivec2 p)
{
    switch (number) {
    case 0: return texelFetch(u_Tile0, p, 0);
    case 1: return texelFetch(u_Tile1, p, 0);
    case 2: return texelFetch(u_Tile2, p, 0);
    case 3: return texelFetch(u_Tile3, p, 0);
    case 4: return texelFetch(u_Tile4, p, 0);
    case 5: return texelFetch(u_Tile5, p, 0);
    case 6: return texelFetch(u_Tile6, p, 0);
    case 7: return texelFetch(u_Tile7, p, 0);
    default: return texelFetch(u_Tile8, p, 0);
    }
}

void main()
{
    ivec2 p = ivec2(gl_FragCoord.xy);
    ivec2 cell = ivec2(p.x / tileSize, 3 - p.y / tileSize);
    int number = cell.y * 7 + cell.x - Qel_int_FirstTile;
    if (number < 0) {
        o_Sheet = texelFetch(u_SheetSoFar, p, 0);
        return;
    }
    vec4 color = number < Qel_int_TileCount ? tile(number, p % tileSize) : vec4(0.0);
    vec3 ground = vec3((p.x / 10 + p.y / 10) % 2 == 0 ? 0.55 : 0.7);
    o_Sheet = vec4(color.rgb + ground * (1.0 - clamp(color.a, 0.0, 1.0)), 1.0);
}
