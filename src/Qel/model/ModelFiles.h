#pragma once

#include <QString>

namespace Morvane::Qel {

/// Finds the file that `reference`, found in a file in `folder`, names. Accepts slashes and backslashes;
/// names that do not match exactly are compared without regard to case. Returns an empty string if there is
/// no such file.
QString findReferencedFile(const QString& folder, const QString& reference);

/// Finds the image that `reference`, found in a file in `folder`, names. Unlike findReferencedFile, it
/// accepts percent-encoded paths and paths from another machine: it takes the longest tail of the path that
/// exists in the folder, or in a texture folder below or beside it. Returns an empty string if there is no
/// such file.
QString findReferencedImage(const QString& folder, const QString& reference);

} // namespace Morvane::Qel
