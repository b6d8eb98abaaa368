#pragma once

#include <QByteArray>
#include <QSize>

#include <functional>

namespace Morvane::Qel {

/// Encodes an image with 8 bits per channel as a PNG file.
///
/// @param numChannels 1 for grey, 3 for RGB, 4 for RGBA with straight alpha
/// @param fillRow writes the channels of a row, the first row being the top; called for each row in order
/// @throws std::bad_alloc if there is not enough memory
QByteArray encodePng(const QSize& size, int numChannels,
                     const std::function<void(int row, quint8* bytes)>& fillRow);

} // namespace Morvane::Qel
