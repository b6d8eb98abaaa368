#pragma once

#include <QString>

namespace Morvane::Qel::Viewer {

class Document;

/// Keeps unsaved changes in a hidden file beside the graph file, so that they survive the end of the program,
/// whatever its reason: a shader that never ends, a driver, the power.
class Recovery
{
public:
    /// The file for the changes to a graph file.
    static QString fileFor(const QString& graph);

    /// Writes the document if it has unsaved changes, and otherwise removes what was written. Where the
    /// folder cannot be written, nothing is kept.
    void update(const Document& document);
    /// Forgets the changes that this object has kept.
    void discard();
    /// Whether changes to a graph file are kept by a program that has ended, or by another one.
    bool isOffered(const QString& graph) const;

private:
    /// The file that this object has written; empty for none.
    QString m_file;
};

} // namespace Morvane::Qel::Viewer
