#version 150
// Destination image of the blend examples, premultiplied: a square with a vertical gradient, opaque in its left
// half. Its surroundings have an alpha of 1/255, because some operators divide by the destination's alpha.

in vec2 vo_TexCoord;
out vec4 o_Picture;

void main()
{
    vec2 place = abs(vo_TexCoord - vec2(0.58, 0.44));
    float alpha = max(place.x, place.y) < 0.36 ? (vo_TexCoord.x < 0.58 ? 1.0 : 0.6) : 1.0 / 255.0;
    vec3 color = mix(vec3(0.05, 0.1, 0.2), vec3(1.0, 0.95, 0.85), smoothstep(0.1, 0.8, vo_TexCoord.y));
    o_Picture = vec4(color, 1.0) * alpha;
}
