#include <Qel/gl/Formats.h>

#include <algorithm>
#include <array>

#include <epoxy/gl.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

struct FormatEntry
{
    GLenum internalFormat;
    const char* name;
    GLenum format;
    GLenum type;
};

#define QEL_FORMAT(internalFormat, format, type)                                                             \
    FormatEntry                                                                                              \
    {                                                                                                        \
        internalFormat, #internalFormat, format, type                                                        \
    }

constexpr std::array formats{
    QEL_FORMAT(GL_RED, GL_RED, GL_UNSIGNED_BYTE),
    QEL_FORMAT(GL_RG, GL_RG, GL_UNSIGNED_BYTE),
    QEL_FORMAT(GL_RGB, GL_RGB, GL_UNSIGNED_BYTE),
    QEL_FORMAT(GL_RGBA, GL_RGBA, GL_UNSIGNED_BYTE),
    QEL_FORMAT(GL_R8, GL_RED, GL_UNSIGNED_BYTE),
    QEL_FORMAT(GL_RG8, GL_RG, GL_UNSIGNED_BYTE),
    QEL_FORMAT(GL_RGB8, GL_RGB, GL_UNSIGNED_BYTE),
    QEL_FORMAT(GL_RGBA8, GL_RGBA, GL_UNSIGNED_BYTE),
    QEL_FORMAT(GL_SRGB8, GL_RGB, GL_UNSIGNED_BYTE),
    QEL_FORMAT(GL_SRGB8_ALPHA8, GL_RGBA, GL_UNSIGNED_BYTE),
    QEL_FORMAT(GL_R16, GL_RED, GL_UNSIGNED_SHORT),
    QEL_FORMAT(GL_RG16, GL_RG, GL_UNSIGNED_SHORT),
    QEL_FORMAT(GL_RGBA16, GL_RGBA, GL_UNSIGNED_SHORT),
    QEL_FORMAT(GL_R16F, GL_RED, GL_HALF_FLOAT),
    QEL_FORMAT(GL_RG16F, GL_RG, GL_HALF_FLOAT),
    QEL_FORMAT(GL_RGB16F, GL_RGB, GL_HALF_FLOAT),
    QEL_FORMAT(GL_RGBA16F, GL_RGBA, GL_HALF_FLOAT),
    QEL_FORMAT(GL_R32F, GL_RED, GL_FLOAT),
    QEL_FORMAT(GL_RG32F, GL_RG, GL_FLOAT),
    QEL_FORMAT(GL_RGB32F, GL_RGB, GL_FLOAT),
    QEL_FORMAT(GL_RGBA32F, GL_RGBA, GL_FLOAT),
    QEL_FORMAT(GL_R11F_G11F_B10F, GL_RGB, GL_UNSIGNED_INT_10F_11F_11F_REV),
    QEL_FORMAT(GL_R8UI, GL_RED_INTEGER, GL_UNSIGNED_BYTE),
    QEL_FORMAT(GL_RGBA8UI, GL_RGBA_INTEGER, GL_UNSIGNED_BYTE),
    QEL_FORMAT(GL_R16UI, GL_RED_INTEGER, GL_UNSIGNED_SHORT),
    QEL_FORMAT(GL_R32I, GL_RED_INTEGER, GL_INT),
    QEL_FORMAT(GL_RGBA32I, GL_RGBA_INTEGER, GL_INT),
    QEL_FORMAT(GL_R32UI, GL_RED_INTEGER, GL_UNSIGNED_INT),
    QEL_FORMAT(GL_RG32UI, GL_RG_INTEGER, GL_UNSIGNED_INT),
    QEL_FORMAT(GL_RGBA32UI, GL_RGBA_INTEGER, GL_UNSIGNED_INT),
    QEL_FORMAT(GL_DEPTH_COMPONENT, GL_DEPTH_COMPONENT, GL_FLOAT),
    QEL_FORMAT(GL_DEPTH_COMPONENT16, GL_DEPTH_COMPONENT, GL_UNSIGNED_SHORT),
    QEL_FORMAT(GL_DEPTH_COMPONENT24, GL_DEPTH_COMPONENT, GL_UNSIGNED_INT),
    QEL_FORMAT(GL_DEPTH_COMPONENT32, GL_DEPTH_COMPONENT, GL_UNSIGNED_INT),
    QEL_FORMAT(GL_DEPTH_COMPONENT32F, GL_DEPTH_COMPONENT, GL_FLOAT),
    QEL_FORMAT(GL_DEPTH_STENCIL, GL_DEPTH_STENCIL, GL_UNSIGNED_INT_24_8),
    QEL_FORMAT(GL_DEPTH24_STENCIL8, GL_DEPTH_STENCIL, GL_UNSIGNED_INT_24_8),
    QEL_FORMAT(GL_DEPTH32F_STENCIL8, GL_DEPTH_STENCIL, GL_FLOAT_32_UNSIGNED_INT_24_8_REV),
};

#undef QEL_FORMAT

const FormatEntry* find(unsigned int internalFormat)
{
    const auto* found = std::find_if(formats.begin(), formats.end(), [&](const FormatEntry& entry) {
        return entry.internalFormat == internalFormat;
    });
    return found == formats.end() ? nullptr : found;
}

} // namespace

unsigned int formatFromInternalFormat(unsigned int internalFormat)
{
    const FormatEntry* entry = find(internalFormat);
    return entry ? entry->format : 0;
}

unsigned int typeFromInternalFormat(unsigned int internalFormat)
{
    const FormatEntry* entry = find(internalFormat);
    return entry ? entry->type : 0;
}

int bytesPerTexel(unsigned int internalFormat)
{
    const FormatEntry* entry = find(internalFormat);
    if (!entry) {
        return 0;
    }
    const auto numChannels = [&] {
        switch (entry->format) {
        case GL_RG:
        case GL_RG_INTEGER:
            return 2;
        case GL_RGB:
        case GL_RGB_INTEGER:
            return 3;
        case GL_RGBA:
        case GL_RGBA_INTEGER:
            return 4;
        default:
            return 1;
        }
    };
    switch (entry->type) {
    case GL_UNSIGNED_BYTE:
        return numChannels();
    case GL_UNSIGNED_SHORT:
    case GL_HALF_FLOAT:
        return 2 * numChannels();
    case GL_UNSIGNED_INT_24_8:
    case GL_UNSIGNED_INT_10F_11F_11F_REV:
        return 4;
    case GL_FLOAT_32_UNSIGNED_INT_24_8_REV:
        return 8;
    default:
        return 4 * numChannels();
    }
}

bool isIntegerFormat(unsigned int internalFormat)
{
    const unsigned int format = formatFromInternalFormat(internalFormat);
    return format == GL_RED_INTEGER || format == GL_RG_INTEGER || format == GL_RGB_INTEGER ||
           format == GL_RGBA_INTEGER;
}

QString internalFormatName(unsigned int internalFormat)
{
    const FormatEntry* entry = find(internalFormat);
    return entry ? QString::fromLatin1(entry->name) : u"0x%1"_s.arg(internalFormat, 4, 16, QLatin1Char('0'));
}

} // namespace Morvane::Qel
