#pragma once

#include <QString>

namespace Morvane::Qel {

/// The file that `reference` means when it is written in a file of `folder`: either kind of slash, and other
/// case where nothing has the exact name. Empty when there is none.
QString findReferencedFile(const QString& folder, const QString& reference);

/// The same for an image. Paths of another machine are followed by as many of their last parts as exist in
/// the folder or in a folder of textures below or beside it.
QString findReferencedImage(const QString& folder, const QString& reference);

} // namespace Morvane::Qel
