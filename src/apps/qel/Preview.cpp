#include "Preview.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>

using namespace Qt::StringLiterals;

namespace Morvane::Qel::App {

namespace {

using Levels = std::vector<std::vector<Image>>;
using Color = std::array<float, 3>;

constexpr int maxColumns = 8;
/// Larger values stand for "nothing", such as the 1e9 of shadow maps, and would leave no contrast to the
/// others.
constexpr float largestMapped = 1.0e6F;

/// R, G and B, or fewer.
int numColors(const Image& image)
{
    return std::min(image.numChannels(), 3);
}

/// Sets the range that is mapped to 0 to 1.
void findRange(const Levels& levels, Preview& preview)
{
    preview.low = std::numeric_limits<double>::infinity();
    preview.high = -preview.low;
    for (const std::vector<Image>& layers : levels) {
        for (const Image& image : layers) {
            const float* sample = std::get<std::vector<float>>(image.samples).data();
            const float* end = sample + image.numSamples();
            for (; sample != end; sample += image.numChannels()) {
                for (int c = 0; c < numColors(image); ++c) {
                    if (std::abs(sample[c]) <= largestMapped) {
                        preview.low = std::min(preview.low, double{sample[c]});
                        preview.high = std::max(preview.high, double{sample[c]});
                    }
                }
            }
        }
    }
    const bool isEmpty = preview.low > preview.high;
    const bool isColor = levels.front().front().numChannels() > 1;
    if (isEmpty || preview.low == preview.high || (isColor && preview.low >= 0.0 && preview.high <= 1.0)) {
        preview.low = isEmpty ? 0.0 : std::min(preview.low, 0.0);
        preview.high = isEmpty ? 1.0 : std::max(preview.high, 1.0);
    }
}

/// A bright colour that differs for neighbouring numbers; black for 0.
Color falseColor(const Image& image, int x, int y)
{
    quint64 hash = 0;
    bool isZero = true;
    for (int c = 0; c < image.numChannels(); ++c) {
        const auto value = static_cast<quint64>(std::llround(image.sample(x, y, c)));
        isZero = isZero && value == 0;
        hash = (hash + value + 1) * 0x9e3779b97f4a7c15ULL;
        hash ^= hash >> 29;
    }
    const auto part = [&](int shift) {
        return isZero ? 0.0F : 0.25F + 0.75F * static_cast<float>((hash >> shift) & 0xffU) / 255.0F;
    };
    return {part(8), part(24), part(40)};
}

Color mappedColor(const Preview& preview, const Image& image, int x, int y)
{
    constexpr Color notANumber{1.0F, 0.0F, 1.0F};
    Color color{};
    const int count = numColors(image);
    for (int c = 0; c < 3; ++c) {
        // A single channel is grey; of two, blue stays 0.
        if (c >= count && count > 1) {
            break;
        }
        const double value = image.sample(x, y, count == 1 ? 0 : c);
        if (std::isnan(value)) {
            return notANumber;
        }
        color[static_cast<size_t>(c)] =
            static_cast<float>(std::clamp((value - preview.low) / (preview.high - preview.low), 0.0, 1.0));
    }
    return color;
}

void draw(Preview& preview, const Image& image, int left, int top)
{
    auto& samples = std::get<std::vector<float>>(preview.image.samples);
    for (int y = 0; y < image.height; ++y) {
        size_t index = preview.image.numSamples() / static_cast<size_t>(preview.image.height) *
                           static_cast<size_t>(top + y) +
                       static_cast<size_t>(left) * 3;
        for (int x = 0; x < image.width; ++x) {
            for (const float part :
                 preview.hasFalseColors ? falseColor(image, x, y) : mappedColor(preview, image, x, y)) {
                samples[index++] = part;
            }
        }
    }
}

} // namespace

Preview previewOf(const Levels& levels, bool hasIntegers)
{
    Preview preview;
    preview.hasFalseColors = hasIntegers;
    if (!hasIntegers) {
        findRange(levels, preview);
    }
    const auto numLayers = static_cast<int>(levels.front().size());
    const int columns = std::min(numLayers, maxColumns);
    const int rows = (numLayers + columns - 1) / columns;
    const int cellWidth = levels.front().front().width;
    int cellHeight = 0;
    for (const std::vector<Image>& layers : levels) {
        cellHeight += layers.front().height;
    }
    preview.image = {columns * cellWidth, rows * cellHeight, {u"R"_s, u"G"_s, u"B"_s}, {}};
    preview.image.samples = std::vector<float>(preview.image.numSamples());
    for (int layer = 0; layer < numLayers; ++layer) {
        int top = layer / columns * cellHeight;
        for (const std::vector<Image>& layers : levels) {
            const Image& image = layers[static_cast<size_t>(layer)];
            draw(preview, image, layer % columns * cellWidth, top);
            top += image.height;
        }
    }
    return preview;
}

} // namespace Morvane::Qel::App
