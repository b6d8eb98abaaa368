#version 150
// Shows the four textures of a G-buffer side by side: normals, texture coordinates, depth and ids.

uniform sampler2D u_Normal;
uniform sampler2D u_TexCoord;
uniform sampler2D u_Depth;
uniform sampler2D u_Id;
uniform vec4 Qel_QRect_Viewport;
uniform float Qel_float_NearPlane;
uniform float Qel_float_FarPlane;
uniform float Qel_float_DepthRange;
in vec2 vo_TexCoord;
out vec4 o_Sheet;

const vec3 ground = vec3(0.12, 0.13, 0.15);

// A distinct colour for each id.
vec3 numberColor(float number)
{
    vec3 hash = fract(number * vec3(0.61803399, 0.75487767, 0.56984029));
    return 0.25 + 0.75 * hash;
}

void main()
{
    vec2 place = vo_TexCoord * 2.0;
    vec2 uv = fract(place);
    ivec2 texel = ivec2(uv * Qel_QRect_Viewport.zw);
    float id = texelFetch(u_Id, texel, 0).r;
    float depth = texelFetch(u_Depth, texel, 0).r;
    bool left = place.x < 1.0;
    bool upper = place.y >= 1.0;

    vec3 color = ground;
    if (upper && left) {
        color = texelFetch(u_Normal, texel, 0).xyz * 0.5 + 0.5;
    } else if (upper) {
        color = vec3(fract(texelFetch(u_TexCoord, texel, 0).xy), 0.35);
    } else if (left) {
        // Linear distance from the eye.
        float distance = Qel_float_NearPlane * Qel_float_FarPlane /
                         mix(Qel_float_FarPlane, Qel_float_NearPlane, depth);
        color = vec3(exp(-distance / Qel_float_DepthRange));
    } else {
        color = numberColor(id);
    }
    vec2 border = min(uv, 1.0 - uv) * Qel_QRect_Viewport.zw;
    bool isPicture = id > 0.0 && min(border.x, border.y) > 4.0;
    o_Sheet = vec4(isPicture ? color : ground, 1.0);
}
