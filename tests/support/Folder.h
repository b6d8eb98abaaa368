#pragma once

#include <QString>
#include <QStringList>
#include <QTemporaryDir>

namespace Morvane::Qel {
struct Image;
}

namespace Morvane::Qel::Test {

/// A temporary folder of a test, deleted with it.
class Folder
{
public:
    /// The path of a file in the folder.
    QString path(const QString& name) const { return m_folder.filePath(name); }
    /// Writes a file, in UTF-8.
    void write(const QString& name, const QString& text) const;
    /// Writes an image as a PNG or EXR file.
    void write(const QString& name, const Image& image) const;
    /// Reads an image; a file that cannot be read fails the test.
    Image image(const QString& name) const;
    /// Returns the contents of a file; a missing one fails the test.
    QByteArray contents(const QString& name) const;
    /// Returns the names of the files that match a wildcard, hidden ones too, in alphabetical order.
    QStringList files(const QString& wildcard, const QString& subfolder = {}) const;

private:
    QTemporaryDir m_folder;
};

} // namespace Morvane::Qel::Test
