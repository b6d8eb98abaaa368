#pragma once

#include <QList>
#include <QPair>
#include <QString>
#include <QStringList>

#include <vector>

#include <Qel/gl/Export.h>

namespace Morvane::Qel {

/// A preprocessor that runs before the driver's:
/// - `#include "file"` is replaced by the file, searched beside the including file, in the include paths in
///   the order in which they were added, and in ":/Media/Shaders". A file is included once in a source, and
///   its own #version is dropped.
/// - `#instancedata "Plan"` is replaced by the prototypes of the plan's accessor functions.
/// - Defines are inserted behind the #version and #extension lines at the beginning of the source.
/// - `#line` directives of the sources are taken out and followed in Result::origin, which says where a line
///   of the composed source comes from. None are put in: drivers disagree with each other, and their
///   preprocessors with their compilers, about the lines and the files that a #line names.
/// Directives inside comments are left alone. Conditionals are not evaluated: a directive counts in whichever
/// branch it stands.
class QEL_GL_EXPORT GLSLMacroProcessor
{
public:
    GLSLMacroProcessor();

    /// A later define of the same name replaces the earlier one.
    void addDefine(const QString& name, const QString& value);
    void addIncludePath(const QString& path);

    struct QEL_GL_EXPORT Result
    {
        struct Position
        {
            /// Index into files.
            int file;
            /// From 1 on.
            int line;
        };
        /// Where a line of `source`, counted from 1 on, comes from.
        Position origin(int composedLine) const;

        QString source;
        /// The files that the source is composed of. Entry 0 is the name of the source itself; the inserted
        /// defines count as a file.
        QStringList files;
        /// One message for each directive that could not be resolved, "name:line: what"; empty on success.
        QStringList errors;

        /// Lines that follow each other in `source` as in their file, until the next run begins.
        struct Run
        {
            int firstComposedLine;
            Position origin;
        };
        /// In the order of `source`, the first one at line 1.
        std::vector<Run> runs;
    };
    /// Preprocesses one source; `name` is its name in messages.
    Result process(const QString& source, const QString& name) const;
    /// The path of a file searched as an include of no file, empty when it is not found.
    QString findFile(const QString& name) const;

private:
    QStringList searchPaths() const;

    QList<QPair<QString, QString>> m_defines;
    QStringList m_includePaths;
};

} // namespace Morvane::Qel
