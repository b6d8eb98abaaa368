#pragma once

#include <QByteArrayView>

#include <optional>

#include <Qel/gl/Image.h>

namespace Morvane::Qel {

/// Decodes the contents of a Radiance HDR file as described at readFloatImage. `problem` is set to the cause
/// of a failure.
std::optional<Image> decodeHdr(QByteArrayView bytes, int maxSide, QString* problem);

} // namespace Morvane::Qel
