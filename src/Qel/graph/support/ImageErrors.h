#pragma once

#include <QSize>
#include <QString>

#include <Qel/core/Text.h>

namespace Morvane::Qel {

/// Sets `error` to "PATH: CAUSE; REMEDY", on one line, and returns false.
inline bool imageError(QString* error, const QString& path, const QString& cause, const QString& remedy)
{
    if (error) {
        *error =
            printable(path + QLatin1StringView(": ") + cause.simplified() + QLatin1StringView("; ") + remedy);
    }
    return false;
}

/// imageError for a file that cannot be written.
inline bool writeError(QString* error, const QString& path, const QString& cause,
                       const QString& remedy = QLatin1StringView("check that the disk is not full"))
{
    return imageError(error, path, QLatin1StringView("cannot be written: ") + cause, remedy);
}

/// imageError for an image that is too large to be read; `size` is empty if it is not known.
inline bool memoryError(QString* error, const QString& path, const QSize& size)
{
    const QString pixels = size.isEmpty()
                               ? QString()
                               : QStringLiteral(", with %1x%2 pixels,").arg(size.width()).arg(size.height());
    return imageError(error, path,
                      QStringLiteral("the image%1 needs more memory than this machine has").arg(pixels),
                      QLatin1StringView("use a smaller one"));
}

} // namespace Morvane::Qel
