#pragma once

#include <QList>
#include <QMap>
#include <QPair>
#include <QString>
#include <QStringList>

#include <vector>

#include <Qel/gl/Export.h>

namespace Morvane::Qel {

/// A preprocessor for GLSL that runs before the driver's own:
/// - `#include "file"` is replaced by the file, which is searched for beside the including file, then in the
///   include paths in the order in which they were added, then in ":/Media/Shaders". Each file is included
///   only once per source, and its own `#version` is dropped.
/// - `#instancedata "Plan"` is replaced by the prototypes of the plan's accessor functions.
/// - Defines are inserted after the `#version` and `#extension` lines at the start of the source.
/// - `#line` directives are removed and taken into account by Result::origin, which maps a line of the
///   composed source to the file and line it comes from. None are emitted: drivers, and even a driver's
///   preprocessor and compiler, disagree about which line and file a `#line` means.
///
/// Directives in comments are ignored. Conditionals are not evaluated: a directive takes effect even in
/// an inactive branch.
class QEL_GL_EXPORT GLSLMacroProcessor
{
public:
    GLSLMacroProcessor();

    /// Adds a define; replaces an earlier one of the same name.
    void addDefine(const QString& name, const QString& value);
    void addIncludePath(const QString& path);

    /// A preprocessed source.
    struct QEL_GL_EXPORT Result
    {
        struct Position
        {
            /// Index into files.
            int file;
            /// From 1 on.
            int line;
        };
        /// Where a line of `source`, counted from 1, comes from.
        Position origin(int composedLine) const;

        QString source;
        /// The files that `source` is composed of. Entry 0 is the name of the source itself; the inserted
        /// defines count as a file.
        QStringList files;
        /// A message "name:line: text" for each directive that could not be resolved; empty on success.
        QStringList errors;

        /// Consecutive lines of `source` that are consecutive in their file too.
        struct Run
        {
            int firstComposedLine;
            Position origin;
        };
        /// In the order of `source`; the first run starts at line 1.
        std::vector<Run> runs;
    };
    /// Preprocesses one source. `name` is its name in messages. `prototypes` maps the name of a plan to what
    /// `#instancedata` inserts; ShaderProgram passes those of all plans (InstanceDataRegistry::prototypes).
    Result process(const QString& source, const QString& name,
                   const QMap<QString, QString>& prototypes = {}) const;
    /// The path of a file, searched for as if a source without a folder included it; empty if not found.
    QString findFile(const QString& name) const;

private:
    QStringList searchPaths() const;

    QList<QPair<QString, QString>> m_defines;
    QStringList m_includePaths;
};

} // namespace Morvane::Qel
