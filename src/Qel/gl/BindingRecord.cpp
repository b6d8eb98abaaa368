#include <Qel/gl/BindingRecord.h>

#include <algorithm>
#include <atomic>

#include <epoxy/gl.h>

#include <Qel/core/Diagnostics.h>
#include <Qel/gl/FramebufferObject.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

std::atomic<quint64> lastGeneration{0};

/// Removes the latest occurrence of an object from a stack; returns whether it was the top.
template<class Stack, class T>
bool removeLatest(Stack& stack, const T* element)
{
    const auto found = std::find_if(stack.rbegin(), stack.rend(),
                                    [&](const auto& binding) { return binding.object == element; });
    if (found == stack.rend()) {
        return false;
    }
    const bool wasTop = found == stack.rbegin();
    stack.erase(std::next(found).base());
    return wasTop;
}

template<class Stack, class T>
bool contains(const Stack& stack, const T* element)
{
    return std::any_of(stack.begin(), stack.end(),
                       [&](const auto& binding) { return binding.object == element; });
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

void BindingRecord::clear()
{
    m_programs.clear();
    m_vertexArrays.clear();
    m_framebuffers.clear();
    for (int* unit : m_units) {
        if (unit) {
            *unit = -1;
        }
    }
    m_units.fill(nullptr);
    m_topUnit = 0;
    m_numRefused = 0;
    m_managedSerials.fill(0);
    m_generation = ++lastGeneration;
}

void BindingRecord::readFromGL()
{
    clear();
    m_baseProgram = integerState(GL_CURRENT_PROGRAM);
    m_baseVertexArray = integerState(GL_VERTEX_ARRAY_BINDING);
    m_drawFramebuffer = integerState(GL_DRAW_FRAMEBUFFER_BINDING);
    m_readFramebuffer = integerState(GL_READ_FRAMEBUFFER_BINDING);
    std::array<int, 4> viewport{};
    glGetIntegerv(GL_VIEWPORT, viewport.data());
    m_viewport = QRect(viewport[0], viewport[1], viewport[2], viewport[3]);
}

void BindingRecord::bindTexture(int* unit, unsigned int target, unsigned int name)
{
    if (m_topUnit == numUnits) {
        logCritical(__FILE__, __LINE__, u"all %1 texture units are in use"_s.arg(numUnits));
        ++m_numRefused;
        return;
    }
    *unit = m_topUnit++;
    m_units[static_cast<size_t>(*unit)] = unit;
    setActiveUnit(*unit);
    glBindTexture(target, name);
}

void BindingRecord::releaseTexture(int* unit, unsigned int target)
{
    if (m_numRefused > 0) {
        // Bindings nest, so this release belongs to the binding refused last.
        --m_numRefused;
        return;
    }
    if (*unit < 0) {
        return;
    }
    setActiveUnit(*unit);
    glBindTexture(target, 0);
    m_units[static_cast<size_t>(*unit)] = nullptr;
    while (m_topUnit > 0 && !m_units[static_cast<size_t>(m_topUnit - 1)]) {
        --m_topUnit;
    }
    // A texture that was bound twice returns to its earlier unit.
    *unit = -1;
    for (int earlier = m_topUnit - 1; earlier >= 0; --earlier) {
        if (m_units[static_cast<size_t>(earlier)] == unit) {
            *unit = earlier;
            setActiveUnit(earlier);
            break;
        }
    }
}

void BindingRecord::beginTextureChange(int unit, unsigned int target, unsigned int name)
{
    setActiveUnit(unit < 0 ? emptyUnit : unit);
    if (unit < 0) {
        glBindTexture(target, name);
    }
}

void BindingRecord::endTextureChange(int unit, unsigned int target)
{
    if (unit < 0) {
        glBindTexture(target, 0);
    }
}

void BindingRecord::bindManagedTexture(int slot, quint64 serial, unsigned int target, unsigned int name)
{
    m_managedSerials[static_cast<size_t>(slot)] = serial;
    setActiveUnit(firstManagedUnit + slot);
    glBindTexture(target, name);
}

void BindingRecord::bindProgram(ShaderProgram* program, unsigned int name)
{
    m_programs.push_back({program, name});
    glUseProgram(name);
}

void BindingRecord::releaseProgram(ShaderProgram* program)
{
    if (removeLatest(m_programs, program)) {
        glUseProgram(m_programs.empty() ? m_baseProgram : m_programs.back().name);
    }
}

ShaderProgram* BindingRecord::currentProgram() const
{
    return m_programs.empty() || m_programs.back().name == 0 ? nullptr : m_programs.back().object;
}

void BindingRecord::bindVertexArray(VertexArrayObject* vertexArray, unsigned int name)
{
    m_vertexArrays.push_back({vertexArray, name});
    glBindVertexArray(name);
}

void BindingRecord::releaseVertexArray(VertexArrayObject* vertexArray)
{
    if (removeLatest(m_vertexArrays, vertexArray)) {
        glBindVertexArray(m_vertexArrays.empty() ? m_baseVertexArray : m_vertexArrays.back().name);
    }
}

VertexArrayObject* BindingRecord::currentVertexArray() const
{
    return m_vertexArrays.empty() ? nullptr : m_vertexArrays.back().object;
}

void BindingRecord::renameVertexArray(const VertexArrayObject* vertexArray, unsigned int name)
{
    const bool isRebound = currentVertexArray() == vertexArray && m_vertexArrays.back().name != name;
    // Outer bindings too, because the former GL object may be deleted before they are current again.
    for (auto& binding : m_vertexArrays) {
        if (binding.object == vertexArray) {
            binding.name = name;
        }
    }
    if (isRebound) {
        glBindVertexArray(name);
    }
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

void BindingRecord::bindFramebuffer(FramebufferObject* framebuffer, unsigned int name)
{
    m_framebuffers.push_back({framebuffer, m_drawFramebuffer, m_readFramebuffer, m_viewport});
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

void BindingRecord::addFramebuffer(const std::shared_ptr<AppliedAttachments>& attachments)
{
    std::erase_if(m_attachments, [](const auto& known) { return known.expired(); });
    m_attachments.push_back(attachments);
}

void BindingRecord::setViewport(const QRect& rectangle)
{
    m_viewport = rectangle;
    // A negative size counts as empty instead of causing a GL error.
    glViewport(rectangle.x(), rectangle.y(), std::max(rectangle.width(), 0), std::max(rectangle.height(), 0));
}

void BindingRecord::forgetTexture(int* unit, unsigned int target, quint64 serial)
{
    m_numRefused = 0;
    while (*unit >= 0) {
        releaseTexture(unit, target);
    }
    std::replace(m_managedSerials.begin(), m_managedSerials.end(), serial, quint64(0));
}

void BindingRecord::forget(ShaderProgram* program)
{
    while (contains(m_programs, program)) {
        releaseProgram(program);
    }
}

void BindingRecord::forget(VertexArrayObject* vertexArray)
{
    while (contains(m_vertexArrays, vertexArray)) {
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
