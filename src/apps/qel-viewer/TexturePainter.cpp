#include "TexturePainter.h"

#include <QVector2D>
#include <QVector4D>

#include <algorithm>
#include <array>
#include <cmath>

#include <epoxy/gl.h>

#include <Qel/RenderPasses/framework/PassFrame.h>
#include <Qel/graph/ImageIO.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel::Viewer {

namespace {

/// How shaders declare and fetch the texels of textures of one kind. "N" stands for A or B, the first and the
/// second texture; `p` is the texel.
struct SamplerKind
{
    unsigned int target;
    TextureKind kind;
    const char* sampler;
    const char* size;
    const char* fetch;
    /// The texel at the place of the pixel, where each pixel has one. Rasterisers in software are quicker
    /// with it than with texelFetch. Null for cube maps.
    const char* aligned;
};

const std::array samplerKinds{
    SamplerKind{GL_TEXTURE_2D, TextureKind::Color, "sampler2D", "textureSize(u_N, u_LevelN)",
                "texelFetch(u_N, p, u_LevelN)", "texture(u_N, vo_TexCoord)"},
    SamplerKind{GL_TEXTURE_2D_ARRAY, TextureKind::Color, "sampler2DArray", "textureSize(u_N, u_LevelN).xy",
                "texelFetch(u_N, ivec3(p, u_LayerN), u_LevelN)", "texture(u_N, vec3(vo_TexCoord, u_LayerN))"},
    SamplerKind{GL_TEXTURE_CUBE_MAP, TextureKind::Color, "samplerCube", "textureSize(u_N, u_LevelN)",
                "textureLod(u_N, direction(p, textureSize(u_N, u_LevelN), u_LayerN), float(u_LevelN))",
                nullptr},
    SamplerKind{GL_TEXTURE_2D, TextureKind::Unsigned, "usampler2D", "textureSize(u_N, u_LevelN)",
                "integer(texelFetch(u_N, p, u_LevelN))", "integer(texture(u_N, vo_TexCoord))"},
    SamplerKind{GL_TEXTURE_2D_ARRAY, TextureKind::Unsigned, "usampler2DArray",
                "textureSize(u_N, u_LevelN).xy", "integer(texelFetch(u_N, ivec3(p, u_LayerN), u_LevelN))",
                "integer(texture(u_N, vec3(vo_TexCoord, u_LayerN)))"},
    SamplerKind{GL_TEXTURE_2D, TextureKind::Signed, "isampler2D", "textureSize(u_N, u_LevelN)",
                "integer(texelFetch(u_N, p, u_LevelN))", "integer(texture(u_N, vo_TexCoord))"},
    SamplerKind{GL_TEXTURE_2D_ARRAY, TextureKind::Signed, "isampler2DArray", "textureSize(u_N, u_LevelN).xy",
                "integer(texelFetch(u_N, ivec3(p, u_LayerN), u_LevelN))",
                "integer(texture(u_N, vec3(vo_TexCoord, u_LayerN)))"},
};

/// Index into samplerKinds; -1 for a texture that cannot be shown.
int samplerKindOf(const Texture& texture)
{
    const TextureKind kind = kindOf(texture);
    for (size_t i = 0; i < samplerKinds.size(); ++i) {
        if (samplerKinds[i].target == texture.target() &&
            samplerKinds[i].kind == (kind == TextureKind::Depth ? TextureKind::Color : kind)) {
            return static_cast<int>(i);
        }
    }
    return -1;
}

/// Whether a texture has a texel for each pixel of a size.
bool hasTexelsOf(const QSize& size, const Texture& texture, int level)
{
    return level == 0 && texture.size() == size &&
           samplerKinds[static_cast<size_t>(samplerKindOf(texture))].aligned != nullptr;
}

/// Whether all values are multiples of 1/255.
bool isByteFormat(unsigned int internalFormat)
{
    return internalFormat == GL_RGBA8 || internalFormat == GL_RGB8 || internalFormat == GL_RG8 ||
           internalFormat == GL_R8;
}

/// Declarations and the function `vec4 sampleN(vec2)` for one texture, whose texels are from 0 to 1.
QString samplingSource(const SamplerKind& kind, QChar letter, bool isAligned)
{
    QString source = uR"(
uniform SAMPLER u_N;
uniform int u_LevelN;
uniform int u_LayerN;
)"_s;
    source += isAligned ? u"vec4 sampleN(vec2 position) { return ALIGNED; }\n"_s : uR"(
vec4 fetchN(ivec2 p, ivec2 size)
{
    p = clamp(p, ivec2(0), size - 1);
    return FETCH;
}
vec4 sampleN(vec2 position)
{
    ivec2 size = SIZE;
    vec2 texel = position * vec2(size);
    if (!isSmooth)
        return fetchN(ivec2(floor(texel)), size);
    vec2 corner = floor(texel - 0.5);
    vec2 f = texel - 0.5 - corner;
    ivec2 p = ivec2(corner);
    return mix(mix(fetchN(p, size), fetchN(p + ivec2(1, 0), size), f.x),
               mix(fetchN(p + ivec2(0, 1), size), fetchN(p + ivec2(1, 1), size), f.x), f.y);
}
)"_s;
    source.replace(u"SAMPLER"_s, QLatin1StringView(kind.sampler));
    source.replace(u"ALIGNED"_s, QLatin1StringView(kind.aligned));
    source.replace(u"FETCH"_s, QLatin1StringView(kind.fetch));
    source.replace(u"SIZE"_s, QLatin1StringView(kind.size));
    for (const QString& name : {u"u_"_s, u"u_Level"_s, u"u_Layer"_s, u"fetch"_s, u"sample"_s}) {
        source.replace(name + u'N', name + letter);
    }
    return source;
}

// The constants before it are those of ProgramKey.
const QString headSource = uR"(
in vec2 vo_TexCoord;
uniform vec2 u_Origin;
uniform vec2 u_Scale;
uniform vec4 u_Range; // minimum, maximum, factor after the range, exponent
uniform float u_Wipe;
uniform vec4 u_Background;
out vec4 out_FragColor;

vec3 hue(float h)
{
    return clamp(abs(fract(h + vec3(0.0, 2.0, 1.0) / 3.0) * 6.0 - 3.0) - 1.0, 0.0, 1.0);
}

// Neighbouring integers get hues that are far apart, by the golden ratio; 0 is black.
vec4 integer(uvec4 v)
{
    if (!hasFalseColors || isRaw)
        return vec4(v);
    uint key = v.x + 7919u * v.y + 104729u * v.z + 1299709u * v.w;
    if (key == 0u)
        return vec4(0.0, 0.0, 0.0, 1.0);
    float hash = float((key * 2654435769u) >> 8) / 16777216.0;
    return vec4(mix(vec3(1.0), hue(hash), 0.75) * (0.6 + 0.4 * float((key >> 2) & 1u)), 1.0);
}
vec4 integer(ivec4 v) { return hasFalseColors && !isRaw ? integer(uvec4(v)) : vec4(v); }

// The direction of a texel of a cube map's face, as OpenGL defines the faces.
vec3 direction(ivec2 p, ivec2 size, int face)
{
    vec2 c = 2.0 * (vec2(p) + 0.5) / vec2(size) - 1.0;
    if (face == 0) return vec3(1.0, -c.y, -c.x);
    if (face == 1) return vec3(-1.0, -c.y, c.x);
    if (face == 2) return vec3(c.x, 1.0, c.y);
    if (face == 3) return vec3(c.x, -1.0, -c.y);
    if (face == 4) return vec3(c.x, -c.y, 1.0);
    return vec3(-c.x, -c.y, -1.0);
}
)"_s;

const QString mainSource = uR"(
vec3 scaled(vec3 c)
{
    if (hasRange)
        c = (c - u_Range.x) / (u_Range.y - u_Range.x) * u_Range.z;
    return hasGamma ? pow(max(c, 0.0), vec3(u_Range.w)) : c;
}

vec3 shown(vec4 v)
{
    if (isInteger && hasFalseColors)
        return v.rgb;
    if (channel >= 0) {
        // A constant index must be valid where it is not used, too.
        float value = scaled(vec3(v[max(channel, 0)])).x;
        return hasFalseColors ? hue(0.7 * (1.0 - clamp(value, 0.0, 1.0))) : vec3(value);
    }
    vec3 color = scaled(v.rgb);
    if (isOverCheckerboard) {
        vec2 square = floor(gl_FragCoord.xy / 12.0);
        color = mix(vec3(mod(square.x + square.y, 2.0) < 1.0 ? 0.45 : 0.6), color, clamp(v.a, 0.0, 1.0));
    }
    return color;
}

// Rounds to 8 bits as image files are written. In single precision, 255 c + 0.5 is never too low, but one too
// high just below the limit between two values. There 255 c is compared as 256 c - c, without an error.
vec3 rounded(vec3 color)
{
    color = clamp(color, 0.0, 1.0);
    vec3 byte = floor(color * 255.0 + 0.5);
    byte -= vec3(lessThan(color * 256.0 - byte + 0.5, color));
    return byte * (1.0 / 255.0);
}

void main()
{
    vec2 position = (gl_FragCoord.xy - u_Origin) / u_Scale;
    if (isRaw) {
        out_FragColor = sampleA(position);
        return;
    }
    if (!isAligned &&
        (any(lessThan(position, vec2(0.0))) || any(greaterThanEqual(position, vec2(1.0))))) {
        out_FragColor = u_Background;
        return;
    }
    vec4 value = sampleA(position);
    if (isDifference)
        value = vec4(abs(value.rgb - sampleB(position).rgb), 1.0);
    else if (hasSecond && gl_FragCoord.x >= u_Wipe)
        value = sampleB(position);
    vec3 color = shown(value);
    out_FragColor = vec4(isExact ? color : rounded(mix(color, vec3(0.0), isnan(color))), 1.0);
}
)"_s;

const QString overSource = uR"(#version 150
uniform sampler2D u_A;
out vec4 out_FragColor;
void main()
{
    ivec2 p = ivec2(gl_FragCoord.xy);
    out_FragColor = texelFetch(u_A, ivec2(p.x, textureSize(u_A, 0).y - 1 - p.y), 0);
}
)"_s;

/// Binds a framebuffer in a state that is known.
void begin(unsigned int framebuffer, const QSize& size)
{
    OpenGLDeviceContext& context = *OpenGLDeviceContext::current();
    context.applyBaseState();
    context.bindFramebuffer(GL_FRAMEBUFFER, framebuffer);
    context.setViewport(0, 0, size.width(), size.height());
}

} // namespace

struct TexturePainter::Program
{
    std::unique_ptr<ShaderProgram> program;
    QSharedPointer<DrawBuffers> batch;
    Uniform a{"u_A"};
    Uniform b{"u_B"};
};

QString TexturePainter::sourceFor(const ProgramKey& key)
{
    const SamplerKind& kind = samplerKinds[static_cast<size_t>(key.first)];
    const int channel = static_cast<int>(key.channels) - static_cast<int>(DisplaySettings::Channels::Red);
    QString source = u"#version 150\n"_s;
    const auto add = [&](QStringView name, bool value) {
        source += u"const bool %1 = %2;\n"_s.arg(name, value ? u"true"_s : u"false"_s);
    };
    add(u"hasSecond", key.second >= 0);
    add(u"isInteger", kind.kind != TextureKind::Color);
    add(u"isOverCheckerboard", key.channels == DisplaySettings::Channels::Rgba);
    add(u"isAligned", key.isAligned);
    add(u"isExact", key.isExact);
    add(u"isSmooth", key.isSmooth);
    add(u"isRaw", key.isRaw);
    add(u"hasRange", key.hasRange);
    add(u"hasGamma", key.hasGamma);
    add(u"hasFalseColors", key.hasFalseColors);
    add(u"isDifference", key.isDifference);
    source += u"const int channel = %1;\n"_s.arg(channel < 0 && key.isSingleChannel ? 0 : channel);
    source += headSource + samplingSource(kind, u'A', key.isAligned);
    source += key.second >= 0
                  ? samplingSource(samplerKinds[static_cast<size_t>(key.second)], u'B', key.isAligned)
                  : u"vec4 sampleB(vec2 position) { return vec4(0.0); }\n"_s;
    return source + mainSource;
}

TexturePainter::Program& TexturePainter::program(const ProgramKey& key)
{
    const auto found = std::find_if(m_programs.begin(), m_programs.end(),
                                    [&](const auto& program) { return program.first == key; });
    if (found != m_programs.end()) {
        return *found->second;
    }
    // The context keeps the programs that are deleted, so that they are soon made again.
    constexpr size_t maxPrograms = 16;
    if (m_programs.size() == maxPrograms) {
        m_programs.clear();
    }
    auto made = std::make_shared<Program>();
    provideScreenProgram(made->program, made->batch, {sourceFor(key)});
    return *m_programs.emplace_back(key, std::move(made)).second;
}

void TexturePainter::paint(unsigned int framebuffer, const QSize& size, Texture& texture,
                           const Placement& placement, const DisplaySettings& settings,
                           const Comparison& comparison, const QColor& background)
{
    if (samplerKindOf(texture) < 0) {
        clear(framebuffer, size, background);
        return;
    }
    begin(framebuffer, size);
    draw(texture, size, placement.origin,
         QPointF(texture.size().width(), texture.size().height()) * placement.scale, settings, comparison,
         background, false);
}

void TexturePainter::paintOver(unsigned int framebuffer, Texture& texture)
{
    if (!m_overProgram) {
        m_overProgram = std::make_shared<Program>();
        provideScreenProgram(m_overProgram->program, m_overProgram->batch, {overSource});
    }
    begin(framebuffer, texture.size());
    const AutoEnabler blending(GL_BLEND);
    glBlendFunc(GL_ONE, GL_ONE_MINUS_SRC_ALPHA);
    ShaderProgram& shader = *m_overProgram->program;
    const AutoBinder programBinder(&shader);
    const BoundSampler sampler(shader, m_overProgram->a, &texture, Sampling::Nearest);
    drawBatch(m_overProgram->batch);
}

void TexturePainter::clear(unsigned int framebuffer, const QSize& size, const QColor& background)
{
    begin(framebuffer, size);
    glClearColor(background.redF(), background.greenF(), background.blueF(), 1.0F);
    glClear(GL_COLOR_BUFFER_BIT);
}

void TexturePainter::draw(Texture& texture, const QSize& size, const QPointF& origin, const QPointF& scale,
                          const DisplaySettings& settings, const Comparison& comparison,
                          const QColor& background, bool isRaw)
{
    Texture* second =
        comparison.texture && samplerKindOf(*comparison.texture) >= 0 ? comparison.texture : nullptr;
    const bool isInteger = kindOf(texture) == TextureKind::Unsigned || kindOf(texture) == TextureKind::Signed;
    const bool isAligned = origin.isNull() && scale == QPointF(size.width(), size.height()) &&
                           hasTexelsOf(size, texture, settings.level) &&
                           (!second || hasTexelsOf(size, *second, comparison.level));
    const bool hasRange = settings.minimum != 0.0F || settings.maximum != 1.0F || settings.exposure != 0.0F;
    const bool isExact = isByteFormat(texture.internalFormat()) && !second && !settings.isSmooth &&
                         !hasRange && settings.gamma == 1.0F &&
                         settings.channels != DisplaySettings::Channels::Rgba && !settings.hasFalseColors;
    Program& used = program({.first = samplerKindOf(texture),
                             .second = second ? samplerKindOf(*second) : -1,
                             .channels = settings.channels,
                             .isSingleChannel = numChannelsOf(texture) == 1,
                             .isAligned = isAligned,
                             .isExact = isExact,
                             .isSmooth = settings.isSmooth && !isInteger && !isAligned,
                             .isRaw = isRaw,
                             .hasRange = hasRange,
                             .hasGamma = settings.gamma != 1.0F,
                             .hasFalseColors = settings.hasFalseColors,
                             .isDifference = second && comparison.isDifference});
    ShaderProgram& shader = *used.program;
    const AutoBinder programBinder(&shader);
    const auto sampling = [](int level) { return level > 0 ? Sampling::NearestMipmap : Sampling::Nearest; };
    const BoundSampler samplerA(shader, used.a, &texture, sampling(settings.level));
    const BoundSampler samplerB(shader, used.b, second, sampling(comparison.level));
    shader.setUniform(u"u_LevelA"_s, settings.level);
    shader.setUniform(u"u_LayerA"_s, settings.layer);
    shader.setUniform(u"u_LevelB"_s, comparison.level);
    shader.setUniform(u"u_LayerB"_s, comparison.layer);
    shader.setUniform(u"u_Origin"_s, QVector2D(origin));
    shader.setUniform(u"u_Scale"_s, QVector2D(scale));
    const float maximum = settings.maximum == settings.minimum ? settings.minimum + 1.0F : settings.maximum;
    shader.setUniform(u"u_Range"_s, QVector4D(settings.minimum, maximum, std::exp2(settings.exposure),
                                              1.0F / settings.gamma));
    shader.setUniform(u"u_Wipe"_s, comparison.wipe);
    shader.setUniform(u"u_Background"_s, background);
    drawBatch(used.batch);
}

Image TexturePainter::thumbnail(Texture& texture, const QSize& largest)
{
    if (samplerKindOf(texture) < 0) {
        return {};
    }
    const QSize size = texture.size().scaled(largest, Qt::KeepAspectRatio).expandedTo({1, 1});
    if (!m_target || m_target->size() != size) {
        m_target.reset(makeTarget(size, GL_RGBA32F, GL_RGBA, GL_FLOAT));
    }
    OpenGLDeviceContext::current()->applyBaseState();
    {
        const BoundTarget target(provide(m_framebuffer), m_target.get());
        DisplaySettings settings;
        settings.isSmooth = true;
        draw(texture, size, {0.0, 0.0}, QPointF(size.width(), size.height()), settings, {}, {}, true);
    }
    return readTexels(m_target.get(), {{0, 0}, size});
}

void TexturePainter::release()
{
    m_programs.clear();
    m_overProgram.reset();
    m_framebuffer.reset();
    m_target.reset();
}

std::unique_ptr<Texture> textureOf(const Image& image)
{
    std::vector<float> texels;
    texels.reserve(image.numSamples());
    for (int y = image.height - 1; y >= 0; --y) {
        for (int x = 0; x < image.width; ++x) {
            for (int channel = 0; channel < image.numChannels(); ++channel) {
                texels.push_back(static_cast<float>(image.sample(x, y, channel)));
            }
        }
    }
    static constexpr std::array<std::pair<GLenum, GLenum>, 4> formats{
        {{GL_R32F, GL_RED}, {GL_RG32F, GL_RG}, {GL_RGB32F, GL_RGB}, {GL_RGBA32F, GL_RGBA}}};
    const auto [internalFormat, format] = formats[static_cast<size_t>(image.numChannels() - 1)];
    auto texture = std::make_unique<Texture>();
    texture->setFilter(GL_NEAREST, GL_NEAREST);
    texture->setImage2D(0, internalFormat, image.width, image.height, format, GL_FLOAT, texels.data());
    return texture;
}

} // namespace Morvane::Qel::Viewer
