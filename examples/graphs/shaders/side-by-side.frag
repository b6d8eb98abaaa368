#version 150
// Shows the middle halves of two frames side by side over a gradient.
uniform sampler2D u_Left;
uniform sampler2D u_Right;
in vec2 vo_TexCoord;
out vec4 o_Frame;

void main()
{
    vec2 place = vec2(0.25 + mod(vo_TexCoord.x, 0.5), vo_TexCoord.y);
    vec4 frame = vo_TexCoord.x < 0.5 ? texture(u_Left, place) : texture(u_Right, place);
    vec3 background = mix(vec3(0.16, 0.17, 0.2), vec3(0.03, 0.03, 0.04), vo_TexCoord.y);
    bool isLine = abs(vo_TexCoord.x - 0.5) < 0.0008;
    o_Frame = vec4(isLine ? vec3(0.5) : frame == vec4(0.0) ? background : frame.rgb, 1.0);
}
