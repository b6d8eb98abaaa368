#include <Qel/graph/ImageIO.h>

#include <QFile>
#include <QFileInfo>

#include <new>

#include <Qel/gl/ImageFiles.h>
#include <Qel/graph/OutputFile.h>
#include <Qel/graph/support/ExrFile.h>
#include <Qel/graph/support/ImageErrors.h>
#include <Qel/graph/support/PngFile.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

enum class FileKind
{
    Png,
    Exr,
    Unknown
};

FileKind kindOf(const QString& path)
{
    const QString ending = QFileInfo(path).suffix().toLower();
    return ending == QLatin1StringView("png")   ? FileKind::Png
           : ending == QLatin1StringView("exr") ? FileKind::Exr
                                                : FileKind::Unknown;
}

/// Opens an image file for writing; its name must have a known extension.
bool open(OutputFile& file, const QString& path, QString* error)
{
    if (kindOf(path) == FileKind::Unknown) {
        return imageError(error, path, u"unknown image format"_s, u"write a .png or an .exr file"_s);
    }
    return file.openForWriting(error);
}

} // namespace

bool checkImagePath(const QString& path, QString* error)
{
    OutputFile file(path);
    const bool usable = open(file, path, error);
    file.cancelWriting();
    return usable;
}

bool writeImage(const Image& image, const QString& path, QString* error, const ImageFileOptions& options)
{
    OutputFile file(path);
    if (!open(file, path, error)) {
        return false;
    }
    const bool written = kindOf(path) == FileKind::Png ? writePng(image, file, options, error)
                                                       : writeExr(image, file, options, error);
    return written && file.commit(error);
}

std::optional<Image> readImage(const QString& path, QString* error)
{
    QFile file(path);
    if (QFileInfo(path).isDir() || !file.open(QIODevice::ReadOnly)) {
        imageError(
            error, path,
            u"cannot be read: %1"_s.arg(QFileInfo(path).isDir() ? u"it is a folder"_s : file.errorString()),
            u"choose an existing PNG or EXR file"_s);
        return std::nullopt;
    }
    try {
        return kindOf(path) == FileKind::Exr || isFloatImageFile(path) ? readExr(path, error)
                                                                       : readQImage(path, error);
    } catch (const std::bad_alloc&) {
        memoryError(error, path, {});
        return std::nullopt;
    }
}

} // namespace Morvane::Qel
