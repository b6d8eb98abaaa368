#pragma once

#include <OpenEXR/ImfFrameBuffer.h>

#include <Qel/gl/Image.h>

namespace Morvane::Qel {

/// Slices for all channels of an image. The EXR library takes writable memory even for writing files.
inline Imf::FrameBuffer frameBufferOf(Image& image, const Imath::V2i& origin)
{
    static_assert(sizeof(float) == sizeof(quint32));
    char* samples =
        std::visit([](auto& values) { return reinterpret_cast<char*>(values.data()); }, image.samples);
    const auto pixelType = image.isInteger() ? Imf::UINT : Imf::FLOAT;
    const size_t xStride = sizeof(float) * static_cast<size_t>(image.numChannels());
    const size_t yStride = xStride * static_cast<size_t>(image.width);
    const Imath::Box2i window(origin, origin + Imath::V2i(image.width - 1, image.height - 1));
    Imf::FrameBuffer frameBuffer;
    for (int c = 0; c < image.numChannels(); ++c) {
        frameBuffer.insert(image.channels[c].toStdString(),
                           Imf::Slice::Make(pixelType, samples + static_cast<size_t>(c) * sizeof(float),
                                            window, xStride, yStride));
    }
    return frameBuffer;
}

} // namespace Morvane::Qel
