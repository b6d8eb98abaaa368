#pragma once

#include <QString>

#include <algorithm>

#include <Qel/core/Memory.h>

namespace Morvane::Qel {

/// Returns why an image of floats of the size that a file states cannot be read, as a phrase about the file;
/// empty if it can. Private to this library.
inline QString sizeProblem(qint64 width, qint64 height, qsizetype numChannels, int maxSide)
{
    const QString pixels = QStringLiteral("it has %1x%2 pixels, more than ").arg(width).arg(height);
    if (std::max(width, height) > maxSide) {
        return pixels + QStringLiteral("%1 in one direction").arg(maxSide);
    }
    const double numSamples =
        static_cast<double>(width) * static_cast<double>(height) * static_cast<double>(numChannels);
    return fitsMemory(sizeof(float) * numSamples)
               ? QString()
               : pixels + QStringLiteral("fit into the memory of this machine");
}

} // namespace Morvane::Qel
