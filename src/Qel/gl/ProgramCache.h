#pragma once

#include <QByteArray>

#include <list>

#include <Qel/gl/ContextReference.h>
#include <Qel/gl/LinkedProgram.h>
#include <Qel/gl/OpenGLDeviceContext.h>

namespace Morvane::Qel {

/// The linked programs of a context that no ShaderProgram uses any more, kept for the next one with the same
/// sources: a pass that rebuilds its program for every value of a parameter compiles each variant only once.
///
/// It keeps live programs rather than binaries, because much of a program's cost is what the driver does at
/// its first draw, and binaries do not include that. When it is full, the programs that were returned longest
/// ago are deleted. Private to this library.
class ProgramCache : public ContextData
{
public:
    ProgramCache() = default;
    /// Deletes all programs if the context is current.
    ~ProgramCache() override;
    ProgramCache(const ProgramCache&) = delete;
    ProgramCache& operator=(const ProgramCache&) = delete;

    /// Removes and returns the program of a key, in the state in which it was given; one without a GL name if
    /// there is none.
    LinkedProgram take(const QByteArray& key);
    void give(const QByteArray& key, LinkedProgram&& program);

private:
    struct Entry
    {
        QByteArray key;
        LinkedProgram program;
    };
    ContextReference m_context = ContextReference::toCurrent();
    /// Latest first.
    std::list<Entry> m_entries;
};

} // namespace Morvane::Qel
