#include "GLSurface.h"

#include <QCoreApplication>
#include <QEvent>

namespace Morvane::Qel::Viewer {

GLSurface::GLSurface()
{
    setFlag(Qt::WindowTransparentForInput);
    setFlag(Qt::WindowDoesNotAcceptFocus);
}

void GLSurface::requestPaint()
{
    update();
    // The toolkit lets some milliseconds pass before it paints a window. It may do so at once.
    QCoreApplication::postEvent(this, new QEvent(QEvent::UpdateRequest), Qt::LowEventPriority);
}

} // namespace Morvane::Qel::Viewer
