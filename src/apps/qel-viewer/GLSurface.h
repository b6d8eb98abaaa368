#pragma once

#include <QOpenGLWindow>

class QWidget;

namespace Morvane::Qel::Viewer {

/// A native window to draw into with OpenGL, as the content of a widget. The widget has the focus and gets
/// the events of the mouse and of drops.
///
/// A widget that draws with OpenGL itself is composed with all of its window again in each frame. On a
/// software rasteriser that takes 25 ms for a window of 1832x937 pixels, this window 1 ms.
class GLSurface : public QOpenGLWindow
{
    Q_OBJECT
public:
    explicit GLSurface(QWidget& widget);

    /// Paints once after the pending events, or when the window becomes visible.
    void requestPaint();

Q_SIGNALS:
    /// The context was created and is current.
    void created();
    /// The context is current. Every pixel must be painted.
    void paintNeeded();

protected:
    bool event(QEvent* event) override;
    void initializeGL() override { Q_EMIT created(); }
    void paintGL() override { Q_EMIT paintNeeded(); }

private:
    QWidget& m_widget;
};

} // namespace Morvane::Qel::Viewer
