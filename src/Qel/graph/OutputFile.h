#pragma once

#include <QByteArrayView>
#include <QSaveFile>
#include <QString>

#include <Qel/graph/Export.h>

namespace Morvane::Qel {

/// A file that replaces an existing one only once it is complete. A symbolic link stays, and its target is
/// replaced. Only regular files are replaced: a device, a pipe or a socket of that name, also behind a link,
/// is left alone and cannot be opened.
class QEL_GRAPH_EXPORT OutputFile : public QSaveFile
{
public:
    explicit OutputFile(const QString& path);
    ~OutputFile() override;

    /// Opens the file for writing. Returns false with one line in `error` if that is not possible.
    bool open(QString* error);
    /// Writes all bytes; on failure, errorString() says why. A plain write may write only some of them, and
    /// then does not say why.
    bool writeAll(QByteArrayView bytes);
    /// Replaces the file. Returns false with one line in `error` if not all of it was written, as on a full
    /// disk; the old file is then unchanged.
    bool commit(QString* error);

    /// Removes the temporary files of all open output files, for a signal handler that ends the process. Safe
    /// in a signal handler.
    static void removeUnfinished();

private:
    QString m_path;
    /// Index of the temporary file's name in the list for removeUnfinished; -1 if it is not there.
    int m_slot = -1;
};

} // namespace Morvane::Qel
