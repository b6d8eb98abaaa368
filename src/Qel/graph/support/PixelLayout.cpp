#include <Qel/graph/support/PixelLayout.h>

#include <epoxy/gl.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

PixelLayout layoutOf(unsigned int levelTarget, int level)
{
    const auto levelParameter = [=](unsigned int name) {
        int value = 0;
        glGetTexLevelParameteriv(levelTarget, level, name, &value);
        return value;
    };
    if (levelParameter(GL_TEXTURE_DEPTH_SIZE) > 0) {
        return {{u"Z"_s}, GL_DEPTH_COMPONENT, GL_FLOAT};
    }
    const auto componentType = static_cast<unsigned int>(levelParameter(GL_TEXTURE_RED_TYPE));
    const bool integer = componentType == GL_UNSIGNED_INT || componentType == GL_INT;
    // Read bytes and divide them here, because drivers convert them with different rounding.
    const bool bytes = componentType == GL_UNSIGNED_NORMALIZED && levelParameter(GL_TEXTURE_RED_SIZE) == 8;
    const unsigned int type = integer ? componentType : bytes ? GLenum{GL_UNSIGNED_BYTE} : GLenum{GL_FLOAT};
    const QStringList rgba = {u"R"_s, u"G"_s, u"B"_s, u"A"_s};
    if (levelParameter(GL_TEXTURE_ALPHA_SIZE) > 0) {
        return {rgba, integer ? GLenum{GL_RGBA_INTEGER} : GLenum{GL_RGBA}, type};
    }
    if (levelParameter(GL_TEXTURE_BLUE_SIZE) > 0) {
        return {rgba.first(3), integer ? GLenum{GL_RGB_INTEGER} : GLenum{GL_RGB}, type};
    }
    if (levelParameter(GL_TEXTURE_GREEN_SIZE) > 0) {
        return {rgba.first(2), integer ? GLenum{GL_RG_INTEGER} : GLenum{GL_RG}, type};
    }
    return {rgba.first(1), integer ? GLenum{GL_RED_INTEGER} : GLenum{GL_RED}, type};
}

} // namespace Morvane::Qel
