#pragma once

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <type_traits>

#include <poll.h>
#include <unistd.h>

#include <Qel/model/ImportedScene.h>

namespace Morvane::Qel {

/// One end of a pipe between a process and its fork. The same calls write values on one end and read them on
/// the other. Values are transferred as their bytes in memory, because both ends run the same code.
class ScenePipe
{
public:
    using Clock = std::chrono::steady_clock;
    enum class Mode
    {
        Read,
        Write,
    };

    /// Owns the descriptor. Reading stops at the deadline; writing ignores it.
    ScenePipe(int descriptor, Mode mode, Clock::time_point deadline = {})
        : m_descriptor(descriptor)
        , m_mode(mode)
        , m_deadline(deadline)
    {
    }
    ~ScenePipe() { ::close(m_descriptor); }
    ScenePipe(const ScenePipe&) = delete;
    ScenePipe& operator=(const ScenePipe&) = delete;

    /// Whether every value so far was transferred. After a failure the pipe transfers nothing more.
    bool isComplete() const { return m_isComplete; }
    /// Whether the transfer failed because the deadline passed.
    bool isLate() const { return m_isLate; }

    void pass(ImportedScene& scene)
    {
        pass(scene.error);
        passEach(scene.warnings);
        pass(scene.source.metresPerUnit);
        pass(scene.source.upAxis);
        passEach(scene.meshes);
        pass(scene.instances);
        passEach(scene.materials);
        passEach(scene.embeddedImages);
    }

private:
    template<typename T>
    requires std::is_trivially_copyable_v<T>
    void pass(T& value) { passBytes(&value, sizeof(T)); }

    void pass(QString& text) { passBlock(text); }
    void pass(QByteArray& bytes) { passBlock(bytes); }
    template<typename T>
    requires std::is_trivially_copyable_v<T>
    void pass(std::vector<T>& values) { passBlock(values); }

    template<typename Container>
    void passEach(Container& values)
    {
        resize(values);
        for (auto& value : values) {
            pass(value);
        }
    }

    void pass(MeshData& mesh)
    {
        pass(mesh.name);
        pass(mesh.positions);
        pass(mesh.normals);
        pass(mesh.texCoords);
        pass(mesh.indices);
        pass(mesh.material);
    }

    void pass(ImageReference& reference)
    {
        pass(reference.text);
        pass(reference.embedded);
    }

    void pass(ImportedMaterial& material)
    {
        pass(material.data.name);
        pass(material.data.kd);
        pass(material.data.ks);
        pass(material.data.ns);
        pass(material.data.d);
        pass(material.data.doubleSided);
        pass(material.mapKd);
        pass(material.mapKs);
        pass(material.isOpaque);
    }

    void pass(EmbeddedImage& image)
    {
        pass(image.bytes);
        pass(image.size);
    }

    template<typename Container>
    void resize(Container& values)
    {
        auto size = values.size();
        pass(size);
        if (m_mode == Mode::Read) {
            values.resize(m_isComplete ? size : 0);
        }
    }

    template<typename Container>
    void passBlock(Container& values)
    {
        resize(values);
        passBytes(values.data(), static_cast<size_t>(values.size()) * sizeof(*values.data()));
    }

    void passBytes(void* bytes, size_t size)
    {
        auto* position = static_cast<char*>(bytes);
        while (size > 0 && m_isComplete) {
            if (m_mode == Mode::Read && !waitForData()) {
                return;
            }
            const ssize_t count = m_mode == Mode::Read ? ::read(m_descriptor, position, size)
                                                       : ::write(m_descriptor, position, size);
            if (count > 0) {
                position += count;
                size -= static_cast<size_t>(count);
            } else if (count == 0 || errno != EINTR) {
                m_isComplete = false;
            }
        }
    }

    /// Waits until a read would not block; returns false and marks the transfer as failed at the deadline.
    bool waitForData()
    {
        pollfd input{m_descriptor, POLLIN, 0};
        int result = 0;
        do {
            const auto left = std::chrono::ceil<std::chrono::milliseconds>(m_deadline - Clock::now()).count();
            result = ::poll(&input, 1, static_cast<int>(std::max<decltype(left)>(left, 0)));
        } while (result < 0 && errno == EINTR);
        m_isLate = result == 0;
        m_isComplete = result > 0;
        return m_isComplete;
    }

    int m_descriptor;
    Mode m_mode;
    Clock::time_point m_deadline;
    bool m_isComplete = true;
    bool m_isLate = false;
};

} // namespace Morvane::Qel
