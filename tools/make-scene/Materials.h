#pragma once

#include <QByteArray>

namespace Morvane::Qel {

/// The materials of the hall, and those of the glassware, as MTL text.
QByteArray arcadeMaterials();
QByteArray glasswareMaterials();

} // namespace Morvane::Qel
