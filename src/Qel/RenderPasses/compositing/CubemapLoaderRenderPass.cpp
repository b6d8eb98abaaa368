#include <Qel/RenderPasses/compositing/CubemapLoaderRenderPass.h>

#include <cstring>

#include <epoxy/gl.h>

#include <Qel/RenderPasses/support/Images.h>
#include <Qel/RenderPasses/support/Targets.h>
#include <Qel/core/Diagnostics.h>
#include <Qel/gl/BufferObject.h>
#include <Qel/gl/GLErrors.h>
#include <Qel/gl/Guards.h>
#include <Qel/gl/OpenGLDeviceContext.h>
#include <Qel/gl/Texture.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

constexpr const char* sourceFile = "Core/Qel/src/RenderPasses/CubemapLoaderRenderPass";

void uploadFace(Texture* cubemap, unsigned int face, const QImage& image)
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
    // The null is an offset into the buffer.
    cubemap->setFaceImage(face, 0, GL_RGBA, image.width(), image.height(), GL_BGRA, GL_UNSIGNED_BYTE,
                          nullptr);
    checkGLError(sourceFile, 176);
}

} // namespace

const PassDescription& CubemapLoaderRenderPass::description()
{
    const auto face = [](const QString& name, const QString& meaning) {
        return InputDescription{u"Qel_QString_CubemapPath"_s + name,
                                u"the image file of the face "_s + meaning, u"a transparent black face"_s};
    };
    static const PassDescription description{
        u"CubemapLoaderRenderPass"_s,
        u"Loads six image files into a cube map with mipmaps."_s,
        {face(u"PosX"_s, u"to the right (+x)"_s), face(u"NegX"_s, u"to the left (-x)"_s),
         face(u"PosY"_s, u"above (+y)"_s), face(u"NegY"_s, u"below (-y)"_s),
         face(u"PosZ"_s, u"behind (+z)"_s), face(u"NegZ"_s, u"ahead (-z)"_s)},
        {{u"Qel_QelTexture*_Cubemap"_s, u"the cube map, GL_RGBA with straight alpha, owned by the pass"_s}}};
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
        std::unique_ptr<Texture>& cubemap = m_cubemaps[key(paths)];
        if (!cubemap) {
            cubemap = build(paths);
        }
        m_current = cubemap.get();
        m_paths = paths;
    }
    m_outputs[Cubemap].value = textureVariant(m_current);
}

QString CubemapLoaderRenderPass::key(const Paths& paths)
{
    // Nothing stands between the paths. Deliberate: sets whose paths read the same when joined in this order,
    // such as one file that moves from a face to another while the rest is unset, share a cube map.
    return paths[CubemapPathPosX] + paths[CubemapPathPosY] + paths[CubemapPathPosZ] + paths[CubemapPathNegX] +
           paths[CubemapPathNegY] + paths[CubemapPathNegZ];
}

std::unique_ptr<Texture> CubemapLoaderRenderPass::build(const Paths& paths) const
{
    static constexpr std::array<const char*, 6> faceNames{"+X", "-X", "+Y", "-Y", "+Z", "-Z"};
    int limit = 0;
    glGetIntegerv(GL_MAX_CUBE_MAP_TEXTURE_SIZE, &limit);
    auto cubemap = std::make_unique<Texture>(nullptr);
    cubemap->setTarget(GL_TEXTURE_CUBE_MAP);
    const AutoBinder binder(cubemap.get());
    cubemap->setFilter(GL_LINEAR, GL_LINEAR);
    cubemap->setWrap(GL_CLAMP_TO_EDGE);
    for (size_t i = 0; i < paths.size(); ++i) {
        QString problem;
        QImage image = loadImage(paths[i], limit, &problem);
        if (image.isNull()) {
            if (paths[i] != m_paths[i]) {
                logNotice(sourceFile, __LINE__,
                          u"face %1: \"%2\" %3; a transparent black texel stands in"_s.arg(
                              QLatin1StringView(faceNames[i]), paths[i], problem));
            }
            image = makeTexel(Qt::transparent);
        }
        uploadFace(cubemap.get(), GL_TEXTURE_CUBE_MAP_POSITIVE_X + static_cast<unsigned int>(i), image);
    }
    cubemap->generateMipmap();
    checkGLError(sourceFile, 185);
    return cubemap;
}

} // namespace Morvane::Qel
