#include <Qel/RenderPasses/compositing/CubemapLoaderRenderPass.h>

#include <algorithm>
#include <cstring>

#include <epoxy/gl.h>

#include <Qel/RenderPasses/framework/PassFrame.h>
#include <Qel/RenderPasses/support/Images.h>
#include <Qel/core/Diagnostics.h>
#include <Qel/gl/BufferObject.h>
#include <Qel/gl/GLErrors.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

constexpr const char* sourceFile = "Core/Qel/src/RenderPasses/CubemapLoaderRenderPass";

constexpr std::array<const char*, 6> faceNames{"+X", "-X", "+Y", "-Y", "+Z", "-Z"};

/// Reports the first face that does not fit the others.
void checkSizes(const std::array<QImage, 6>& faces)
{
    const auto text = [&](size_t face) {
        return u"face %1 is %2x%3"_s.arg(QLatin1StringView(faceNames[face]))
            .arg(faces[face].width())
            .arg(faces[face].height());
    };
    for (size_t i = 0; i < faces.size(); ++i) {
        const bool isSquare = faces[i].width() == faces[i].height();
        if (!isSquare || faces[i].size() != faces[0].size()) {
            logCritical(sourceFile, __LINE__,
                        text(i) + (isSquare ? u", "_s + text(0) : QString()) +
                            u"; the faces of a cube map must be square and of one size"_s);
            return;
        }
    }
}

/// Uploads an image to a face. `internalFormat` is the same for all faces; GL converts the values to it.
void uploadFace(Texture& cubemap, unsigned int face, const QImage& image, unsigned int internalFormat)
{
    const QSharedPointer<BufferObject> buffer = OpenGLDeviceContext::current()->pixelTransferBuffer();
    buffer->setTarget(GL_PIXEL_UNPACK_BUFFER);
    const AutoBinder binder(buffer);
    buffer->uploadBytes(nullptr, image.sizeInBytes(), GL_STREAM_DRAW);
    if (void* memory = buffer->map(GL_WRITE_ONLY)) {
        std::memcpy(memory, image.constBits(), static_cast<size_t>(image.sizeInBytes()));
        buffer->unmap();
    }
    checkGLError(sourceFile, 168);
    const TexelFormat format = texelFormat(image);
    // With a pixel-unpack buffer bound, the null pointer is offset 0 in it.
    cubemap.setFaceImage(face, 0, internalFormat, image.width(), image.height(), format.format, format.type,
                         nullptr);
    checkGLError(sourceFile, 176);
}

} // namespace

const PassDescription& CubemapLoaderRenderPass::description()
{
    const auto face = [](const QString& name, const QString& direction) {
        return InputDescription{.name = u"Qel_QString_CubemapPath"_s + name,
                                .meaning = u"path of the image file of the %1 face"_s.arg(direction),
                                .whenMissing =
                                    u"a transparent black face of 1 x 1, which fits the others only "
                                    "if they are missing too"_s,
                                .range = u"square, and of the size of the other faces"_s};
    };
    static const PassDescription description{
        .type = u"CubemapLoaderRenderPass"_s,
        .summary = u"Loads six image files, square and of one size, into a mipmapped cube map."_s,
        .inputs = {face(u"PosX"_s, u"+x (right)"_s), face(u"NegX"_s, u"-x (left)"_s),
                   face(u"PosY"_s, u"+y (top)"_s), face(u"NegY"_s, u"-y (bottom)"_s),
                   face(u"PosZ"_s, u"+z (back)"_s), face(u"NegZ"_s, u"-z (front)"_s)},
        .outputs = {{.name = u"Qel_QelTexture*_Cubemap"_s,
                     .meaning = u"the cube map, with straight alpha and the colour encoding of the files; "
                                "RGBA8, owned by the pass. With an EXR or HDR file among them: the values "
                                "of the files, RGBA16F, or RGBA32F if 16 bits cannot hold all values of "
                                "one of them exactly"_s,
                     .encoding = Encoding::AsFile,
                     .alpha = AlphaMeaning::AsFile}}};
    return description;
}

CubemapLoaderRenderPass::CubemapLoaderRenderPass()
{
    declarePorts(description());
}

CubemapLoaderRenderPass::~CubemapLoaderRenderPass() = default;

void CubemapLoaderRenderPass::start(RenderCallbacks* /*callbacks*/)
{
    Paths paths;
    for (size_t i = 0; i < paths.size(); ++i) {
        paths[i] = m_inputs[i].value.toString();
    }
    if (!m_current || paths != m_paths) {
        LoadedCubemap& cubemap = m_cubemaps[key(paths)];
        if (!cubemap.texture) {
            cubemap = build(paths);
        }
        m_current = cubemap.texture.get();
        m_imageProblem = cubemap.problem;
        m_paths = paths;
    }
    m_outputs[Cubemap].value = textureVariant(m_current);
}

QString CubemapLoaderRenderPass::key(const Paths& paths)
{
    // Deliberate: no separator. Sets of paths that concatenate to the same text share a cube map: one file
    // gives the same cube map on whichever face, if the other five are unset.
    return paths[CubemapPathPosX] + paths[CubemapPathPosY] + paths[CubemapPathPosZ] + paths[CubemapPathNegX] +
           paths[CubemapPathNegY] + paths[CubemapPathNegZ];
}

CubemapLoaderRenderPass::LoadedCubemap CubemapLoaderRenderPass::build(const Paths& paths)
{
    int limit = 0;
    glGetIntegerv(GL_MAX_CUBE_MAP_TEXTURE_SIZE, &limit);
    auto cubemap = std::make_unique<Texture>(nullptr);
    cubemap->setTarget(GL_TEXTURE_CUBE_MAP);
    const AutoBinder binder(cubemap.get());
    cubemap->setFilter(GL_LINEAR, GL_LINEAR);
    cubemap->setWrap(GL_CLAMP_TO_EDGE);
    std::array<QImage, 6> images;
    LoadedCubemap result;
    for (size_t i = 0; i < paths.size(); ++i) {
        QString problem;
        QImage& image = images[i];
        image = loadImage(paths[i], limit, &problem);
        if (image.isNull()) {
            // A path that is not set asks for no image.
            if (result.problem.isEmpty() && !paths[i].isEmpty()) {
                result.problem =
                    u"face %1: \"%2\" %3"_s.arg(QLatin1StringView(faceNames[i]), paths[i], problem);
            }
            image = makeTexel(Qt::transparent);
        }
    }
    // All faces get the widest of their formats: a cube map has only one.
    const QImage& widest = *std::max_element(
        images.begin(), images.end(), [](const QImage& a, const QImage& b) { return a.depth() < b.depth(); });
    for (unsigned int i = 0; i < images.size(); ++i) {
        uploadFace(*cubemap, GL_TEXTURE_CUBE_MAP_POSITIVE_X + i, images[i],
                   texelFormat(widest).internalFormat);
    }
    checkSizes(images);
    cubemap->generateMipmap();
    checkGLError(sourceFile, 185);
    result.texture = std::move(cubemap);
    return result;
}

} // namespace Morvane::Qel
