#include <Qel/gl/Image.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

double Image::sample(int x, int y, int channel) const
{
    const size_t index = (static_cast<size_t>(y) * static_cast<size_t>(width) + static_cast<size_t>(x)) *
                             static_cast<size_t>(channels.size()) +
                         static_cast<size_t>(channel);
    return std::visit([index](const auto& values) { return static_cast<double>(values[index]); }, samples);
}

size_t Image::numSamples() const
{
    return static_cast<size_t>(width) * static_cast<size_t>(height) * static_cast<size_t>(numChannels());
}

QString Image::summary() const
{
    return u"%1x%2 %3"_s.arg(width).arg(height).arg(channels.join(QString()));
}

} // namespace Morvane::Qel
