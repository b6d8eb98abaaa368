#include "GLSurface.h"

#include <QCoreApplication>
#include <QEvent>
#include <QWidget>

namespace Morvane::Qel::Viewer {

GLSurface::GLSurface(QWidget& widget)
    : m_widget(widget)
{
    setFlag(Qt::WindowDoesNotAcceptFocus);
}

void GLSurface::requestPaint()
{
    update();
    // The toolkit lets some milliseconds pass before it paints a window. It may do so at once.
    QCoreApplication::postEvent(this, new QEvent(QEvent::UpdateRequest), Qt::LowEventPriority);
}

bool GLSurface::event(QEvent* event)
{
    switch (event->type()) {
    case QEvent::MouseButtonPress:
    case QEvent::MouseButtonRelease:
    case QEvent::MouseButtonDblClick:
    case QEvent::MouseMove:
    case QEvent::Wheel:
    case QEvent::Leave:
    case QEvent::DragEnter:
    case QEvent::DragMove:
    case QEvent::DragLeave:
    case QEvent::Drop:
        return QCoreApplication::sendEvent(&m_widget, event);
    default:
        return QOpenGLWindow::event(event);
    }
}

} // namespace Morvane::Qel::Viewer
