#pragma once

#include <QByteArray>

namespace Morvane::Qel {

/// The scene's materials as MTL text.
QByteArray materialLibrary();

} // namespace Morvane::Qel
