#version 150
// Source image of the blend examples, premultiplied: a disc with a hue gradient that fades out to the right.

in vec2 vo_TexCoord;
out vec4 o_Picture;

void main()
{
    vec2 place = vo_TexCoord - vec2(0.42, 0.56);
    float edge = fwidth(length(place));
    float alpha = smoothstep(0.36, 0.36 - edge, length(place)) * smoothstep(1.0, 0.3, vo_TexCoord.x);
    vec3 hue = clamp(abs(mod(vo_TexCoord.x * 8.0 + vec3(0.0, 4.0, 2.0), 6.0) - 3.0) - 1.0, 0.0, 1.0);
    o_Picture = vec4(hue, 1.0) * alpha;
}
