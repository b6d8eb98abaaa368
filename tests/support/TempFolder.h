#pragma once

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <gtest/gtest.h>

namespace Morvane::Qel::Test {

/// A temporary folder for the files of a test.
class TempFolder
{
public:
    QString path(const QString& name = {}) const { return m_folder.filePath(name); }

    /// Writes a file and returns its path.
    QString write(const QString& name, const QByteArray& content) const
    {
        QFile file(path(name));
        EXPECT_TRUE(file.open(QIODevice::WriteOnly));
        EXPECT_EQ(file.write(content), content.size());
        return file.fileName();
    }

    QByteArray read(const QString& name) const
    {
        QFile file(path(name));
        EXPECT_TRUE(file.open(QIODevice::ReadOnly)) << qPrintable(name);
        return file.readAll();
    }

    /// Names of the files in the folder, hidden ones included.
    QStringList files() const { return QDir(path()).entryList(QDir::Files | QDir::Hidden, QDir::Name); }

    /// Messages without the path of the folder.
    QString withoutPath(QString text) const { return text.remove(m_folder.path() + u'/'); }

private:
    QTemporaryDir m_folder;
};

} // namespace Morvane::Qel::Test
