#include <Qel/gl/AssumedState.h>

#include <array>

#include <epoxy/gl.h>

#include <Qel/gl/BindingRecord.h>
#include <Qel/gl/OpenGLDeviceContext.h>

namespace Morvane::Qel {

namespace {

/// A GL version above all, for what only extensions have.
constexpr int never = 1000;

/// Whether a feature exists, which is in core GL from a version on and before that in an extension.
bool hasFeature(const OpenGLDeviceContext& context, int version, const char* extension)
{
    return context.version() >= version || context.hasExtension(extension);
}

void restoreCapabilities(const OpenGLDeviceContext& context)
{
    glEnable(GL_DITHER);
    // Without it, linear filters stop at the edges of cube map faces.
    glEnable(GL_TEXTURE_CUBE_MAP_SEAMLESS);
    for (const GLenum capability :
         {GL_LINE_SMOOTH, GL_POLYGON_SMOOTH, GL_POLYGON_OFFSET_LINE, GL_POLYGON_OFFSET_POINT,
          GL_SAMPLE_ALPHA_TO_ONE, GL_SAMPLE_COVERAGE, GL_SAMPLE_MASK}) {
        glDisable(capability);
    }
    constexpr GLenum numClipDistances = 8;
    for (GLenum plane = 0; plane < numClipDistances; ++plane) {
        glDisable(GL_CLIP_DISTANCE0 + plane);
    }
    struct Optional
    {
        GLenum capability;
        int version;
        const char* extension;
    };
    constexpr std::array optionals{
        Optional{GL_SAMPLE_SHADING, 40, "ARB_sample_shading"},
        Optional{GL_PRIMITIVE_RESTART_FIXED_INDEX, 43, "ARB_ES3_compatibility"},
        Optional{GL_DEPTH_BOUNDS_TEST_EXT, never, "EXT_depth_bounds_test"},
        Optional{GL_CONSERVATIVE_RASTERIZATION_NV, never, "NV_conservative_raster"},
        Optional{GL_CONSERVATIVE_RASTERIZATION_INTEL, never, "INTEL_conservative_rasterization"},
        Optional{GL_BLACKHOLE_RENDER_INTEL, never, "INTEL_blackhole_render"},
    };
    for (const Optional& optional : optionals) {
        if (hasFeature(context, optional.version, optional.extension)) {
            glDisable(optional.capability);
        }
    }
}

void restorePrimitives(const OpenGLDeviceContext& context)
{
    glPointSize(1.0F);
    glPointParameterf(GL_POINT_FADE_THRESHOLD_SIZE, 1.0F);
    glPointParameteri(GL_POINT_SPRITE_COORD_ORIGIN, GL_UPPER_LEFT);
    glLineWidth(1.0F);
    glProvokingVertex(GL_LAST_VERTEX_CONVENTION);
    glHint(GL_FRAGMENT_SHADER_DERIVATIVE_HINT, GL_DONT_CARE);
    // What a program reads where the batch has no array.
    int numAttributes = 0;
    glGetIntegerv(GL_MAX_VERTEX_ATTRIBS, &numAttributes);
    for (int location = 0; location < numAttributes; ++location) {
        glVertexAttrib4f(static_cast<GLuint>(location), 0.0F, 0.0F, 0.0F, 1.0F);
    }
    if (hasFeature(context, 40, "ARB_tessellation_shader")) {
        constexpr std::array<float, 4> levels{1.0F, 1.0F, 1.0F, 1.0F};
        glPatchParameteri(GL_PATCH_VERTICES, 3);
        glPatchParameterfv(GL_PATCH_DEFAULT_OUTER_LEVEL, levels.data());
        glPatchParameterfv(GL_PATCH_DEFAULT_INNER_LEVEL, levels.data());
    }
    if (hasFeature(context, 45, "ARB_clip_control")) {
        glClipControl(GL_LOWER_LEFT, GL_NEGATIVE_ONE_TO_ONE);
    }
    if (context.hasExtension("EXT_window_rectangles")) {
        glWindowRectanglesEXT(GL_EXCLUSIVE_EXT, 0, nullptr);
    }
}

void restorePixelTransfers(const OpenGLDeviceContext& context)
{
    for (const GLenum name :
         {GL_PACK_SWAP_BYTES, GL_PACK_LSB_FIRST, GL_PACK_ROW_LENGTH, GL_PACK_IMAGE_HEIGHT,
          GL_PACK_SKIP_PIXELS, GL_PACK_SKIP_ROWS, GL_PACK_SKIP_IMAGES, GL_UNPACK_SWAP_BYTES,
          GL_UNPACK_LSB_FIRST, GL_UNPACK_ROW_LENGTH, GL_UNPACK_IMAGE_HEIGHT, GL_UNPACK_SKIP_PIXELS,
          GL_UNPACK_SKIP_ROWS, GL_UNPACK_SKIP_IMAGES}) {
        glPixelStorei(name, 0);
    }
    constexpr int initialAlignment = 4;
    glPixelStorei(GL_PACK_ALIGNMENT, initialAlignment);
    glPixelStorei(GL_UNPACK_ALIGNMENT, initialAlignment);
    if (context.hasExtension("MESA_pack_invert")) {
        glPixelStorei(GL_PACK_INVERT_MESA, GL_FALSE);
    }
    glClampColor(GL_CLAMP_READ_COLOR, GL_FIXED_ONLY);
    glBindBuffer(GL_PIXEL_PACK_BUFFER, 0);
    glBindBuffer(GL_PIXEL_UNPACK_BUFFER, 0);
    if (hasFeature(context, 44, "ARB_query_buffer_object")) {
        glBindBuffer(GL_QUERY_BUFFER, 0);
    }
}

/// Removes the textures and sampler objects from the units that the library uses.
void clearUnits(const OpenGLDeviceContext& context)
{
    constexpr int numUnits = BindingRecord::firstManagedUnit + BindingRecord::numManagedUnits;
    if (hasFeature(context, 44, "ARB_multi_bind")) {
        glBindTextures(0, numUnits, nullptr);
        glBindSamplers(0, numUnits, nullptr);
        return;
    }
    const bool hasSamplers = hasFeature(context, 33, "ARB_sampler_objects");
    for (GLuint unit = 0; unit < numUnits; ++unit) {
        glActiveTexture(GL_TEXTURE0 + unit);
        for (const GLenum target :
             {GL_TEXTURE_1D, GL_TEXTURE_2D, GL_TEXTURE_3D, GL_TEXTURE_1D_ARRAY, GL_TEXTURE_2D_ARRAY,
              GL_TEXTURE_RECTANGLE, GL_TEXTURE_CUBE_MAP, GL_TEXTURE_BUFFER, GL_TEXTURE_2D_MULTISAMPLE,
              GL_TEXTURE_2D_MULTISAMPLE_ARRAY}) {
            glBindTexture(target, 0);
        }
        if (hasSamplers) {
            glBindSampler(unit, 0);
        }
    }
}

} // namespace

void restoreAssumedState(const OpenGLDeviceContext& context)
{
    restoreCapabilities(context);
    restorePrimitives(context);
    restorePixelTransfers(context);
    clearUnits(context);
}

} // namespace Morvane::Qel
