#include <Qel/gl/VertexArrayObject.h>

#include <algorithm>
#include <bit>
#include <cstdint>
#include <utility>

#include <epoxy/gl.h>

#include <Qel/gl/AttributeLayout.h>
#include <Qel/gl/BindingRecord.h>
#include <Qel/gl/BufferObject.h>
#include <Qel/gl/Guards.h>
#include <Qel/gl/OpenGLDeviceContext.h>
#include <Qel/gl/ShaderProgram.h>

namespace Morvane::Qel {

namespace {

BindingRecord& bindings()
{
    return OpenGLDeviceContext::current()->bindings();
}

bool isIntegerType(unsigned int type)
{
    return type >= GL_BYTE && type <= GL_UNSIGNED_INT;
}

int sizeOf(unsigned int type)
{
    switch (type) {
    case GL_BYTE:
    case GL_UNSIGNED_BYTE:
        return 1;
    case GL_SHORT:
    case GL_UNSIGNED_SHORT:
    case GL_HALF_FLOAT:
        return 2;
    case GL_DOUBLE:
        return 8;
    default:
        return 4;
    }
}

} // namespace

VertexArrayObject::VertexArrayObject() = default;

VertexArrayObject::~VertexArrayObject()
{
    if (m_name.isCurrent()) {
        OpenGLDeviceContext::current()->bindings().forget(this);
    }
}

void VertexArrayObject::bind()
{
    const unsigned int standard = getVAO();
    // 0 on another context, where the name in m_latest means nothing.
    bindings().bindVertexArray(this, standard != 0 && m_latest != 0 ? m_latest : standard);
}

void VertexArrayObject::release()
{
    bindings().releaseVertexArray(this);
}

void VertexArrayObject::upload(const QString& attribute, const QSharedPointer<BufferObject>& buffer,
                               int components, unsigned int type)
{
    if (getVAO() == 0) {
        return;
    }
    m_arrays.insert(attribute, {buffer, components, type});
    ++m_numUploads;
    const AutoBinder binder(this);
    bindings().renameVertexArray(this, getVAO());
    const std::vector<VertexAttribute>& known = AttributeLayout::standard()->attributes;
    const auto standard = std::find_if(known.begin(), known.end(), [&](const VertexAttribute& candidate) {
        return candidate.name == attribute;
    });
    if (standard != known.end() && setArray(*standard) > 0) {
        m_available |= 1U << standard->location;
    }
}

QSharedPointer<BufferObject> VertexArrayObject::bo(const QString& attribute) const
{
    return m_arrays.value(attribute).buffer;
}

bool VertexArrayObject::enableShaderProgramArrays(const ShaderProgram* program)
{
    const unsigned int standard = getVAO();
    if (!program || program->programID() == 0 || standard == 0) {
        return false;
    }
    if (program->attributes() != AttributeLayout::standard()) {
        m_latest = matchedObject(program->attributes());
        return true;
    }
    m_latest = standard;
    bindings().renameVertexArray(this, m_latest);
    unsigned int missing = program->attributeMask() & m_available & ~m_enabled;
    m_enabled |= missing;
    while (missing != 0) {
        glEnableVertexAttribArray(static_cast<unsigned int>(std::countr_zero(missing)));
        missing &= missing - 1;
    }
    return true;
}

/// Binds the GL object for a layout other than the standard one, with all its arrays, and returns its name.
unsigned int VertexArrayObject::matchedObject(const std::shared_ptr<const AttributeLayout>& layout)
{
    auto found = std::find_if(m_others.begin(), m_others.end(), [&](const Object& other) {
        return !other.layout.owner_before(layout) && !layout.owner_before(other.layout);
    });
    if (found == m_others.end()) {
        Object added{layout, ObjectName(ObjectName::Kind::VertexArray), 0};
        added.name.get();
        // Afterwards, because GL gives deleted names out again, and one may still be recorded as bound.
        m_others.remove_if([](const Object& other) { return other.layout.expired(); });
        found = m_others.insert(m_others.end(), std::move(added));
    }
    const unsigned int name = found->name.get();
    bindings().renameVertexArray(this, name);
    if (found->numUploads != m_numUploads) {
        found->numUploads = m_numUploads;
        for (const VertexAttribute& attribute : layout->attributes) {
            const int numSet = setArray(attribute);
            for (int i = 0; i < numSet; ++i) {
                glEnableVertexAttribArray(static_cast<unsigned int>(attribute.location + i));
            }
        }
    }
    return name;
}

/// Sets the array of an attribute in the bound GL object. Returns the number of locations that have one now;
/// 0 if the attribute has no buffer.
int VertexArrayObject::setArray(const VertexAttribute& attribute) const
{
    const Array array = m_arrays.value(attribute.name);
    if (!array.buffer) {
        return 0;
    }
    const int numVectors = array.components < attribute.numLocations ? 1 : attribute.numLocations;
    const int numComponents = std::min(array.components / numVectors, 4);
    const bool isSplit = array.components > numComponents;
    const int stride = isSplit ? array.components * sizeOf(array.type) : 0;
    glBindBuffer(GL_ARRAY_BUFFER, array.buffer->getBO());
    for (int i = 0; i < numVectors; ++i) {
        const auto location = static_cast<unsigned int>(attribute.location + i);
        const auto* offset = reinterpret_cast<const void*>(
            static_cast<std::uintptr_t>(i * numComponents * sizeOf(array.type)));
        if (attribute.isInteger && isIntegerType(array.type)) {
            glVertexAttribIPointer(location, numComponents, array.type, stride, offset);
        } else {
            glVertexAttribPointer(location, numComponents, array.type, GL_FALSE, stride, offset);
        }
    }
    glBindBuffer(GL_ARRAY_BUFFER, 0);
    return numVectors;
}

unsigned int VertexArrayObject::getVAO()
{
    return m_name.get();
}

} // namespace Morvane::Qel
