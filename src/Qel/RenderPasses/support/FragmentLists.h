#pragma once

#include <QStringList>

#include <Qel/gl/Texture.h>

namespace Morvane::Qel {

/// Returns the names of the GL extensions that building and sorting fragment lists require.
const QStringList& fragmentListExtensions();

/// Whether the current context has all extensions of fragmentListExtensions().
bool hasFragmentListExtensions();

/// Whether two textures are head pointers and nodes, judged by target and format. Null is not. Any other
/// mismatch is logged as an error, but only once: `isReported` remembers that between calls.
bool areFragmentLists(const Texture* headPointers, const Texture* nodes, bool* isReported);

/// Binds level 0 of a texture to an image unit for a scope. Nothing is bound there afterwards.
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
