#include <Qel/gl/BindingRecord.h>

#include <algorithm>

#include <epoxy/gl.h>

#include <Qel/core/Diagnostics.h>
#include <Qel/gl/FramebufferObject.h>
#include <Qel/gl/ShaderProgram.h>
#include <Qel/gl/Texture.h>
#include <Qel/gl/VertexArrayObject.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

/// Removes the latest occurrence of an element from a stack; returns whether it was the top.
template<class T>
bool removeLatest(std::vector<T*>& stack, const T* element)
{
    const auto found = std::find(stack.rbegin(), stack.rend(), element);
    if (found == stack.rend()) {
        return false;
    }
    const bool wasTop = found == stack.rbegin();
    stack.erase(std::next(found).base());
    return wasTop;
}

unsigned int integerState(GLenum name)
{
    int value = 0;
    glGetIntegerv(name, &value);
    return static_cast<unsigned int>(value);
}

void setActiveUnit(int unit)
{
    glActiveTexture(GL_TEXTURE0 + static_cast<unsigned int>(unit));
}

} // namespace

BindingRecord::BindingRecord()
{
    // Deep enough that binding never allocates on a steady frame.
    constexpr size_t depth = 16;
    m_programs.reserve(depth);
    m_vertexArrays.reserve(depth);
    m_framebuffers.reserve(depth);
}

void BindingRecord::readFromGL()
{
    m_programs.clear();
    m_vertexArrays.clear();
    m_framebuffers.clear();
    m_baseProgram = integerState(GL_CURRENT_PROGRAM);
    m_baseVertexArray = integerState(GL_VERTEX_ARRAY_BINDING);
    m_drawFramebuffer = integerState(GL_DRAW_FRAMEBUFFER_BINDING);
    m_readFramebuffer = integerState(GL_READ_FRAMEBUFFER_BINDING);
    std::array<int, 4> viewport{};
    glGetIntegerv(GL_VIEWPORT, viewport.data());
    m_viewport = QRect(viewport[0], viewport[1], viewport[2], viewport[3]);
    for (Texture* texture : m_units) {
        if (texture) {
            texture->m_unit = -1;
        }
    }
    m_units.fill(nullptr);
    m_topUnit = 0;
    m_numRefused = 0;
    m_managedSerials.fill(0);
}

void BindingRecord::bindTexture(Texture* texture)
{
    if (m_topUnit == numUnits) {
        logCritical(__FILE__, __LINE__, u"all %1 texture units are in use"_s.arg(numUnits));
        ++m_numRefused;
        return;
    }
    texture->m_unit = m_topUnit++;
    m_units[static_cast<size_t>(texture->m_unit)] = texture;
    setActiveUnit(texture->m_unit);
    glBindTexture(texture->target(), texture->textureID());
}

void BindingRecord::releaseTexture(Texture* texture)
{
    if (m_numRefused > 0) {
        // Bindings nest, so this release belongs to the binding refused last.
        --m_numRefused;
        return;
    }
    const int unit = texture->m_unit;
    if (unit < 0) {
        return;
    }
    setActiveUnit(unit);
    glBindTexture(texture->target(), 0);
    m_units[static_cast<size_t>(unit)] = nullptr;
    while (m_topUnit > 0 && !m_units[static_cast<size_t>(m_topUnit - 1)]) {
        --m_topUnit;
    }
    // A texture that was bound twice returns to its earlier unit.
    texture->m_unit = -1;
    for (int earlier = m_topUnit - 1; earlier >= 0; --earlier) {
        if (m_units[static_cast<size_t>(earlier)] == texture) {
            texture->m_unit = earlier;
            setActiveUnit(earlier);
            break;
        }
    }
}

void BindingRecord::bindManagedTexture(int slot, Texture* texture)
{
    quint64& serial = m_managedSerials[static_cast<size_t>(slot)];
    if (serial == texture->serial()) {
        return;
    }
    serial = texture->serial();
    setActiveUnit(firstManagedUnit + slot);
    glBindTexture(texture->target(), texture->textureID());
}

void BindingRecord::bindProgram(ShaderProgram* program)
{
    m_programs.push_back(program);
    glUseProgram(program->programID());
}

void BindingRecord::releaseProgram(ShaderProgram* program)
{
    if (removeLatest(m_programs, program)) {
        glUseProgram(m_programs.empty() ? m_baseProgram : m_programs.back()->programID());
    }
}

ShaderProgram* BindingRecord::currentProgram() const
{
    return m_programs.empty() || m_programs.back()->programID() == 0 ? nullptr : m_programs.back();
}

void BindingRecord::bindVertexArray(VertexArrayObject* vertexArray)
{
    m_vertexArrays.push_back(vertexArray);
    glBindVertexArray(vertexArray->getVAO());
}

void BindingRecord::releaseVertexArray(VertexArrayObject* vertexArray)
{
    if (removeLatest(m_vertexArrays, vertexArray)) {
        glBindVertexArray(m_vertexArrays.empty() ? m_baseVertexArray : m_vertexArrays.back()->getVAO());
    }
}

VertexArrayObject* BindingRecord::currentVertexArray() const
{
    return m_vertexArrays.empty() ? nullptr : m_vertexArrays.back();
}

void BindingRecord::applyFramebuffers(unsigned int draw, unsigned int read)
{
    m_drawFramebuffer = draw;
    m_readFramebuffer = read;
    if (draw == read) {
        glBindFramebuffer(GL_FRAMEBUFFER, draw);
    } else {
        glBindFramebuffer(GL_DRAW_FRAMEBUFFER, draw);
        glBindFramebuffer(GL_READ_FRAMEBUFFER, read);
    }
}

void BindingRecord::bindFramebuffer(FramebufferObject* framebuffer)
{
    m_framebuffers.push_back({framebuffer, m_drawFramebuffer, m_readFramebuffer, m_viewport});
    const unsigned int name = framebuffer->getFBO();
    applyFramebuffers(name, name);
}

void BindingRecord::releaseFramebuffer(FramebufferObject* framebuffer)
{
    const auto found =
        std::find_if(m_framebuffers.rbegin(), m_framebuffers.rend(),
                     [&](const FramebufferBinding& b) { return b.framebuffer == framebuffer; });
    if (found == m_framebuffers.rend()) {
        return;
    }
    const FramebufferBinding released = *found;
    if (found == m_framebuffers.rbegin()) {
        m_framebuffers.pop_back();
        applyFramebuffers(released.previousDraw, released.previousRead);
        setViewport(released.previousViewport);
        return;
    }
    // Released out of order: the binding above now restores what this one would have restored.
    FramebufferBinding& above = *std::prev(found);
    above.previousDraw = released.previousDraw;
    above.previousRead = released.previousRead;
    above.previousViewport = released.previousViewport;
    m_framebuffers.erase(std::next(found).base());
}

bool BindingRecord::isBound(const FramebufferObject* framebuffer) const
{
    return !m_framebuffers.empty() && m_framebuffers.back().framebuffer == framebuffer;
}

unsigned int BindingRecord::drawFramebuffer() const
{
    return m_drawFramebuffer;
}

void BindingRecord::bindFramebufferName(unsigned int target, unsigned int name)
{
    glBindFramebuffer(target, name);
    if (target != GL_READ_FRAMEBUFFER) {
        m_drawFramebuffer = name;
    }
    if (target != GL_DRAW_FRAMEBUFFER) {
        m_readFramebuffer = name;
    }
}

void BindingRecord::setViewport(const QRect& rectangle)
{
    m_viewport = rectangle;
    // A negative size counts as empty instead of causing a GL error.
    glViewport(rectangle.x(), rectangle.y(), std::max(rectangle.width(), 0), std::max(rectangle.height(), 0));
}

void BindingRecord::forget(Texture* texture)
{
    m_numRefused = 0;
    while (texture->m_unit >= 0) {
        releaseTexture(texture);
    }
    std::replace(m_managedSerials.begin(), m_managedSerials.end(), texture->serial(), quint64(0));
}

void BindingRecord::forget(ShaderProgram* program)
{
    while (std::find(m_programs.begin(), m_programs.end(), program) != m_programs.end()) {
        releaseProgram(program);
    }
}

void BindingRecord::forget(VertexArrayObject* vertexArray)
{
    while (std::find(m_vertexArrays.begin(), m_vertexArrays.end(), vertexArray) != m_vertexArrays.end()) {
        releaseVertexArray(vertexArray);
    }
}

void BindingRecord::forget(FramebufferObject* framebuffer)
{
    while (std::any_of(m_framebuffers.begin(), m_framebuffers.end(),
                       [&](const FramebufferBinding& b) { return b.framebuffer == framebuffer; })) {
        releaseFramebuffer(framebuffer);
    }
}

} // namespace Morvane::Qel
