#include <Qel/gl/AttributeLayout.h>

#include <algorithm>

#include <epoxy/gl.h>

namespace Morvane::Qel {

namespace {

int numColumns(unsigned int type)
{
    switch (type) {
    case GL_FLOAT_MAT2:
    case GL_FLOAT_MAT2x3:
    case GL_FLOAT_MAT2x4:
        return 2;
    case GL_FLOAT_MAT3:
    case GL_FLOAT_MAT3x2:
    case GL_FLOAT_MAT3x4:
        return 3;
    case GL_FLOAT_MAT4:
    case GL_FLOAT_MAT4x2:
    case GL_FLOAT_MAT4x3:
        return 4;
    default:
        return 1;
    }
}

bool isIntegerType(unsigned int type)
{
    return type == GL_INT || type == GL_UNSIGNED_INT || (type >= GL_INT_VEC2 && type <= GL_INT_VEC4) ||
           (type >= GL_UNSIGNED_INT_VEC2 && type <= GL_UNSIGNED_INT_VEC4);
}

} // namespace

const std::shared_ptr<const AttributeLayout>& AttributeLayout::standard()
{
    static const std::shared_ptr<const AttributeLayout> layout = [] {
        AttributeLayout made;
        for (const char* name : standardNames) {
            made.attributes.push_back({QString::fromLatin1(name), static_cast<int>(made.attributes.size())});
        }
        return std::make_shared<const AttributeLayout>(std::move(made));
    }();
    return layout;
}

std::shared_ptr<const AttributeLayout> AttributeLayout::of(const std::vector<VertexAttribute>& attributes)
{
    const std::vector<VertexAttribute>& known = standard()->attributes;
    const bool isStandard =
        std::all_of(attributes.begin(), attributes.end(), [&](const VertexAttribute& attribute) {
            return std::find(known.begin(), known.end(), attribute) != known.end();
        });
    return isStandard ? standard() : std::make_shared<const AttributeLayout>(AttributeLayout{attributes});
}

std::vector<VertexAttribute> activeAttributes(unsigned int program)
{
    int numAttributes = 0;
    int nameSize = 0;
    glGetProgramiv(program, GL_ACTIVE_ATTRIBUTES, &numAttributes);
    glGetProgramiv(program, GL_ACTIVE_ATTRIBUTE_MAX_LENGTH, &nameSize);
    std::vector<VertexAttribute> attributes;
    QByteArray name(nameSize, '\0');
    for (int i = 0; i < numAttributes; ++i) {
        int length = 0;
        int arraySize = 0;
        unsigned int type = 0;
        glGetActiveAttrib(program, static_cast<unsigned int>(i), nameSize, &length, &arraySize, &type,
                          name.data());
        // Built-in inputs such as gl_VertexID are active too, but have no location.
        if (const int location = glGetAttribLocation(program, name.constData()); location >= 0) {
            QString text = QString::fromUtf8(name.left(length));
            text.remove(QLatin1StringView("[0]"));
            attributes.push_back({text, location, numColumns(type) * arraySize, isIntegerType(type)});
        }
    }
    return attributes;
}

} // namespace Morvane::Qel
