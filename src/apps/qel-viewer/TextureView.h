#pragma once

#include <QBasicTimer>
#include <QSet>
#include <QWidget>

#include <functional>

#include <Qel/gl/Image.h>

#include "DisplaySettings.h"
#include "GraphSession.h"
#include "TexelOverlay.h"
#include "TexturePainter.h"

namespace Morvane::Qel::Viewer {

class GLSurface;

/// What the shown texture is compared with.
struct ComparisonChoice
{
    enum class With : int
    {
        Nothing,
        Snapshot,
        Output,
    };
    With with = With::Nothing;
    OutputName output;
    bool isDifference = false;
};

/// Shows an output of the graph that runs, and owns the context in which it runs. Mouse and keys move the
/// camera and the picture.
class TextureView : public QWidget
{
    Q_OBJECT
public:
    /// Makes the OpenGL that the view needs the default of all windows; call it before the application is
    /// created.
    static void setDefaultFormat();

    explicit TextureView(GraphSession& session, QWidget* parent = nullptr);
    ~TextureView() override;

    const OutputName& shown() const { return m_shown; }
    /// Shows another output, with settings that suit it if they were not chosen before.
    void show(const OutputName& name);
    using QWidget::show;
    const DisplaySettings& display() const { return m_display; }
    void setDisplay(const DisplaySettings& display);

    /// Whether frames are rendered in the size of this widget rather than in that of the graph.
    void setFollowsWindow(bool follows);
    bool followsWindow() const { return m_followsWindow; }
    /// Pixels per texel; 0 fits the texture into the widget.
    void setZoom(double zoom);
    bool isFitting() const { return m_zoom == 0.0; }
    /// Pixels per texel in use.
    double scale() const { return m_placement.scale; }
    /// Whether frames are rendered one after the other, although nothing changes.
    void setContinuous(bool isContinuous);

    const ComparisonChoice& comparison() const { return m_comparison; }
    void setComparison(const ComparisonChoice& comparison);
    /// Keeps the values of the shown texture for comparisons.
    void takeSnapshot();
    bool hasSnapshot() const { return m_snapshot.width > 0; }
    /// The two images that a comparison shows; empty if there is none.
    std::vector<Image> comparedImages();

    /// The shown texture as it is in memory; without pixels if there is none.
    Image shownImage();
    /// The texel under a position of this widget, from the lower left; outside of the texture too.
    QPoint texelAt(const QPointF& position) const;
    /// The size of the shown mip level.
    QSize textureSize() const { return m_textureSize; }
    /// Calls a function with the context current; does nothing before the widget is shown.
    void withContext(const std::function<void()>& call);
    TexturePainter& painter() { return m_painter; }
    const TexelOverlay& overlay() const { return m_overlay; }

Q_SIGNALS:
    void cameraMoved(const CameraDescription& camera);
    void displayChanged();
    void zoomChanged();
    /// The mouse is over a texel, from the lower left. Sent when either moves, and with each frame.
    void hovered(const QPoint& texel);
    void left();
    /// A click that chooses what is in focus, from 0 to 1 with the origin at the lower left.
    void focusChosen(const QPointF& position);
    /// A frame or another texture is on the screen.
    void shownChanged();

protected:
    void mousePressEvent(QMouseEvent* event) override;
    void mouseMoveEvent(QMouseEvent* event) override;
    void mouseReleaseEvent(QMouseEvent* event) override;
    void mouseDoubleClickEvent(QMouseEvent* event) override;
    void leaveEvent(QEvent* event) override;
    void wheelEvent(QWheelEvent* event) override;
    void keyPressEvent(QKeyEvent* event) override;
    void keyReleaseEvent(QKeyEvent* event) override;
    void focusOutEvent(QFocusEvent* event) override;
    void timerEvent(QTimerEvent* event) override;
    void resizeEvent(QResizeEvent* event) override;
    void changeEvent(QEvent* event) override;

private:
    void paintPicture();
    void paintTexture(Texture& texture);
    void paintOverlay();
    QColor backgroundColor() const;
    QSize pixels() const;
    void place(const QSize& texture);
    void zoomAround(const QPointF& position, double factor);
    void updateRange(Texture& texture);
    void readTexelValues(Texture& texture);
    bool moveByKey(const QKeyEvent& event);
    void moveCamera(const CameraDescription& camera);
    bool isOnWipe(const QPointF& position) const;
    QPointF toFramebuffer(const QPointF& position) const;

    GraphSession& m_session;
    GLSurface* m_surface;
    TexturePainter m_painter;
    TexelOverlay m_overlay;
    std::unique_ptr<Texture> m_overlayTexture;
    OutputName m_shown;
    DisplaySettings m_display;
    QHash<QString, DisplaySettings> m_displays;
    bool m_isDisplayChosen = true;

    bool m_followsWindow = true;
    double m_zoom = 0.0;
    /// The texel position, from 0 to 1, in the middle of the widget, when zoomed.
    QPointF m_center{0.5, 0.5};
    Placement m_placement;
    QSize m_textureSize;
    quint64 m_rangeFrame = 0;

    ComparisonChoice m_comparison;
    Image m_snapshot;
    std::unique_ptr<Texture> m_snapshotTexture;
    /// From 0 to 1 across the widget.
    double m_wipe = 0.5;

    enum class Drag
    {
        None,
        Orbit,
        Look,
        PanCamera,
        Dolly,
        PanPicture,
        Wipe,
    };
    Drag m_drag = Drag::None;
    QPointF m_lastPosition;
    bool m_isHovered = false;
    QSet<int> m_keys;
    QBasicTimer m_flight;
    bool m_isContinuous = false;
};

} // namespace Morvane::Qel::Viewer
