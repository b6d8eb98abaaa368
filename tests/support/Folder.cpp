#include "support/Folder.h"

#include <QDir>
#include <QFile>

#include <gtest/gtest.h>

#include <Qel/graph/ImageIO.h>

namespace Morvane::Qel::Test {

void Folder::write(const QString& name, const QString& text) const
{
    QFile file(path(name));
    EXPECT_TRUE(file.open(QIODevice::WriteOnly)) << qPrintable(name);
    file.write(text.toUtf8());
}

void Folder::write(const QString& name, const Image& image) const
{
    QString error;
    EXPECT_TRUE(writeImage(image, path(name), &error, {.pngAlpha = PngAlpha::Keep})) << qPrintable(error);
}

Image Folder::image(const QString& name) const
{
    QString error;
    const std::optional<Image> image = readImage(path(name), &error);
    EXPECT_TRUE(image) << qPrintable(error);
    return image.value_or(Image());
}

QByteArray Folder::contents(const QString& name) const
{
    QFile file(path(name));
    EXPECT_TRUE(file.open(QIODevice::ReadOnly)) << qPrintable(name);
    return file.readAll();
}

QStringList Folder::files(const QString& wildcard, const QString& subfolder) const
{
    return QDir(path(subfolder)).entryList({wildcard}, QDir::Files | QDir::Hidden, QDir::Name);
}

} // namespace Morvane::Qel::Test
