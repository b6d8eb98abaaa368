#version 150
// Shows the pixels with a fragment list, in a shade that tells where the list begins in memory.
out vec4 o_Picture;
uniform usampler2D u_Data;
uniform float Qel_float_Factor;

void main()
{
    uint head = texelFetch(u_Data, ivec2(gl_FragCoord.xy), 0).r;
    o_Picture = vec4(head == 0u ? vec3(0.0) : vec3(0.2 + 0.8 * fract(float(head) * Qel_float_Factor)), 1.0);
}
