#include "TextureView.h"

#include <QEvent>
#include <QScreen>
#include <QSurfaceFormat>
#include <QVBoxLayout>

#include <algorithm>
#include <cmath>
#include <limits>
#include <utility>

#include <epoxy/gl.h>

#include <Qel/graph/ImageIO.h>

#include "GLSurface.h"

namespace Morvane::Qel::Viewer {

void TextureView::setDefaultFormat()
{
    QSurfaceFormat format;
    format.setVersion(3, 2);
    format.setProfile(QSurfaceFormat::CoreProfile);
    QSurfaceFormat::setDefaultFormat(format);
}

TextureView::TextureView(GraphSession& session, QWidget* parent)
    : QWidget(parent)
    , m_session(session)
    , m_surface(new GLSurface(*this))
{
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    QWidget* container = createWindowContainer(m_surface, this);
    container->setAttribute(Qt::WA_TransparentForMouseEvents);
    layout->addWidget(container);
    setMouseTracking(true);
    setFocusPolicy(Qt::StrongFocus);
    setMinimumSize(64, 64);
    connect(m_surface, &GLSurface::created, &m_session, &GraphSession::initialize);
    connect(m_surface, &GLSurface::paintNeeded, this, &TextureView::paintPicture);
    // Screens differ in pixels per unit.
    connect(m_surface, &QWindow::screenChanged, this, [this] { setFollowsWindow(m_followsWindow); });
    connect(&m_session, &GraphSession::frameNeeded, m_surface, &GLSurface::requestPaint);
    connect(this, &TextureView::shownChanged, this, [this] {
        if (m_isHovered) {
            Q_EMIT hovered(texelAt(m_lastPosition));
        }
    });
}

TextureView::~TextureView()
{
    if (m_session.context()) {
        m_surface->makeCurrent();
        m_session.makeCurrent();
        m_snapshotTexture.reset();
        m_overlayTexture.reset();
        m_painter.release();
        m_session.release();
        m_surface->doneCurrent();
    }
}

void TextureView::show(const OutputName& name)
{
    m_displays.insert(m_shown.text(), m_display);
    m_shown = name;
    m_isDisplayChosen = m_displays.contains(name.text()) || name.pass.isEmpty();
    m_display = m_displays.value(name.text());
    m_rangeFrame = 0;
    m_surface->requestPaint();
    Q_EMIT displayChanged();
}

void TextureView::setDisplay(const DisplaySettings& display)
{
    if (display != m_display) {
        m_display = display;
        m_isDisplayChosen = true;
        m_rangeFrame = 0;
        m_surface->requestPaint();
        Q_EMIT displayChanged();
    }
}

void TextureView::setFollowsWindow(bool follows)
{
    m_followsWindow = follows;
    m_session.setViewport(follows ? pixels() : QSize());
}

void TextureView::setZoom(double zoom)
{
    m_zoom = zoom;
    if (zoom == 0.0) {
        m_center = {0.5, 0.5};
    }
    m_surface->requestPaint();
    Q_EMIT zoomChanged();
}

void TextureView::setContinuous(bool isContinuous)
{
    m_isContinuous = isContinuous;
    if (isContinuous) {
        m_session.requestFrame();
    }
}

void TextureView::setComparison(const ComparisonChoice& comparison)
{
    m_comparison = comparison;
    m_surface->requestPaint();
}

void TextureView::takeSnapshot()
{
    m_snapshot = shownImage();
    withContext([&] {
        m_snapshotTexture.reset();
        if (m_snapshot.width > 0) {
            m_snapshotTexture = textureOf(m_snapshot);
        }
    });
    m_surface->requestPaint();
}

Image TextureView::shownImage()
{
    Image image;
    withContext([&] {
        Texture* texture = m_session.texture(m_shown);
        if (texture && kindOf(*texture) != TextureKind::None) {
            std::vector<Image> images = readTexture(texture, m_display.level);
            if (static_cast<size_t>(m_display.layer) < images.size()) {
                image = std::move(images[static_cast<size_t>(m_display.layer)]);
            }
        }
    });
    return image;
}

std::vector<Image> TextureView::comparedImages()
{
    if (m_comparison.with == ComparisonChoice::With::Snapshot && hasSnapshot()) {
        return {shownImage(), m_snapshot};
    }
    std::vector<Image> images;
    if (m_comparison.with == ComparisonChoice::With::Output) {
        images.push_back(shownImage());
        withContext([&] {
            Texture* texture = m_session.texture(m_comparison.output);
            if (texture && kindOf(*texture) != TextureKind::None) {
                std::vector<Image> others = readTexture(texture);
                images.push_back(others.empty() ? Image() : std::move(others.front()));
            }
        });
    }
    return images.size() == 2 ? images : std::vector<Image>();
}

void TextureView::withContext(const std::function<void()>& call)
{
    if (m_session.context()) {
        m_surface->makeCurrent();
        m_session.makeCurrent();
        call();
        m_surface->doneCurrent();
    }
}

void TextureView::resizeEvent(QResizeEvent* event)
{
    QWidget::resizeEvent(event);
    setFollowsWindow(m_followsWindow);
}

void TextureView::changeEvent(QEvent* event)
{
    QWidget::changeEvent(event);
    if (event->type() == QEvent::PaletteChange || event->type() == QEvent::FontChange) {
        m_overlay.setChanged();
        m_surface->requestPaint();
    }
}

QSize TextureView::pixels() const
{
    return size() * devicePixelRatioF();
}

void TextureView::paintPicture()
{
    m_session.makeCurrent();
    m_session.render();
    Texture* texture = m_session.texture(m_shown);
    m_overlay.setText(texture || !m_session.graph() ? QString() : m_session.text(m_shown));
    if (texture) {
        paintTexture(*texture);
    } else {
        m_overlay.setTexels({}, {});
        m_overlay.setWipe(-1.0);
        m_textureSize = {};
        m_painter.clear(m_surface->defaultFramebufferObject(), pixels(), backgroundColor());
    }
    paintOverlay();
    QMetaObject::invokeMethod(this, &TextureView::shownChanged, Qt::QueuedConnection);
    if (m_isContinuous && m_session.graph()) {
        QMetaObject::invokeMethod(&m_session, &GraphSession::requestFrame, Qt::QueuedConnection);
    }
}

void TextureView::paintTexture(Texture& texture)
{
    if (!std::exchange(m_isDisplayChosen, true)) {
        m_display = initialSettings(texture);
        QMetaObject::invokeMethod(this, &TextureView::displayChanged, Qt::QueuedConnection);
    }
    m_display.level = std::clamp(m_display.level, 0, std::max(texture.levels() - 1, 0));
    m_display.layer = std::clamp(m_display.layer, 0, numLayersOf(texture) - 1);
    const QSize size = sizeOfLevel(texture, m_display.level);
    place(size);
    updateRange(texture);
    Comparison comparison;
    comparison.isDifference = m_comparison.isDifference;
    comparison.wipe = static_cast<float>(m_wipe * pixels().width());
    if (m_comparison.with == ComparisonChoice::With::Snapshot) {
        comparison.texture = m_snapshotTexture.get();
    } else if (m_comparison.with == ComparisonChoice::With::Output) {
        comparison.texture = m_session.texture(m_comparison.output);
    }
    m_overlay.setWipe(comparison.texture && !comparison.isDifference ? m_wipe * width() : -1.0);
    // The painter's scale is that of level 0.
    Placement placement = m_placement;
    placement.scale *= static_cast<double>(size.width()) / texture.size().width();
    m_painter.paint(m_surface->defaultFramebufferObject(), pixels(), texture, placement, m_display,
                    comparison, backgroundColor());
    readTexelValues(texture);
}

void TextureView::paintOverlay()
{
    if (m_overlay.isEmpty()) {
        m_overlayTexture.reset();
        return;
    }
    const QSize size = pixels();
    if (m_overlay.isChanged() || !m_overlayTexture || m_overlayTexture->size() != size) {
        QImage image(size, QImage::Format_RGBA8888_Premultiplied);
        image.setDevicePixelRatio(devicePixelRatioF());
        image.fill(Qt::transparent);
        m_overlay.draw(image, font(), palette());
        if (!m_overlayTexture) {
            m_overlayTexture = std::make_unique<Texture>();
            m_overlayTexture->setFilter(GL_NEAREST, GL_NEAREST);
        }
        m_overlayTexture->setImage2D(0, GL_RGBA8, size.width(), size.height(), GL_RGBA, GL_UNSIGNED_BYTE,
                                     image.constBits());
    }
    m_painter.paintOver(m_surface->defaultFramebufferObject(), *m_overlayTexture);
}

QColor TextureView::backgroundColor() const
{
    return palette().color(QPalette::Window).darker(130);
}

/// Finds where a texture of this size lies. A texture of the widget's size covers it pixel by pixel.
void TextureView::place(const QSize& texture)
{
    const QSizeF area = pixels();
    const double fitting = std::min(area.width() / texture.width(), area.height() / texture.height());
    const double scaleBefore = std::exchange(m_placement.scale, m_zoom > 0.0 ? m_zoom : fitting);
    const QSizeF size = QSizeF(texture) * m_placement.scale;
    // In the middle if it fits into the widget; at whole pixels, so that texels are not cut.
    const auto originOf = [](double space, double length, double center) {
        return std::floor(space / 2.0 - (length <= space ? 0.5 : center) * length + 0.5);
    };
    m_placement.origin = {originOf(area.width(), size.width(), m_center.x()),
                          originOf(area.height(), size.height(), m_center.y())};
    m_textureSize = texture;
    if (m_placement.scale != scaleBefore) {
        QMetaObject::invokeMethod(this, &TextureView::zoomChanged, Qt::QueuedConnection);
    }
}

/// Sets the automatic range to the finite values of the shown channels.
void TextureView::updateRange(Texture& texture)
{
    const quint64 frame = m_session.numFrames();
    if (!m_display.hasAutoRange || frame == m_rangeFrame) {
        return;
    }
    m_rangeFrame = frame;
    const std::vector<Image> images = readTexture(&texture, m_display.level);
    if (images.empty()) {
        return;
    }
    const Image& image = images[std::min(static_cast<size_t>(m_display.layer), images.size() - 1)];
    const int channel =
        static_cast<int>(m_display.channels) - static_cast<int>(DisplaySettings::Channels::Red);
    const int first = channel >= 0 ? std::min(channel, image.numChannels() - 1) : 0;
    const int last = channel >= 0 ? first : std::min(image.numChannels(), 3) - 1;
    double low = std::numeric_limits<double>::infinity();
    double high = -low;
    std::visit(
        [&](const auto& samples) {
            const auto step = static_cast<size_t>(image.numChannels());
            for (size_t i = 0; i + step <= samples.size(); i += step) {
                for (int c = first; c <= last; ++c) {
                    const auto value = static_cast<double>(samples[i + static_cast<size_t>(c)]);
                    if (std::isfinite(value)) {
                        low = std::min(low, value);
                        high = std::max(high, value);
                    }
                }
            }
        },
        image.samples);
    if (low <= high) {
        m_display.minimum = static_cast<float>(low);
        m_display.maximum = static_cast<float>(high);
        QMetaObject::invokeMethod(this, &TextureView::displayChanged, Qt::QueuedConnection);
    }
}

/// Gives the overlay the values of the texels in sight, once they are large enough.
void TextureView::readTexelValues(Texture& texture)
{
    constexpr double smallestForText = 44.0;
    const double ratio = devicePixelRatioF();
    if (m_placement.scale / ratio < smallestForText) {
        m_overlay.setTexels({}, {});
        return;
    }
    const auto texel = [&](double pixel, double origin) {
        return static_cast<int>(std::floor((pixel - origin) / m_placement.scale));
    };
    const QRect sight(QPoint(texel(0.0, m_placement.origin.x()), texel(0.0, m_placement.origin.y())),
                      QPoint(texel(pixels().width(), m_placement.origin.x()),
                             texel(pixels().height(), m_placement.origin.y())));
    const QRect inside = sight & QRect(QPoint(0, 0), m_textureSize);
    const double side = m_placement.scale / ratio;
    const double top =
        (pixels().height() - m_placement.origin.y()) / ratio - (inside.y() + inside.height()) * side;
    m_overlay.setTexels(inside.isEmpty() ? Image()
                                         : readTexels(&texture, inside, m_display.level, m_display.layer),
                        {m_placement.origin.x() / ratio + inside.x() * side, top, inside.width() * side,
                         inside.height() * side});
}

QPointF TextureView::toFramebuffer(const QPointF& position) const
{
    const double ratio = devicePixelRatioF();
    return {position.x() * ratio, pixels().height() - position.y() * ratio};
}

QPoint TextureView::texelAt(const QPointF& position) const
{
    const QPointF texel = (toFramebuffer(position) - m_placement.origin) / m_placement.scale;
    return {static_cast<int>(std::floor(texel.x())), static_cast<int>(std::floor(texel.y()))};
}

} // namespace Morvane::Qel::Viewer
