#pragma once

#include <QByteArray>

#include <list>

#include <Qel/gl/ShaderProgram.h>

namespace Morvane::Qel {

/// The linked programs of a context whose ShaderPrograms are gone, for the next ones of the same sources: a
/// pass that rebuilds its program for every value of a parameter links each only once. Programs are kept
/// whole rather than as binaries, since what drivers make of a program at its first draw is the larger part
/// of its cost and is in no binary. The ones given back the longest ago are deleted.
/// Not installed; ShaderProgram keeps it.
class ProgramCache
{
public:
    ProgramCache() = default;
    ~ProgramCache() = default;
    ProgramCache(const ProgramCache&) = delete;
    ProgramCache& operator=(const ProgramCache&) = delete;

    /// Hands out the program of a key, in the state in which it was given; one without a name when there is
    /// none.
    ShaderProgram::Linked take(const QByteArray& key);
    void give(const QByteArray& key, ShaderProgram::Linked&& program);
    /// Deletes all programs; the context must be current.
    void clear();

private:
    struct Entry
    {
        QByteArray key;
        ShaderProgram::Linked program;
    };
    /// The latest first.
    std::list<Entry> m_entries;
};

} // namespace Morvane::Qel
