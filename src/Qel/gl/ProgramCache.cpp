#include <Qel/gl/ProgramCache.h>

#include <algorithm>
#include <utility>

#include <epoxy/gl.h>

namespace Morvane::Qel {

namespace {

/// Enough for the kernel sizes that an animated blur runs through.
constexpr size_t maxPrograms = 64;

} // namespace

ShaderProgram::Linked ProgramCache::take(const QByteArray& key)
{
    const auto found = std::find_if(m_entries.begin(), m_entries.end(),
                                    [&](const Entry& entry) { return entry.key == key; });
    if (found == m_entries.end()) {
        return {};
    }
    ShaderProgram::Linked program = std::move(found->program);
    m_entries.erase(found);
    return program;
}

void ProgramCache::give(const QByteArray& key, ShaderProgram::Linked&& program)
{
    m_entries.push_front({key, std::move(program)});
    if (m_entries.size() > maxPrograms) {
        glDeleteProgram(m_entries.back().program.name);
        m_entries.pop_back();
    }
}

void ProgramCache::clear()
{
    for (const Entry& entry : m_entries) {
        glDeleteProgram(entry.program.name);
    }
    m_entries.clear();
}

} // namespace Morvane::Qel
