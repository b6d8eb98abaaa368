#include <Qel/gl/LinkedProgram.h>

#include <epoxy/gl.h>

#include <Qel/gl/AttributeLayout.h>
#include <Qel/gl/UniformUpload.h>

namespace Morvane::Qel {

namespace {

int programParameter(unsigned int program, GLenum parameter)
{
    int value = 0;
    glGetProgramiv(program, parameter, &value);
    return value;
}

QHash<QByteArray, ActiveUniform> readUniforms(unsigned int program)
{
    QHash<QByteArray, ActiveUniform> uniforms;
    const int numUniforms = programParameter(program, GL_ACTIVE_UNIFORMS);
    QByteArray buffer(programParameter(program, GL_ACTIVE_UNIFORM_MAX_LENGTH), '\0');
    for (int i = 0; i < numUniforms; ++i) {
        ActiveUniform uniform{};
        int length = 0;
        glGetActiveUniform(program, static_cast<unsigned int>(i), static_cast<int>(buffer.size()), &length,
                           &uniform.arraySize, &uniform.type, buffer.data());
        uniform.location = glGetUniformLocation(program, buffer.constData());
        // Members of uniform blocks are active too, but have no location.
        if (uniform.location >= 0) {
            const QByteArray name = buffer.left(length);
            uniforms.insert(name.endsWith("[0]") ? name.chopped(3) : name, uniform);
        }
    }
    return uniforms;
}

template<class Value>
std::vector<Value> readElements(unsigned int program, const QByteArray& name, const ActiveUniform& uniform,
                                void (*get)(unsigned int, int, Value*))
{
    const UniformShape shape = shapeOf(uniform.type);
    const auto size = static_cast<size_t>(shape.rows) * static_cast<size_t>(shape.columns);
    std::vector<Value> values(size * static_cast<size_t>(uniform.arraySize));
    for (int element = 0; element < uniform.arraySize; ++element) {
        const QByteArray elementName = name + '[' + QByteArray::number(element) + ']';
        const int location =
            element == 0 ? uniform.location : glGetUniformLocation(program, elementName.constData());
        get(program, location, values.data() + static_cast<size_t>(element) * size);
    }
    return values;
}

} // namespace

void LinkedProgram::readInterface()
{
    const std::vector<VertexAttribute> active = activeAttributes(name);
    for (const VertexAttribute& attribute : active) {
        attributeMask |= 1U << attribute.location;
    }
    attributes = AttributeLayout::of(active);
    uniforms = readUniforms(name);
    for (auto i = uniforms.cbegin(); i != uniforms.cend(); ++i) {
        const auto read = [&]<class Value>(void (*get)(unsigned int, int, Value*)) {
            initialValues.push_back({i.value(), readElements(name, i.key(), i.value(), get)});
        };
        // Lambdas, because GL's entry points are function pointers that are loaded lazily.
        switch (shapeOf(i.value().type).base) {
        case UniformShape::Float:
            read(+[](unsigned int program, int location, float* values) {
                glGetUniformfv(program, location, values);
            });
            break;
        case UniformShape::Int:
        case UniformShape::Bool:
            read(+[](unsigned int program, int location, int* values) {
                glGetUniformiv(program, location, values);
            });
            break;
        case UniformShape::Unsigned:
            read(+[](unsigned int program, int location, unsigned int* values) {
                glGetUniformuiv(program, location, values);
            });
            break;
        case UniformShape::Unsupported:
            // No setter changes it.
            break;
        }
    }
}

void LinkedProgram::restoreInitialValues() const
{
    for (const auto& [uniform, elements] : initialValues) {
        std::visit([&, &target = uniform](const auto& values) { uploadElements(target, values.data()); },
                   elements);
    }
}

} // namespace Morvane::Qel
