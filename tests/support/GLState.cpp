#include "support/GLState.h"

#include <cstdlib>
#include <string>
#include <vector>

namespace Morvane::Qel::Test {

namespace {

int version()
{
    return epoxy_gl_version();
}

void toggleCapabilities()
{
    std::vector<GLenum> capabilities{GL_BLEND,
                                     GL_COLOR_LOGIC_OP,
                                     GL_CULL_FACE,
                                     GL_DEPTH_CLAMP,
                                     GL_DEPTH_TEST,
                                     GL_DITHER,
                                     GL_FRAMEBUFFER_SRGB,
                                     GL_LINE_SMOOTH,
                                     GL_MULTISAMPLE,
                                     GL_POLYGON_OFFSET_FILL,
                                     GL_POLYGON_OFFSET_LINE,
                                     GL_POLYGON_OFFSET_POINT,
                                     GL_POLYGON_SMOOTH,
                                     GL_PRIMITIVE_RESTART,
                                     GL_PROGRAM_POINT_SIZE,
                                     GL_RASTERIZER_DISCARD,
                                     GL_SAMPLE_ALPHA_TO_COVERAGE,
                                     GL_SAMPLE_ALPHA_TO_ONE,
                                     GL_SAMPLE_COVERAGE,
                                     GL_SAMPLE_MASK,
                                     GL_SCISSOR_TEST,
                                     GL_STENCIL_TEST};
    for (GLenum plane = 0; plane < 8; ++plane) {
        capabilities.push_back(GL_CLIP_DISTANCE0 + plane);
    }
    if (version() >= 43) {
        capabilities.insert(capabilities.end(), {GL_SAMPLE_SHADING, GL_PRIMITIVE_RESTART_FIXED_INDEX});
    }
    for (const GLenum capability : capabilities) {
        (glIsEnabled(capability) == GL_TRUE ? glDisable : glEnable)(capability);
    }
}

void setValues()
{
    glScissor(1, 2, 3, 4);
    glViewport(5, 6, 7, 8);
    glDepthMask(GL_FALSE);
    glDepthFunc(GL_GREATER);
    glDepthRange(0.75, 0.25);
    glColorMask(GL_TRUE, GL_FALSE, GL_FALSE, GL_FALSE);
    glStencilMask(0x12);
    glStencilFunc(GL_NEVER, 3, 0x0f);
    glStencilOpSeparate(GL_BACK, GL_INVERT, GL_INCR, GL_DECR);
    glBlendFunc(GL_DST_COLOR, GL_ONE_MINUS_DST_COLOR);
    glBlendEquationSeparate(GL_FUNC_REVERSE_SUBTRACT, GL_MIN);
    glBlendColor(0.1F, 0.2F, 0.3F, 0.4F);
    glLogicOp(GL_INVERT);
    glCullFace(GL_FRONT_AND_BACK);
    glFrontFace(GL_CW);
    glPolygonMode(GL_FRONT_AND_BACK, GL_POINT);
    glPolygonOffset(3.0F, 4000.0F);
    glPointSize(5.0F);
    glPointParameteri(GL_POINT_SPRITE_COORD_ORIGIN, GL_LOWER_LEFT);
    glLineWidth(4.0F);
    glProvokingVertex(GL_FIRST_VERTEX_CONVENTION);
    glPrimitiveRestartIndex(2);
    glSampleCoverage(0.0F, GL_FALSE);
    glSampleMaski(0, 0);
    glClampColor(GL_CLAMP_READ_COLOR, GL_TRUE);
    glClearColor(0.3F, 0.6F, 0.9F, 0.2F);
    glClearDepth(0.25);
    glClearStencil(7);
    glHint(GL_FRAGMENT_SHADER_DERIVATIVE_HINT, GL_FASTEST);
    for (unsigned int location = 0; location < stateInGL(GL_MAX_VERTEX_ATTRIBS); ++location) {
        glVertexAttrib4f(location, 0.3F, 0.4F, 0.5F, 0.6F);
    }
    if (version() >= 45) {
        glMinSampleShading(1.0F);
        glPatchParameteri(GL_PATCH_VERTICES, 1);
        constexpr std::array<float, 4> levels{9.0F, 9.0F, 9.0F, 9.0F};
        glPatchParameterfv(GL_PATCH_DEFAULT_OUTER_LEVEL, levels.data());
        glPatchParameterfv(GL_PATCH_DEFAULT_INNER_LEVEL, levels.data());
        glClipControl(GL_UPPER_LEFT, GL_ZERO_TO_ONE);
        glBlendFunci(1, GL_ZERO, GL_ZERO);
        glBlendEquationi(1, GL_MAX);
        glColorMaski(1, GL_FALSE, GL_TRUE, GL_FALSE, GL_TRUE);
        glDepthRangeIndexed(1, 0.5, 0.5);
    }
}

void setPixelStore()
{
    for (const GLenum name :
         {GL_PACK_SWAP_BYTES, GL_PACK_LSB_FIRST, GL_UNPACK_SWAP_BYTES, GL_UNPACK_LSB_FIRST}) {
        glPixelStorei(name, GL_TRUE);
    }
    for (const GLenum name :
         {GL_PACK_ROW_LENGTH, GL_PACK_IMAGE_HEIGHT, GL_PACK_SKIP_PIXELS, GL_PACK_SKIP_ROWS,
          GL_PACK_SKIP_IMAGES, GL_UNPACK_ROW_LENGTH, GL_UNPACK_IMAGE_HEIGHT, GL_UNPACK_SKIP_PIXELS,
          GL_UNPACK_SKIP_ROWS, GL_UNPACK_SKIP_IMAGES}) {
        glPixelStorei(name, 1);
    }
    glPixelStorei(GL_PACK_ALIGNMENT, 8);
    glPixelStorei(GL_UNPACK_ALIGNMENT, 8);
    if (epoxy_has_gl_extension("GL_MESA_pack_invert")) {
        glPixelStorei(GL_PACK_INVERT_MESA, GL_TRUE);
    }
}

void bindBuffers()
{
    const std::vector<unsigned char> ones(1 << 16, 0x3f);
    unsigned int buffer = 0;
    glGenBuffers(1, &buffer);
    for (const GLenum target : {GL_ARRAY_BUFFER, GL_COPY_READ_BUFFER, GL_COPY_WRITE_BUFFER,
                                GL_PIXEL_PACK_BUFFER, GL_PIXEL_UNPACK_BUFFER, GL_TEXTURE_BUFFER}) {
        glBindBuffer(target, buffer);
    }
    glBufferData(GL_ARRAY_BUFFER, static_cast<GLsizeiptr>(ones.size()), ones.data(), GL_STATIC_DRAW);
    const auto bindPoints = [buffer](GLenum target, GLenum limit) {
        for (unsigned int point = 0; point < stateInGL(limit); ++point) {
            glBindBufferBase(target, point, buffer);
        }
    };
    bindPoints(GL_UNIFORM_BUFFER, GL_MAX_UNIFORM_BUFFER_BINDINGS);
    if (version() >= 44) {
        bindPoints(GL_ATOMIC_COUNTER_BUFFER, GL_MAX_ATOMIC_COUNTER_BUFFER_BINDINGS);
        bindPoints(GL_SHADER_STORAGE_BUFFER, GL_MAX_SHADER_STORAGE_BUFFER_BINDINGS);
        glBindBuffer(GL_DRAW_INDIRECT_BUFFER, buffer);
        glBindBuffer(GL_QUERY_BUFFER, buffer);
    }
}

/// Binds a red texture of each target, a sampler object and an image to every unit.
void bindTextures()
{
    constexpr std::array<unsigned char, 4> red{255, 0, 0, 255};
    std::array<unsigned int, 3> textures{};
    glGenTextures(3, textures.data());
    for (unsigned int unit = 0; unit < stateInGL(GL_MAX_COMBINED_TEXTURE_IMAGE_UNITS); ++unit) {
        glActiveTexture(GL_TEXTURE0 + unit);
        glBindTexture(GL_TEXTURE_2D, textures[0]);
        glBindTexture(GL_TEXTURE_CUBE_MAP, textures[1]);
        glBindTexture(GL_TEXTURE_2D_ARRAY, textures[2]);
    }
    glTexImage2D(GL_TEXTURE_2D, 0, GL_RGBA8, 1, 1, 0, GL_RGBA, GL_UNSIGNED_BYTE, red.data());
    glTexImage3D(GL_TEXTURE_2D_ARRAY, 0, GL_RGBA8, 1, 1, 1, 0, GL_RGBA, GL_UNSIGNED_BYTE, red.data());
    for (unsigned int face = 0; face < 6; ++face) {
        glTexImage2D(GL_TEXTURE_CUBE_MAP_POSITIVE_X + face, 0, GL_RGBA8, 1, 1, 0, GL_RGBA, GL_UNSIGNED_BYTE,
                     red.data());
    }
    for (const GLenum target : {GL_TEXTURE_2D, GL_TEXTURE_CUBE_MAP, GL_TEXTURE_2D_ARRAY}) {
        glTexParameteri(target, GL_TEXTURE_MAX_LEVEL, 0);
    }
    if (version() >= 33) {
        unsigned int sampler = 0;
        glGenSamplers(1, &sampler);
        for (const GLenum name : {GL_TEXTURE_WRAP_S, GL_TEXTURE_WRAP_T, GL_TEXTURE_WRAP_R}) {
            glSamplerParameteri(sampler, name, GL_MIRRORED_REPEAT);
        }
        glSamplerParameteri(sampler, GL_TEXTURE_LOD_BIAS, 3);
        for (unsigned int unit = 0; unit < stateInGL(GL_MAX_COMBINED_TEXTURE_IMAGE_UNITS); ++unit) {
            glBindSampler(unit, sampler);
        }
    }
    if (version() >= 42) {
        for (unsigned int unit = 0; unit < stateInGL(GL_MAX_IMAGE_UNITS); ++unit) {
            glBindImageTexture(unit, textures[0], 0, GL_FALSE, 0, GL_READ_ONLY, GL_RGBA8);
        }
    }
}

void changeObjects()
{
    if (version() < 45) {
        return;
    }
    constexpr std::array<int, 4> swizzle{GL_BLUE, GL_ONE, GL_RED, GL_ZERO};
    constexpr std::array<float, 4> pink{1.0F, 0.5F, 0.5F, 0.5F};
    for (const auto& [kind, name] : liveObjects()) {
        // Only buffer textures have no parameters.
        int buffer = 0;
        if (kind == 0) {
            glGetTextureLevelParameteriv(name, 0, GL_TEXTURE_BUFFER_DATA_STORE_BINDING, &buffer);
        }
        if (kind == 0 && buffer == 0) {
            for (const auto& [parameter, value] : std::initializer_list<std::pair<GLenum, int>>{
                     {GL_TEXTURE_MIN_FILTER, GL_LINEAR_MIPMAP_NEAREST},
                     {GL_TEXTURE_MAG_FILTER, GL_NEAREST},
                     {GL_TEXTURE_WRAP_S, GL_CLAMP_TO_BORDER},
                     {GL_TEXTURE_WRAP_T, GL_CLAMP_TO_BORDER},
                     {GL_TEXTURE_WRAP_R, GL_CLAMP_TO_BORDER},
                     {GL_TEXTURE_BASE_LEVEL, 1},
                     {GL_TEXTURE_MAX_LEVEL, 2},
                     {GL_TEXTURE_MIN_LOD, 3},
                     {GL_TEXTURE_MAX_LOD, 4},
                     {GL_TEXTURE_LOD_BIAS, 5},
                     {GL_TEXTURE_COMPARE_MODE, GL_COMPARE_REF_TO_TEXTURE},
                     {GL_TEXTURE_COMPARE_FUNC, GL_GREATER},
                     {GL_DEPTH_STENCIL_TEXTURE_MODE, GL_STENCIL_INDEX},
                     {GL_TEXTURE_SRGB_DECODE_EXT, GL_SKIP_DECODE_EXT}}) {
                glTextureParameteri(name, parameter, value);
            }
            glTextureParameterf(name, GL_TEXTURE_MAX_ANISOTROPY, 4.0F);
            glTextureParameteriv(name, GL_TEXTURE_SWIZZLE_RGBA, swizzle.data());
            glTextureParameterfv(name, GL_TEXTURE_BORDER_COLOR, pink.data());
        } else if (kind == 1) {
            glNamedFramebufferDrawBuffer(name, GL_NONE);
            glNamedFramebufferReadBuffer(name, GL_NONE);
            glNamedFramebufferTexture(name, GL_COLOR_ATTACHMENT0, 0, 0);
            glNamedFramebufferTexture(name, GL_DEPTH_STENCIL_ATTACHMENT, 0, 0);
        }
    }
}

/// Binds objects of the application's own that passes do not bind over.
void bindObjects()
{
    unsigned int name = 0;
    glGenFramebuffers(1, &name);
    glBindFramebuffer(GL_READ_FRAMEBUFFER, name);
    glGenVertexArrays(1, &name);
    glBindVertexArray(name);
    glGenRenderbuffers(1, &name);
    glBindRenderbuffer(GL_RENDERBUFFER, name);
    if (version() >= 41) {
        glGenTransformFeedbacks(1, &name);
        glBindTransformFeedback(GL_TRANSFORM_FEEDBACK, name);
        glGenProgramPipelines(1, &name);
        glBindProgramPipeline(name);
    }
}

} // namespace

int numDeletedAttachments()
{
    int count = 0;
    for (const auto& [kind, framebuffer] : liveObjects()) {
        if (kind != 1) {
            continue;
        }
        glBindFramebuffer(GL_READ_FRAMEBUFFER, framebuffer);
        for (const GLenum point : {GL_COLOR_ATTACHMENT0, GL_COLOR_ATTACHMENT1, GL_COLOR_ATTACHMENT2,
                                   GL_DEPTH_ATTACHMENT, GL_STENCIL_ATTACHMENT}) {
            const auto parameter = [point](GLenum name) {
                int value = 0;
                glGetFramebufferAttachmentParameteriv(GL_READ_FRAMEBUFFER, point, name, &value);
                return static_cast<unsigned int>(value);
            };
            const bool isTexture = parameter(GL_FRAMEBUFFER_ATTACHMENT_OBJECT_TYPE) == GL_TEXTURE;
            count += isTexture && glIsTexture(parameter(GL_FRAMEBUFFER_ATTACHMENT_OBJECT_NAME)) == GL_FALSE
                         ? 1
                         : 0;
        }
    }
    glBindFramebuffer(GL_READ_FRAMEBUFFER, 0);
    return count;
}

void leaveForeignState()
{
    const std::pair<const char*, void (*)()> groups[] = {
        {"caps", toggleCapabilities}, {"values", setValues},    {"objects", changeObjects},
        {"textures", bindTextures},   {"pixel", setPixelStore}, {"buffers", bindBuffers},
        {"bind", bindObjects}};
    const char* only = getenv("ONLY");
    for (const auto& [name, set] : groups) {
        if (!only || std::string(only).find(name) != std::string::npos) {
            set();
        }
    }
}

} // namespace Morvane::Qel::Test
