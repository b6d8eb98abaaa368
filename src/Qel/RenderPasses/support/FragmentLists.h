#pragma once

#include <QStringList>

#include <Qel/gl/Texture.h>

namespace Morvane::Qel {

/// The extensions with which lists of fragments are built and sorted on the GPU.
const QStringList& fragmentListExtensions();

/// Whether the current context has them all.
bool hasFragmentListExtensions();

/// Whether two textures are head pointers and nodes; null ones are not. What is there but of another kind is
/// reported unless `isReported` says that it was, and sets it.
bool areFragmentLists(const Texture* headPointers, const Texture* nodes, bool* isReported);

/// Binds level 0 of a texture to an image unit for its lifetime; leaves nothing bound there.
class ImageBinder
{
public:
    /// `access` is GL_READ_ONLY, GL_WRITE_ONLY or GL_READ_WRITE.
    ImageBinder(unsigned int unit, Texture* texture, unsigned int access, unsigned int format);
    ~ImageBinder();
    ImageBinder(const ImageBinder&) = delete;
    ImageBinder& operator=(const ImageBinder&) = delete;

private:
    unsigned int m_unit;
    unsigned int m_access;
    unsigned int m_format;
};

} // namespace Morvane::Qel
