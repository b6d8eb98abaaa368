#include <Qel/gl/ProgramCache.h>

#include <algorithm>
#include <utility>

#include <epoxy/gl.h>

namespace Morvane::Qel {

namespace {

/// Enough for all kernel sizes of an animated blur.
constexpr size_t maxPrograms = 64;

} // namespace

ProgramCache::~ProgramCache()
{
    if (m_context.isCurrent()) {
        for (const Entry& entry : m_entries) {
            glDeleteProgram(entry.program.name);
        }
    }
}

LinkedProgram ProgramCache::take(const QByteArray& key)
{
    const auto found = std::find_if(m_entries.begin(), m_entries.end(),
                                    [&](const Entry& entry) { return entry.key == key; });
    if (found == m_entries.end()) {
        return {};
    }
    LinkedProgram program = std::move(found->program);
    m_entries.erase(found);
    return program;
}

void ProgramCache::give(const QByteArray& key, LinkedProgram&& program)
{
    m_entries.push_front({key, std::move(program)});
    if (m_entries.size() > maxPrograms) {
        glDeleteProgram(m_entries.back().program.name);
        m_entries.pop_back();
    }
}

} // namespace Morvane::Qel
