#include "OutputStore.h"

#include <QElapsedTimer>

#include <algorithm>
#include <cmath>
#include <limits>
#include <set>

#include <Qel/core/PassDescription.h>
#include <Qel/gl/Formats.h>
#include <Qel/gl/Texture.h>
#include <Qel/gl/TextureManager.h>
#include <Qel/graph/ImageIO.h>

#include "TexelOverlay.h"
#include "TextureView.h"

using namespace Qt::StringLiterals;

namespace Morvane::Qel::Viewer {

namespace {

// Milliseconds between two updates.
constexpr qint64 shortestPause = 100;
constexpr qint64 longestPause = 2000;
constexpr QSize thumbnailSize(96, 54);

QString formatOf(const Texture& texture)
{
    const QString format = internalFormatName(texture.internalFormat()).remove(u"GL_"_s);
    QString text = u"%1x%2 %3"_s.arg(texture.size().width()).arg(texture.size().height()).arg(format);
    if (numLayersOf(texture) > 1) {
        text += u" x%1"_s.arg(numLayersOf(texture));
    }
    return texture.levels() > 1 ? text + u", %1 levels"_s.arg(texture.levels()) : text;
}

} // namespace

OutputStore::OutputStore(GraphSession& session, TextureView& view, QObject* parent)
    : QObject(parent)
    , m_session(session)
    , m_view(view)
{
    m_timer.setSingleShot(true);
    m_timer.setInterval(shortestPause);
    connect(&m_timer, &QTimer::timeout, this, &OutputStore::update);
    const auto schedule = [this] {
        if (!m_timer.isActive()) {
            m_timer.start();
        }
    };
    connect(&session, &GraphSession::frameRendered, this, schedule, Qt::QueuedConnection);
}

const OutputInfo* OutputStore::find(const OutputName& name) const
{
    const auto found = std::find_if(m_outputs.begin(), m_outputs.end(),
                                    [&](const OutputInfo& info) { return info.name == name; });
    return found == m_outputs.end() ? nullptr : &*found;
}

void OutputStore::update()
{
    QElapsedTimer time;
    time.start();
    std::vector<OutputInfo> outputs;
    m_numBytes = 0.0;
    m_view.withContext([&] {
        std::set<const Texture*> counted;
        for (const RenderGraph::Output& output : m_session.outputs()) {
            OutputInfo info;
            info.name = {output.pass, output.port};
            info.shortName = PortName::parse(output.port).name;
            if (Texture* texture = m_session.texture(output)) {
                const TextureKind kind = kindOf(*texture);
                info.isTexture = kind != TextureKind::None;
                info.format = formatOf(*texture);
                if (counted.insert(texture).second) {
                    info.numBytes = numBytesOf(*texture);
                    m_numBytes += info.numBytes;
                }
                const bool isInteger = kind == TextureKind::Unsigned || kind == TextureKind::Signed;
                info.thumbnail = thumbnailImage(m_view.painter().thumbnail(*texture, thumbnailSize),
                                                numChannelsOf(*texture), isInteger);
            } else {
                info.format = tableFromValue(output.value).simplified();
            }
            outputs.push_back(std::move(info));
        }
        m_numPoolTextures = TextureManager::Instance()->numTextures();
    });
    if (outputs != m_outputs) {
        m_outputs = std::move(outputs);
        Q_EMIT updated();
    }
    // Thumbnails take a fortieth of the time, so that frames are hardly slower for them.
    constexpr qint64 share = 40;
    m_timer.setInterval(static_cast<int>(std::clamp(share * time.elapsed(), shortestPause, longestPause)));
}

QHash<QString, QString> OutputStore::valuesAt(const QPoint& texel)
{
    QHash<QString, QString> values;
    const QSize shown = m_view.textureSize();
    if (!QRect(QPoint(0, 0), shown).contains(texel)) {
        return values;
    }
    m_view.withContext([&] {
        for (const RenderGraph::Output& output : m_session.outputs()) {
            Texture* texture = m_session.texture(output);
            if (!texture || kindOf(*texture) == TextureKind::None) {
                continue;
            }
            const QPoint place(texel.x() * texture->size().width() / shown.width(),
                               texel.y() * texture->size().height() / shown.height());
            const Image value = readTexels(texture, {place, QSize(1, 1)}, 0,
                                           std::min(m_view.display().layer, numLayersOf(*texture) - 1));
            QStringList channels;
            for (int i = 0; i < value.numChannels(); ++i) {
                channels.append(texelText(value, 0, 0, i));
            }
            values.insert(OutputName{output.pass, output.port}.text(), channels.join(u"  "_s));
        }
    });
    return values;
}

QImage thumbnailImage(const Image& values, int numChannels, bool isInteger)
{
    if (values.width == 0) {
        return {};
    }
    double low = 0.0;
    double high = 1.0;
    if (numChannels == 1 || isInteger) {
        low = std::numeric_limits<double>::infinity();
        high = -low;
        for (int y = 0; y < values.height; ++y) {
            for (int x = 0; x < values.width; ++x) {
                const double value = values.sample(x, y, 0);
                low = std::isfinite(value) ? std::min(low, value) : low;
                high = std::isfinite(value) ? std::max(high, value) : high;
            }
        }
        high = high > low ? high : low + 1.0;
    }
    const auto byte = [&](double value) {
        const double part = std::isfinite(value) ? (value - low) / (high - low) : 0.0;
        return static_cast<int>(std::lround(255.0 * std::clamp(part, 0.0, 1.0)));
    };
    QImage image(values.width, values.height, QImage::Format_RGB32);
    for (int y = 0; y < values.height; ++y) {
        for (int x = 0; x < values.width; ++x) {
            const auto sample = [&](int channel) {
                return byte(values.sample(x, y, numChannels == 1 ? 0 : channel));
            };
            image.setPixel(x, y, qRgb(sample(0), sample(1), sample(2)));
        }
    }
    return image;
}

} // namespace Morvane::Qel::Viewer
