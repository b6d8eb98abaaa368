#pragma once

#include <QImage>
#include <QString>

#include <vector>

namespace Morvane::Qel {

struct NamedImage
{
    QString name;
    QImage image;
};

/// The scenes' textures, all of which tile except the frond, and are 8-bit sRGB. Everything is painted from
/// formulas and hashed noise.
std::vector<NamedImage> sceneTextures();

} // namespace Morvane::Qel
