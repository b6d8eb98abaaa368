#pragma once

#include <QRect>

#include <array>
#include <memory>
#include <vector>

namespace Morvane::Qel {

class FramebufferObject;
class ShaderProgram;
class VertexArrayObject;
struct AppliedAttachments;

/// Tracks the bindings of a context in stacks, so that a release restores the previous binding without
/// querying GL. Releases out of order are tolerated: the current binding stays until it is released itself.
/// Internal to the library; the Bindable classes use it.
class BindingRecord
{
public:
    /// The number of units for texture bindings, which take them from 0 upwards like a stack. The empty unit
    /// follows, then the managed units, which hold material textures. Together they are the 48 that every
    /// GL 3.2 context has.
    static constexpr int numUnits = 43;
    /// The unit that samplers without a texture read. A texture is bound here only while it is changed
    /// without being bound elsewhere.
    static constexpr int emptyUnit = numUnits;
    static constexpr int firstManagedUnit = emptyUnit + 1;
    static constexpr int numManagedUnits = 4;

    BindingRecord();
    /// Forgets all bindings without GL calls, when the context ceases to be current.
    void clear();
    /// Forgets all bindings and reads program, vertex array, framebuffers and viewport from GL as the base of
    /// the stacks.
    void readFromGL();
    /// A number that differs after every readFromGL, and between contexts. Objects compare it to notice that
    /// GL calls of the application may have changed them.
    quint64 generation() const { return m_generation; }

    /// Binds a texture to the next free unit and writes that to `unit`, whose address identifies the texture.
    void bindTexture(int* unit, unsigned int target, unsigned int name);
    void releaseTexture(int* unit, unsigned int target);
    /// Makes a texture the one that GL calls on the active unit change: on its own unit or, if that is -1, on
    /// the empty unit until it ends.
    void beginTextureChange(int unit, unsigned int target, unsigned int name);
    void endTextureChange(int unit, unsigned int target);
    /// Binds a texture to a managed unit until another one replaces it.
    void bindManagedTexture(int slot, quint64 serial, unsigned int target, unsigned int name);
    /// Returns the serial of the texture on a managed unit, 0 if there is none.
    quint64 managedSerial(int slot) const { return m_managedSerials[static_cast<size_t>(slot)]; }

    void bindProgram(ShaderProgram* program, unsigned int name);
    void releaseProgram(ShaderProgram* program);
    /// Returns the current program; null if there is none or the one bound last is invalid.
    ShaderProgram* currentProgram() const;

    void bindVertexArray(VertexArrayObject* vertexArray, unsigned int name);
    void releaseVertexArray(VertexArrayObject* vertexArray);
    VertexArrayObject* currentVertexArray() const;
    /// Changes the GL name of a vertex array in all its bindings and, if it is the current one, in GL.
    void renameVertexArray(const VertexArrayObject* vertexArray, unsigned int name);

    void bindFramebuffer(FramebufferObject* framebuffer, unsigned int name);
    void releaseFramebuffer(FramebufferObject* framebuffer);
    bool isBound(const FramebufferObject* framebuffer) const;
    unsigned int drawFramebuffer() const;
    /// Binds a framebuffer by GL name to GL_FRAMEBUFFER, GL_DRAW_FRAMEBUFFER or GL_READ_FRAMEBUFFER.
    void bindFramebufferName(unsigned int target, unsigned int name);

    /// Adds the attachments of a new framebuffer.
    void addFramebuffer(const std::shared_ptr<AppliedAttachments>& attachments);
    /// The attachments of all framebuffers; those of destroyed ones have expired.
    const std::vector<std::weak_ptr<AppliedAttachments>>& framebuffers() const { return m_attachments; }

    void setViewport(const QRect& rectangle);
    QRect viewport() const { return m_viewport; }

    /// Removes all bindings of a destroyed object.
    void forgetTexture(int* unit, unsigned int target, quint64 serial);
    void forget(ShaderProgram* program);
    void forget(VertexArrayObject* vertexArray);
    void forget(FramebufferObject* framebuffer);

private:
    /// A bound object and its GL name. The name is stored so that the record needs nothing from the object's
    /// class.
    template<class T>
    struct Named
    {
        T* object;
        unsigned int name;
    };
    struct FramebufferBinding
    {
        FramebufferObject* framebuffer;
        unsigned int previousDraw;
        unsigned int previousRead;
        QRect previousViewport;
    };
    void applyFramebuffers(unsigned int draw, unsigned int read);

    quint64 m_generation = 0;
    /// The address that identifies the texture on each unit; null for a free unit.
    std::array<int*, numUnits> m_units{};
    int m_topUnit = 0;
    /// The number of unreleased bindings that found no free unit.
    int m_numRefused = 0;
    std::array<quint64, numManagedUnits> m_managedSerials{};
    std::vector<Named<ShaderProgram>> m_programs;
    unsigned int m_baseProgram = 0;
    std::vector<Named<VertexArrayObject>> m_vertexArrays;
    unsigned int m_baseVertexArray = 0;
    std::vector<FramebufferBinding> m_framebuffers;
    std::vector<std::weak_ptr<AppliedAttachments>> m_attachments;
    unsigned int m_drawFramebuffer = 0;
    unsigned int m_readFramebuffer = 0;
    QRect m_viewport;
};

} // namespace Morvane::Qel
