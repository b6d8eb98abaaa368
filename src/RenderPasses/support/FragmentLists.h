#pragma once

#include <QStringList>

#include <Qel/gl/Texture.h>

namespace Morvane::Qel {

/// The extensions with which lists of fragments are built and sorted on the GPU.
const QStringList& fragmentListExtensions();

/// Whether the current context has them all.
bool hasFragmentListExtensions();

/// Binds level 0 of a texture to an image unit, under its own format, for its lifetime; leaves nothing bound
/// there.
class ImageBinder
{
public:
    /// `access` is GL_READ_ONLY, GL_WRITE_ONLY or GL_READ_WRITE.
    ImageBinder(unsigned int unit, Texture* texture, unsigned int access);
    ~ImageBinder();
    ImageBinder(const ImageBinder&) = delete;
    ImageBinder& operator=(const ImageBinder&) = delete;

private:
    unsigned int m_unit;
    unsigned int m_access;
    unsigned int m_format;
};

} // namespace Morvane::Qel
