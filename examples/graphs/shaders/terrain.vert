#version 150
#instancedata "InstanceInfo"

in vec3 va_Vertex;
out vec2 vo_Plane;

void main()
{
    vo_Plane = (getModelMatrix() * vec4(va_Vertex, 1.0)).xz;
}
