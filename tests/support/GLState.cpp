#include "support/GLState.h"

#include <vector>

namespace Morvane::Qel::Test {

namespace {

void setCapabilitiesAndValues()
{
    for (const GLenum capability : {GL_BLEND,
                                    GL_COLOR_LOGIC_OP,
                                    GL_CULL_FACE,
                                    GL_DEPTH_CLAMP,
                                    GL_DEPTH_TEST,
                                    GL_DITHER,
                                    GL_FRAMEBUFFER_SRGB,
                                    GL_MULTISAMPLE,
                                    GL_POLYGON_OFFSET_FILL,
                                    GL_POLYGON_SMOOTH,
                                    GL_PRIMITIVE_RESTART,
                                    GL_PROGRAM_POINT_SIZE,
                                    GL_RASTERIZER_DISCARD,
                                    GL_SAMPLE_ALPHA_TO_COVERAGE,
                                    GL_SAMPLE_COVERAGE,
                                    GL_SAMPLE_MASK,
                                    GL_SCISSOR_TEST,
                                    GL_STENCIL_TEST,
                                    GL_CLIP_DISTANCE0,
                                    GL_CLIP_DISTANCE7,
                                    GL_LINE_SMOOTH,
                                    GL_POLYGON_OFFSET_LINE,
                                    GL_POLYGON_OFFSET_POINT,
                                    GL_SAMPLE_ALPHA_TO_ONE,
                                    GL_TEXTURE_CUBE_MAP_SEAMLESS}) {
        (glIsEnabled(capability) == GL_TRUE ? glDisable : glEnable)(capability);
    }
    glScissor(1, 2, 3, 4);
    glDepthMask(GL_FALSE);
    glDepthFunc(GL_GREATER);
    glDepthRange(0.75, 0.25);
    glColorMask(GL_TRUE, GL_FALSE, GL_FALSE, GL_FALSE);
    glStencilMask(0x12);
    glStencilFunc(GL_NEVER, 3, 0x0f);
    glBlendFunc(GL_DST_COLOR, GL_ONE_MINUS_DST_COLOR);
    glBlendEquation(GL_FUNC_REVERSE_SUBTRACT);
    glCullFace(GL_FRONT_AND_BACK);
    glFrontFace(GL_CW);
    glPolygonMode(GL_FRONT_AND_BACK, GL_POINT);
    glPolygonOffset(100.0F, 100.0F);
    glLogicOp(GL_CLEAR);
    glStencilOp(GL_INVERT, GL_INVERT, GL_INVERT);
    glProvokingVertex(GL_FIRST_VERTEX_CONVENTION);
    glPointSize(5.0F);
    glPointParameterf(GL_POINT_FADE_THRESHOLD_SIZE, 9.0F);
    glPointParameteri(GL_POINT_SPRITE_COORD_ORIGIN, GL_LOWER_LEFT);
    glLineWidth(7.0F);
    glHint(GL_FRAGMENT_SHADER_DERIVATIVE_HINT, GL_FASTEST);
    glClampColor(GL_CLAMP_READ_COLOR, GL_TRUE);
    if (epoxy_gl_version() >= 40) {
        constexpr std::array<float, 4> levels{7.0F, 6.0F, 5.0F, 4.0F};
        glPatchParameteri(GL_PATCH_VERTICES, 5);
        glPatchParameterfv(GL_PATCH_DEFAULT_OUTER_LEVEL, levels.data());
        glPatchParameterfv(GL_PATCH_DEFAULT_INNER_LEVEL, levels.data());
    }
    glClearColor(0.3F, 0.6F, 0.9F, 0.2F);
    glClearDepth(0.25);
    for (unsigned int location = 0; location < stateInGL(GL_MAX_VERTEX_ATTRIBS); ++location) {
        glVertexAttrib4f(location, 0.3F, 0.4F, 0.5F, 0.6F);
    }
}

/// Binds a red texture and a sampler object to every unit.
void bindTextures()
{
    constexpr std::array<unsigned char, 4> red{255, 0, 0, 255};
    unsigned int texture = 0;
    unsigned int sampler = 0;
    glGenTextures(1, &texture);
    glGenSamplers(1, &sampler);
    glSamplerParameteri(sampler, GL_TEXTURE_LOD_BIAS, 3);
    for (unsigned int unit = 0; unit < stateInGL(GL_MAX_COMBINED_TEXTURE_IMAGE_UNITS); ++unit) {
        glActiveTexture(GL_TEXTURE0 + unit);
        glBindTexture(GL_TEXTURE_2D, texture);
        glBindSampler(unit, sampler);
    }
    glTexImage2D(GL_TEXTURE_2D, 0, GL_RGBA8, 1, 1, 0, GL_RGBA, GL_UNSIGNED_BYTE, red.data());
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MAX_LEVEL, 0);
}

void bindBuffers()
{
    unsigned int buffer = 0;
    glGenBuffers(1, &buffer);
    glBindBuffer(GL_PIXEL_PACK_BUFFER, buffer);
    glBindBuffer(GL_PIXEL_UNPACK_BUFFER, buffer);
    glBufferData(GL_PIXEL_PACK_BUFFER, 1 << 16, std::vector(1 << 16, '?').data(), GL_STATIC_DRAW);
    for (unsigned int point = 0; point < stateInGL(GL_MAX_UNIFORM_BUFFER_BINDINGS); ++point) {
        glBindBufferBase(GL_UNIFORM_BUFFER, point, buffer);
    }
}

/// Changes parameters of all textures and attachments of all framebuffers.
void changeObjects()
{
    for (const auto& [kind, name] : liveObjects()) {
        int buffer = 0;
        if (kind == 0) {
            // Buffer textures have no parameters.
            glGetTextureLevelParameteriv(name, 0, GL_TEXTURE_BUFFER_DATA_STORE_BINDING, &buffer);
        }
        if (kind == 0 && buffer == 0) {
            for (const GLenum number : {GL_TEXTURE_BASE_LEVEL, GL_TEXTURE_MAX_LEVEL, GL_TEXTURE_MIN_LOD,
                                        GL_TEXTURE_LOD_BIAS, GL_TEXTURE_SWIZZLE_G}) {
                glTextureParameteri(name, number, 1);
            }
            glTextureParameteri(name, GL_TEXTURE_MIN_FILTER, GL_LINEAR_MIPMAP_NEAREST);
            glTextureParameteri(name, GL_TEXTURE_WRAP_S, GL_MIRRORED_REPEAT);
            glTextureParameteri(name, GL_TEXTURE_COMPARE_MODE, GL_COMPARE_REF_TO_TEXTURE);
        } else if (kind == 1) {
            glNamedFramebufferDrawBuffer(name, GL_NONE);
            glNamedFramebufferReadBuffer(name, GL_NONE);
            glNamedFramebufferTexture(name, GL_COLOR_ATTACHMENT0, 0, 0);
        }
    }
}

} // namespace

void leaveForeignState()
{
    setCapabilitiesAndValues();
    if (epoxy_gl_version() >= 45) {
        changeObjects();
        glClipControl(GL_UPPER_LEFT, GL_ZERO_TO_ONE);
    }
    bindTextures();
    for (const GLenum name :
         {GL_PACK_SWAP_BYTES, GL_PACK_LSB_FIRST, GL_PACK_ROW_LENGTH, GL_PACK_IMAGE_HEIGHT,
          GL_PACK_SKIP_PIXELS, GL_PACK_SKIP_ROWS, GL_PACK_SKIP_IMAGES, GL_PACK_ALIGNMENT,
          GL_UNPACK_SWAP_BYTES, GL_UNPACK_LSB_FIRST, GL_UNPACK_ROW_LENGTH, GL_UNPACK_IMAGE_HEIGHT,
          GL_UNPACK_SKIP_PIXELS, GL_UNPACK_SKIP_ROWS, GL_UNPACK_SKIP_IMAGES, GL_UNPACK_ALIGNMENT}) {
        glPixelStorei(name, 1);
    }
    bindBuffers();
}

} // namespace Morvane::Qel::Test
