#pragma once

#include <QColor>
#include <QPointF>
#include <QSharedPointer>
#include <QSize>

#include <memory>
#include <utility>
#include <vector>

#include <Qel/gl/DrawBuffers.h>
#include <Qel/gl/FramebufferObject.h>
#include <Qel/gl/Image.h>
#include <Qel/gl/ShaderProgram.h>
#include <Qel/gl/Texture.h>

#include "DisplaySettings.h"

namespace Morvane::Qel::Viewer {

/// Where a texture lies in a framebuffer.
struct Placement
{
    /// Of the lower left corner of the texture, in pixels from the lower left.
    QPointF origin;
    /// Pixels per texel.
    double scale = 1.0;
};

/// A second texture beside or against the first.
struct Comparison
{
    /// Null for none.
    Texture* texture = nullptr;
    int level = 0;
    int layer = 0;
    /// Shows the absolute difference of the two; otherwise the second one from `wipe` on.
    bool isDifference = false;
    /// In pixels from the left of the framebuffer.
    float wipe = 0.0F;
};

/// Draws textures of every format into a framebuffer. The context must be current.
class TexturePainter
{
public:
    /// Fills a framebuffer, named as in GL, with the texture and the background around it.
    void paint(unsigned int framebuffer, const QSize& size, Texture& texture, const Placement& placement,
               const DisplaySettings& settings, const Comparison& comparison, const QColor& background);

    /// Blends a texture of premultiplied colours over the framebuffer, pixel by pixel. Its first row is the
    /// upper one.
    void paintOver(unsigned int framebuffer, Texture& texture);

    void clear(unsigned int framebuffer, const QSize& size, const QColor& background);

    /// The values of a texture, scaled down to fit a size, as four float channels; integers as floats. An
    /// image without pixels if the texture cannot be shown.
    Image thumbnail(Texture& texture, const QSize& largest);

    void release();

private:
    struct Program;
    /// What a program is made for. A choice by a uniform would cost software rasterisers both sides.
    struct ProgramKey
    {
        /// The kinds of sampler of the first and the second texture; -1 for none.
        int first;
        int second;
        DisplaySettings::Channels channels;
        bool isSingleChannel;
        /// Whether every pixel shows the texel at its own place.
        bool isAligned;
        /// Whether the values are those of 8 bits without rounding.
        bool isExact;
        bool isSmooth;
        bool isRaw;
        bool hasRange;
        bool hasGamma;
        bool hasFalseColors;
        bool isDifference;
        bool operator==(const ProgramKey&) const = default;
    };
    static QString sourceFor(const ProgramKey& key);
    Program& program(const ProgramKey& key);
    void draw(Texture& texture, const QSize& size, const QPointF& origin, const QPointF& scale,
              const DisplaySettings& settings, const Comparison& comparison, const QColor& background,
              bool isRaw);

    std::vector<std::pair<ProgramKey, std::shared_ptr<Program>>> m_programs;
    std::shared_ptr<Program> m_overProgram;
    std::unique_ptr<FramebufferObject> m_framebuffer;
    std::unique_ptr<Texture> m_target;
};

/// A texture with the values of an image as floats. The context must be current.
std::unique_ptr<Texture> textureOf(const Image& image);

} // namespace Morvane::Qel::Viewer
