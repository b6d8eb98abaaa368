#include <memory>
#include <utility>
#include <vector>

#include <epoxy/gl.h>

#include <Qel/gl/BufferObject.h>
#include <Qel/gl/ContextReference.h>
#include <Qel/gl/DrawBuffers.h>
#include <Qel/gl/OpenGLDeviceContext.h>
#include <Qel/gl/VertexArrayObject.h>

// The shared objects of a context, separate from OpenGLDeviceContext.cpp because their classes use the
// context, which otherwise depends on none of them.

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

struct FullScreenBatches : ContextData
{
    QSharedPointer<DrawBuffers> triangle;
    QSharedPointer<DrawBuffers> quad;
};

struct TransferBuffers : ContextData
{
    /// Shared with the deleters of the buffers that are in use.
    std::shared_ptr<std::vector<std::unique_ptr<BufferObject>>> free =
        std::make_shared<std::vector<std::unique_ptr<BufferObject>>>();
};

QSharedPointer<DrawBuffers> makeFullScreenBatch(const std::vector<float>& positions,
                                                const std::vector<float>& texCoords)
{
    const auto makeBuffer = [](const std::vector<float>& values) {
        auto buffer = QSharedPointer<BufferObject>::create(GL_ARRAY_BUFFER);
        buffer->upload(values.data(), static_cast<int>(values.size()), GL_STATIC_DRAW);
        return buffer;
    };
    auto vertexArray = QSharedPointer<VertexArrayObject>::create();
    vertexArray->upload(u"va_Vertex"_s, makeBuffer(positions), 3, GL_FLOAT);
    vertexArray->upload(u"va_TexCoord"_s, makeBuffer(texCoords), 2, GL_FLOAT);
    auto batch = QSharedPointer<DrawBuffers>::create();
    batch->setVAO(vertexArray);
    batch->setPrimitiveType(GL_TRIANGLES);
    batch->setVertexCount(static_cast<int>(positions.size() / 3));
    return batch;
}

} // namespace

QSharedPointer<DrawBuffers> OpenGLDeviceContext::fullScreenTriangle()
{
    QSharedPointer<DrawBuffers>& triangle = data<FullScreenBatches>().triangle;
    if (!triangle) {
        triangle = makeFullScreenBatch({-1, -1, 0, 3, -1, 0, -1, 3, 0}, {0, 0, 2, 0, 0, 2});
    }
    return triangle;
}

QSharedPointer<DrawBuffers> OpenGLDeviceContext::fullScreenQuad()
{
    QSharedPointer<DrawBuffers>& quad = data<FullScreenBatches>().quad;
    if (!quad) {
        quad = makeFullScreenBatch({-1, -1, 0, 1, -1, 0, -1, 1, 0, -1, 1, 0, 1, -1, 0, 1, 1, 0},
                                   {0, 0, 1, 0, 0, 1, 0, 1, 1, 0, 1, 1});
    }
    return quad;
}

QSharedPointer<BufferObject> OpenGLDeviceContext::pixelTransferBuffer()
{
    const auto& free = data<TransferBuffers>().free;
    std::unique_ptr<BufferObject> buffer;
    if (free->empty()) {
        buffer = std::make_unique<BufferObject>(GL_PIXEL_UNPACK_BUFFER);
    } else {
        buffer = std::move(free->back());
        free->pop_back();
    }
    return {buffer.release(), [context = reference(), list = std::weak_ptr(free)](BufferObject* returned) {
                const auto owner = std::make_shared<std::unique_ptr<BufferObject>>(returned);
                // The list belongs to the thread on which the context is current.
                context.whenCurrent([owner, list] {
                    if (const auto locked = list.lock()) {
                        locked->push_back(std::move(*owner));
                    }
                });
            }};
}

QSharedPointer<VertexArrayObject> OpenGLDeviceContext::createVertexArray()
{
    return QSharedPointer<VertexArrayObject>::create();
}

} // namespace Morvane::Qel
