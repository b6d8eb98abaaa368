#pragma once

#include <QString>

namespace Morvane::Qel {

/// Sets `error` to "PATH: CAUSE; REMEDY", on one line, and returns false.
inline bool imageError(QString* error, const QString& path, const QString& cause, const QString& remedy)
{
    if (error) {
        *error = path + QLatin1StringView(": ") + cause.simplified() + QLatin1StringView("; ") + remedy;
    }
    return false;
}

/// imageError for a file that cannot be written.
inline bool writeError(QString* error, const QString& path, const QString& cause,
                       const QString& remedy = QLatin1StringView("check that the disk is not full"))
{
    return imageError(error, path, QLatin1StringView("cannot be written: ") + cause, remedy);
}

} // namespace Morvane::Qel
