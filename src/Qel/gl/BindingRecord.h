#pragma once

#include <array>
#include <vector>

#include <QRect>

namespace Morvane::Qel {

class FramebufferObject;
class ShaderProgram;
class VertexArrayObject;

/// What is bound on a context, as stacks, so that a release restores what was bound before without asking GL.
/// Releases that do not nest are tolerated: the binding in force stays until it is released itself.
/// Not installed; the Bindable classes of this library keep it.
class BindingRecord
{
public:
    /// Units that texture bindings take, stack-wise, from 0 on. The units from firstManagedUnit on belong to
    /// the textures of materials; together they are the 48 that every GL 3.2 context has.
    static constexpr int numUnits = 44;
    static constexpr int firstManagedUnit = numUnits;
    static constexpr int numManagedUnits = 4;

    BindingRecord();
    /// Reads program, vertex array, framebuffers and viewport from GL as the bottoms of the stacks, and
    /// forgets everything else.
    void readFromGL();

    /// Binds a texture to the next free unit and writes that to `unit`, whose address stands for the texture.
    void bindTexture(int* unit, unsigned int target, unsigned int name);
    void releaseTexture(int* unit, unsigned int target);
    /// Binds a texture to a managed unit, where it stays.
    void bindManagedTexture(int slot, quint64 serial, unsigned int target, unsigned int name);
    /// The serial of the texture on a managed unit, 0 for none.
    quint64 managedSerial(int slot) const { return m_managedSerials[static_cast<size_t>(slot)]; }

    void bindProgram(ShaderProgram* program, unsigned int name);
    void releaseProgram(ShaderProgram* program);
    /// The program in force; null when none is, or when the one that was bound last is not valid.
    ShaderProgram* currentProgram() const;

    void bindVertexArray(VertexArrayObject* vertexArray, unsigned int name);
    void releaseVertexArray(VertexArrayObject* vertexArray);
    VertexArrayObject* currentVertexArray() const;

    void bindFramebuffer(FramebufferObject* framebuffer, unsigned int name);
    void releaseFramebuffer(FramebufferObject* framebuffer);
    bool isBound(const FramebufferObject* framebuffer) const;
    unsigned int drawFramebuffer() const;
    /// Binds a framebuffer by name until the next change; for reading (GL_READ_FRAMEBUFFER) or drawing.
    void bindFramebufferName(unsigned int target, unsigned int name);

    void setViewport(const QRect& rectangle);
    QRect viewport() const { return m_viewport; }

    /// Removes a destroyed object from every stack.
    void forgetTexture(int* unit, unsigned int target, quint64 serial);
    void forget(ShaderProgram* program);
    void forget(VertexArrayObject* vertexArray);
    void forget(FramebufferObject* framebuffer);

private:
    /// An object that is bound, with its GL name. The record looks into no object, so that it depends on none
    /// of their classes.
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
    void setActiveUnit(int unit);
    void applyFramebuffers(unsigned int draw, unsigned int read);

    /// What each unit was written to; null for a free unit.
    std::array<int*, numUnits> m_units{};
    int m_topUnit = 0;
    /// Bindings in force that found no unit.
    int m_numRefused = 0;
    std::array<quint64, numManagedUnits> m_managedSerials{};
    std::vector<Named<ShaderProgram>> m_programs;
    unsigned int m_baseProgram = 0;
    std::vector<Named<VertexArrayObject>> m_vertexArrays;
    unsigned int m_baseVertexArray = 0;
    std::vector<FramebufferBinding> m_framebuffers;
    unsigned int m_drawFramebuffer = 0;
    unsigned int m_readFramebuffer = 0;
    QRect m_viewport;
};

} // namespace Morvane::Qel
