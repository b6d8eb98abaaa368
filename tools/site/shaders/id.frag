#version 150
// Shows each primitive number in a colour of its own, and 0 as black.
in vec2 vo_TexCoord;
out vec4 o_Picture;
uniform sampler2D u_Data;
uniform float Qel_float_Factor;

void main()
{
    float id = floor(texelFetch(u_Data, ivec2(gl_FragCoord.xy), 0).r * Qel_float_Factor + 0.1);
    vec3 colour = 0.55 + 0.45 * cos(id * 2.399963 + vec3(0.0, 2.0, 4.0));
    o_Picture = vec4(id > 0.0 ? colour : vec3(0.0), 1.0);
}
