#include <Qel/gl/DrawBuffers.h>

#include <utility>

#include <epoxy/gl.h>

#include <Qel/core/Diagnostics.h>
#include <Qel/gl/BindingRecord.h>
#include <Qel/gl/BufferObject.h>
#include <Qel/gl/OpenGLDeviceContext.h>
#include <Qel/gl/ShaderProgram.h>
#include <Qel/gl/UniformBlocks.h>
#include <Qel/gl/VertexArrayObject.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

/// The number of vertices of a primitive, 0 if primitives share vertices.
int verticesPerPatch(unsigned int primitiveType)
{
    switch (primitiveType) {
    case GL_POINTS:
        return 1;
    case GL_LINES:
        return 2;
    case GL_TRIANGLES:
        return 3;
    case GL_LINES_ADJACENCY:
        return 4;
    case GL_TRIANGLES_ADJACENCY:
        return 6;
    default:
        return 0;
    }
}

} // namespace

DrawBuffers::DrawBuffers(QObject* parent)
    : QObject(parent)
    , m_primitiveType(GL_TRIANGLES)
{
}

DrawBuffers::~DrawBuffers() = default;

void DrawBuffers::setVAO(const QSharedPointer<VertexArrayObject>& vertexArray)
{
    m_vertexArray = vertexArray;
}

void DrawBuffers::setPrimitiveType(unsigned int type)
{
    m_primitiveType = type;
}

void DrawBuffers::setVertexCount(int count)
{
    m_vertexCount = count;
    forgetImpliedCommand();
}

void DrawBuffers::setIndexedDraw(const QSharedPointer<BufferObject>& buffer, int count, unsigned int type)
{
    m_indexBuffer = buffer;
    m_indexCount = count;
    m_indexType = type;
    forgetImpliedCommand();
}

void DrawBuffers::forgetImpliedCommand()
{
    if (m_commands.empty()) {
        m_commandBlock.reset();
    }
}

void DrawBuffers::setDrawElementsIndirectCommands(const DrawElementsIndirectCommand* commands, int count)
{
    m_commands.assign(commands, commands + count);
    m_commandBlock.reset();
}

QSharedPointer<BufferObject> DrawBuffers::getDrawElementsIndirectCommandsUniformBufferObject()
{
    if (!m_commandBlock) {
        // std140 rounds the array stride up to a multiple of 16 bytes.
        struct alignas(32) Element
        {
            DrawElementsIndirectCommand command;
        };
        std::vector<Element> elements;
        for (const DrawElementsIndirectCommand& command : m_commands) {
            elements.push_back({command});
        }
        if (elements.empty()) {
            elements.push_back({{static_cast<unsigned int>(count()), 1, 0, 0, 0}});
        }
        const auto size = static_cast<qsizetype>(elements.size()) * static_cast<qsizetype>(sizeof(Element));
        m_commandBlock = QSharedPointer<BufferObject>::create(GL_UNIFORM_BUFFER);
        m_commandBlock->uploadBytes(elements.data(), size, GL_STATIC_DRAW);
        m_commandBlock->setIndexedTarget(GL_UNIFORM_BUFFER, UniformBlocks::drawElementsIndirectCommands, 0,
                                         size);
    }
    return m_commandBlock;
}

void DrawBuffers::bind()
{
    if (m_vertexArray) {
        m_vertexArray->bind();
    }
}

void DrawBuffers::release()
{
    if (m_vertexArray) {
        m_vertexArray->release();
    }
}

bool DrawBuffers::draw()
{
    const ShaderProgram* program = OpenGLDeviceContext::current()->bindings().currentProgram();
    // Passes enable the arrays of their program when they take the batch, but the program may have been
    // replaced since by one that reads more.
    if (!program || !m_vertexArray || !m_vertexArray->enableShaderProgramArrays(program)) {
        return false;
    }
    unsigned int mode = m_primitiveType;
    if (program->hasTessellation() && mode != GL_PATCHES) {
        const int numVertices = verticesPerPatch(m_primitiveType);
        if (numVertices == 0) {
            if (!std::exchange(m_isRefusalReported, true)) {
                logCritical(
                    __FILE__, __LINE__,
                    u"strips, loops and fans cannot be tessellated; make a batch of separate primitives"_s);
            }
            return false;
        }
        glPatchParameteri(GL_PATCH_VERTICES, numVertices);
        mode = GL_PATCHES;
    }
    if (m_indexBuffer) {
        // The index buffer is part of the vertex array's state, and batches may share a vertex array.
        glBindBuffer(GL_ELEMENT_ARRAY_BUFFER, m_indexBuffer->getBO());
        glDrawElements(mode, m_indexCount, m_indexType, nullptr);
    } else {
        glDrawArrays(mode, 0, m_vertexCount);
    }
    return true;
}

} // namespace Morvane::Qel
