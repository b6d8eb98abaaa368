#include <Qel/graph/support/FrameCheck.h>

#include <algorithm>
#include <cmath>

#include <epoxy/gl.h>

#include <Qel/core/MetaTypes.h>
#include <Qel/gl/Formats.h>
#include <Qel/gl/Texture.h>
#include <Qel/graph/GraphReview.h>
#include <Qel/graph/ImageIO.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

QString keyOf(const QString& pass, const QString& port)
{
    return pass + u'.' + port;
}

QString placeOf(const QString& pass, const QString& port)
{
    return pass + u'.' + PortName::parse(port).name;
}

bool isDepth(const Texture& texture)
{
    const unsigned int format = formatFromInternalFormat(texture.internalFormat());
    return format == GL_DEPTH_COMPONENT || format == GL_DEPTH_STENCIL;
}

/// Whether the format of a texture can hold NaN and infinity.
bool holdsFloats(const Texture& texture)
{
    const unsigned int type = typeFromInternalFormat(texture.internalFormat());
    return !isDepth(texture) && (type == GL_FLOAT || type == GL_HALF_FLOAT);
}

/// What is known of the samples of an image that are not numbers.
struct InvalidSamples
{
    qint64 numTexels = 0;
    int x = 0;
    int y = 0;
    int channel = 0;
};

InvalidSamples findInvalid(const Image& image)
{
    InvalidSamples found;
    const float* texel = std::get<std::vector<float>>(image.samples).data();
    const int numChannels = image.numChannels();
    for (int y = 0; y < image.height; ++y) {
        for (int x = 0; x < image.width; ++x, texel += numChannels) {
            const float* invalid = std::find_if_not(texel, texel + numChannels,
                                                    [](float value) { return std::isfinite(value); });
            if (invalid != texel + numChannels && found.numTexels++ == 0) {
                found.x = x;
                found.y = y;
                found.channel = static_cast<int>(invalid - texel);
            }
        }
    }
    return found;
}

} // namespace

void FrameCheck::add(const char* kind, const QString& place, const QString& text)
{
    const QString key = QLatin1StringView(kind) + u' ' + place;
    if (!m_found.contains(key)) {
        m_found.insert(key);
        m_lines.append(u"%1: %2"_s.arg(place, text));
    }
}

void FrameCheck::look(const GraphPlan& plan, const std::vector<RenderGraph::Output>& outputs)
{
    for (const QString& line : reviewGraph(plan)) {
        if (!m_lines.contains(line)) {
            m_lines.append(line);
        }
    }
    m_values.clear();
    m_invalid.clear();
    for (const RenderGraph::Output& output : outputs) {
        m_values[keyOf(output.pass, output.port)] = output.value;
    }
    for (const int index : plan.order) {
        const PlannedPass& pass = plan.passes[static_cast<size_t>(index)];
        checkEmptyInputs(pass, plan);
        // What is wrong with an input is also wrong with what is made from it.
        const bool isRootCause = !hasInvalidInput(pass, plan);
        for (const QString& port : pass.outputs) {
            const QString key = keyOf(pass.name, port);
            if (auto* texture = pointerFromVariant<Texture>(m_values.value(key))) {
                checkTexture(key, placeOf(pass.name, port), texture, isRootCause);
            }
        }
        for (const OutputDescription& output : pass.description->outputs) {
            const QString key = keyOf(pass.name, output.name);
            if (output.isJittered && m_values.contains(key)) {
                if (!m_jitters.contains(key)) {
                    m_jitterKeys.append(key);
                }
                Jitter& jitter = m_jitters[key];
                const QVariant value = m_values.value(key);
                jitter.hasChanged = jitter.hasChanged || (jitter.numFrames > 0 && value != jitter.first);
                jitter.first = jitter.numFrames++ > 0 ? jitter.first : value;
            }
        }
    }
    ++m_frame;
}

void FrameCheck::checkEmptyInputs(const PlannedPass& pass, const GraphPlan& plan)
{
    for (const PlannedInput& input : pass.inputs) {
        if (input.source != InputSource::Connection || PortName::parse(input.port).type != u"QelTexture*"_s) {
            continue;
        }
        const PlannedPass& source = plan.passes[static_cast<size_t>(input.pass)];
        const QString port = source.outputs[input.output];
        const auto* texture = pointerFromVariant<Texture>(m_values.value(keyOf(source.name, port)));
        if (!texture || texture->size().isEmpty()) {
            add("empty", placeOf(pass.name, input.port),
                u"is empty: \"@%1\" published %2 in frame %3; check the inputs of %4"_s.arg(
                    placeOf(source.name, port), texture ? u"a texture without an image"_s : u"no texture"_s,
                    QString::number(m_frame), source.name));
        }
    }
}

bool FrameCheck::hasInvalidInput(const PlannedPass& pass, const GraphPlan& plan) const
{
    return std::any_of(pass.inputs.begin(), pass.inputs.end(), [&](const PlannedInput& input) {
        if (input.source != InputSource::Connection) {
            return false;
        }
        const PlannedPass& source = plan.passes[static_cast<size_t>(input.pass)];
        return m_invalid.contains(keyOf(source.name, source.outputs[input.output]));
    });
}

void FrameCheck::checkTexture(const QString& key, const QString& place, Texture* texture, bool isRootCause)
{
    if (isDepth(*texture)) {
        const std::vector<Image> images = readTexture(texture);
        const bool isFar = std::all_of(images.begin(), images.end(), [](const Image& image) {
            const auto& samples = std::get<std::vector<float>>(image.samples);
            return std::all_of(samples.begin(), samples.end(), [](float depth) { return depth == 1.0F; });
        });
        if (!images.empty() && isFar) {
            add("depth", place,
                u"the depth is 1 everywhere in frame %1: nothing was drawn between the clipping planes; "
                "check the model, the camera and its near and far planes"_s.arg(m_frame));
        }
    }
    if (!holdsFloats(*texture)) {
        return;
    }
    const std::vector<Image> layers = readTexture(texture);
    for (size_t layer = 0; layer < layers.size(); ++layer) {
        const InvalidSamples invalid = findInvalid(layers[layer]);
        if (invalid.numTexels == 0) {
            continue;
        }
        m_invalid.insert(key);
        if (isRootCause) {
            add("invalid", place,
                u"%1 texels of frame %2 hold NaN or infinity, the first at (%3, %4) from the upper left%5, "
                "channel %6; look for divisions by 0, for roots and powers of negative numbers, and for "
                "values above 65504 in 16 bits"_s.arg(invalid.numTexels)
                    .arg(m_frame)
                    .arg(invalid.x)
                    .arg(invalid.y)
                    .arg(layers.size() > 1 ? u" in layer %1"_s.arg(layer) : QString(),
                         layers[layer].channels[invalid.channel]));
        }
        return;
    }
}

QStringList FrameCheck::findings() const
{
    QStringList lines = m_lines;
    for (const QString& key : m_jitterKeys) {
        const Jitter& jitter = m_jitters[key];
        if (jitter.numFrames > 1 && !jitter.hasChanged) {
            lines.append(u"%1: the jitter did not change in %2 frames, so that anti-aliasing has no effect; "
                         "set Dirty to false, and keep the camera still"_s
                             .arg(placeOf(key.section(u'.', 0, 0), key.section(u'.', 1)))
                             .arg(jitter.numFrames));
        }
    }
    return lines;
}

} // namespace Morvane::Qel
