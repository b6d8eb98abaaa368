#pragma once

#include <QList>
#include <QPair>
#include <QString>
#include <QStringList>

#include <Qel/gl/Export.h>

namespace Morvane::Qel {

/// A preprocessor that runs before the driver's:
/// - `#include "file"` is replaced by the file, searched beside the including file, in the include paths in
///   the order in which they were added, and in ":/Media/Shaders". A file is included once in a source.
/// - `#instancedata "Plan"` is replaced by the prototypes of the plan's accessor functions.
/// - Defines are inserted behind the #version and #extension lines.
/// - `#line` directives keep the driver's messages attached to the file and line that they come from.
/// Directives inside comments are left alone.
class QEL_GL_EXPORT GLSLMacroProcessor
{
public:
    GLSLMacroProcessor();

    /// A later define of the same name replaces the earlier one.
    void addDefine(const QString& name, const QString& value);
    void addIncludePath(const QString& path);

    struct Result
    {
        QString source;
        /// File i is what `#line N i` names; entry 0 is the name of the source itself.
        QStringList files;
        /// One message for each directive that could not be resolved, "name:line: what"; empty on success.
        QStringList errors;
    };
    /// Preprocesses one source; `name` is its name in messages.
    Result process(const QString& source, const QString& name) const;
    /// The path of a file searched as an include of no file, empty when it is not found.
    QString findFile(const QString& name) const;

private:
    QList<QPair<QString, QString>> m_defines;
    QStringList m_includePaths;
};

} // namespace Morvane::Qel
