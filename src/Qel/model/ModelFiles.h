#pragma once

#include <QString>

namespace Morvane::Qel {

/// Finds the file that `reference` means in a file of `folder`. Accepts slashes and backslashes; names that
/// do not match exactly are compared without regard to case. Returns an empty string if there is no such
/// file.
QString findReferencedFile(const QString& folder, const QString& reference);

/// Finds the image that `reference` means in a file of `folder`, also where findReferencedFile does not: the
/// path may be percent-encoded or come from another machine. The longest tail of the path that exists in the
/// folder, or in a texture folder below or beside it, is taken. Returns an empty string if there is no such
/// file.
QString findReferencedImage(const QString& folder, const QString& reference);

} // namespace Morvane::Qel
