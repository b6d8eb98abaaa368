// Mouse and keys of the picture; see TextureView.h.

#include <QKeyEvent>
#include <QMouseEvent>
#include <QTimerEvent>
#include <QWheelEvent>

#include <algorithm>
#include <cmath>

#include "CameraMotion.h"
#include "GLSurface.h"
#include "TextureView.h"

namespace Morvane::Qel::Viewer {

namespace {

constexpr double smallestZoom = 1.0 / 64.0;
constexpr double largestZoom = 256.0;
constexpr int flightInterval = 16;

} // namespace

bool TextureView::isOnWipe(const QPointF& position) const
{
    constexpr double reach = 6.0;
    return m_comparison.with != ComparisonChoice::With::Nothing && !m_comparison.isDifference &&
           std::abs(position.x() - m_wipe * width()) < reach;
}

void TextureView::moveCamera(const CameraDescription& camera)
{
    if (m_session.graph()) {
        Q_EMIT cameraMoved(withPlanesFor(camera, m_session.fittedCamera()));
    }
}

void TextureView::mousePressEvent(QMouseEvent* event)
{
    m_lastPosition = event->position();
    const Qt::KeyboardModifiers modifiers = event->modifiers();
    if (event->button() == Qt::LeftButton && modifiers.testFlag(Qt::ControlModifier)) {
        const QPointF texel = (toFramebuffer(event->position()) - m_placement.origin) / m_placement.scale;
        Q_EMIT focusChosen({texel.x() / m_textureSize.width(), texel.y() / m_textureSize.height()});
        return;
    }
    switch (event->button()) {
    case Qt::LeftButton:
        m_drag = isOnWipe(event->position())             ? Drag::Wipe
                 : modifiers.testFlag(Qt::ShiftModifier) ? Drag::PanCamera
                 : modifiers.testFlag(Qt::AltModifier)   ? Drag::Look
                                                         : Drag::Orbit;
        break;
    case Qt::RightButton:
        m_drag = Drag::Dolly;
        break;
    case Qt::MiddleButton:
        m_drag = Drag::PanPicture;
        break;
    default:
        break;
    }
}

void TextureView::mouseMoveEvent(QMouseEvent* event)
{
    const QPointF position = event->position();
    const QPointF moved = position - std::exchange(m_lastPosition, position);
    const QPointF drag = moved / std::max(height(), 1);
    switch (m_drag) {
    case Drag::Orbit:
        moveCamera(orbit(m_session.camera(), drag));
        break;
    case Drag::Look:
        moveCamera(look(m_session.camera(), drag));
        break;
    case Drag::PanCamera:
        moveCamera(pan(m_session.camera(), drag));
        break;
    case Drag::Dolly:
        moveCamera(dolly(m_session.camera(), static_cast<float>(std::exp2(3.0 * drag.y()))));
        break;
    case Drag::PanPicture:
        if (!m_textureSize.isEmpty() && m_zoom > 0.0) {
            const QPointF way = moved * devicePixelRatioF() / m_placement.scale;
            m_center += QPointF(-way.x() / m_textureSize.width(), way.y() / m_textureSize.height());
            m_center = {std::clamp(m_center.x(), 0.0, 1.0), std::clamp(m_center.y(), 0.0, 1.0)};
            m_surface->requestPaint();
        }
        break;
    case Drag::Wipe:
        m_wipe = std::clamp(position.x() / std::max(width(), 1), 0.0, 1.0);
        m_surface->requestPaint();
        break;
    case Drag::None:
        setCursor(isOnWipe(position) ? Qt::SplitHCursor : Qt::ArrowCursor);
        m_surface->setCursor(cursor());
        break;
    }
    m_isHovered = true;
    Q_EMIT hovered(texelAt(position));
}

void TextureView::mouseReleaseEvent(QMouseEvent* event)
{
    if (event->buttons() == Qt::NoButton) {
        m_drag = Drag::None;
    }
}

void TextureView::mouseDoubleClickEvent(QMouseEvent* event)
{
    if (event->button() == Qt::MiddleButton) {
        setZoom(0.0);
    }
}

void TextureView::leaveEvent(QEvent* event)
{
    QWidget::leaveEvent(event);
    m_isHovered = false;
    Q_EMIT left();
}

void TextureView::wheelEvent(QWheelEvent* event)
{
    constexpr double notch = 120.0;
    const double notches = event->angleDelta().y() / notch;
    if (event->modifiers().testFlag(Qt::ControlModifier)) {
        moveCamera(dolly(m_session.camera(), static_cast<float>(std::exp2(-0.25 * notches))));
    } else {
        zoomAround(event->position(), std::exp2(0.5 * notches));
    }
    event->accept();
}

/// Multiplies the zoom and keeps what is under a position of the widget there.
void TextureView::zoomAround(const QPointF& position, double factor)
{
    if (m_textureSize.isEmpty()) {
        return;
    }
    const QPointF pixel = toFramebuffer(position);
    const QPointF texel = (pixel - m_placement.origin) / m_placement.scale;
    const double zoom = std::clamp(m_placement.scale * factor, smallestZoom, largestZoom);
    const QPointF middle(pixels().width() / 2.0, pixels().height() / 2.0);
    const QPointF center = texel + (middle - pixel) / zoom;
    m_center = {std::clamp(center.x() / m_textureSize.width(), 0.0, 1.0),
                std::clamp(center.y() / m_textureSize.height(), 0.0, 1.0)};
    m_zoom = zoom;
    m_surface->requestPaint();
}

/// What the mouse does, by the keyboard. Returns whether the key is one of these.
bool TextureView::moveByKey(const QKeyEvent& event)
{
    constexpr double step = 1.0 / 32.0;
    const auto drag = [&](double x, double y) {
        const CameraDescription camera = m_session.camera();
        moveCamera(event.modifiers().testFlag(Qt::ShiftModifier) ? pan(camera, {x, y})
                   : event.modifiers().testFlag(Qt::AltModifier) ? look(camera, {x, y})
                                                                 : orbit(camera, {x, y}));
    };
    const QPointF middle(width() / 2.0, height() / 2.0);
    switch (event.key()) {
    case Qt::Key_Left:
        drag(-step, 0.0);
        break;
    case Qt::Key_Right:
        drag(step, 0.0);
        break;
    case Qt::Key_Up:
        drag(0.0, -step);
        break;
    case Qt::Key_Down:
        drag(0.0, step);
        break;
    case Qt::Key_PageUp:
        moveCamera(dolly(m_session.camera(), static_cast<float>(std::exp2(-0.25))));
        break;
    case Qt::Key_PageDown:
        moveCamera(dolly(m_session.camera(), static_cast<float>(std::exp2(0.25))));
        break;
    case Qt::Key_Plus:
        zoomAround(middle, std::exp2(0.5));
        break;
    case Qt::Key_Minus:
        zoomAround(middle, std::exp2(-0.5));
        break;
    default:
        return false;
    }
    return true;
}

void TextureView::keyPressEvent(QKeyEvent* event)
{
    if (moveByKey(*event)) {
        return;
    }
    static const QSet<int> flightKeys{Qt::Key_W, Qt::Key_A, Qt::Key_S, Qt::Key_D, Qt::Key_Q, Qt::Key_E};
    if (!flightKeys.contains(event->key()) || event->modifiers().testFlag(Qt::ControlModifier)) {
        QWidget::keyPressEvent(event);
        return;
    }
    m_keys.insert(event->key());
    if (!m_flight.isActive()) {
        m_flight.start(flightInterval, this);
    }
}

void TextureView::keyReleaseEvent(QKeyEvent* event)
{
    if (event->isAutoRepeat()) {
        return;
    }
    m_keys.remove(event->key());
    if (m_keys.isEmpty()) {
        m_flight.stop();
    }
    QWidget::keyReleaseEvent(event);
}

void TextureView::focusOutEvent(QFocusEvent* event)
{
    m_keys.clear();
    m_flight.stop();
    QWidget::focusOutEvent(event);
}

void TextureView::timerEvent(QTimerEvent* event)
{
    if (event->timerId() != m_flight.timerId()) {
        QWidget::timerEvent(event);
        return;
    }
    const auto held = [&](int key) { return m_keys.contains(key) ? 1.0F : 0.0F; };
    constexpr float speed = 0.01F;
    moveCamera(fly(m_session.camera(),
                   speed * QVector3D(held(Qt::Key_D) - held(Qt::Key_A), held(Qt::Key_E) - held(Qt::Key_Q),
                                     held(Qt::Key_W) - held(Qt::Key_S))));
}

} // namespace Morvane::Qel::Viewer
