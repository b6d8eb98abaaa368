#pragma once

#include <QElapsedTimer>
#include <QTimer>
#include <QWidget>

#include <Qel/graph/GraphDescription.h>

class QLabel;
class QSlider;
class QSpinBox;
class QToolButton;

namespace Morvane::Qel::Viewer {

class Document;
class GraphSession;

/// Plays the animation of the graph and chooses a frame of it. Hidden for a graph without an animation.
class TimeLine : public QWidget
{
    Q_OBJECT
public:
    TimeLine(GraphSession& session, Document& document, QWidget* parent = nullptr);

    bool isPlaying() const { return m_isPlaying; }
    void setPlaying(bool isPlaying);
    /// Shows a frame, within the animation, and stops.
    void goTo(int frame);
    void step(int frames);

private:
    void update();
    void showFrame();
    void scheduleNext();
    void playNext();

    GraphSession& m_session;
    Document& m_document;
    QToolButton* m_play;
    QToolButton* m_loop;
    QSlider* m_slider;
    QSpinBox* m_number;
    QLabel* m_label;
    bool m_isPlaying = false;
    int m_last = -1;
    float m_fps = 0.0F;
    /// Runs until the next frame is due.
    QTimer m_timer;
    /// Since the frame that is on the screen was asked for.
    QElapsedTimer m_age;
};

/// The number of the last frame of a graph: of its animation or, without one, of its keys; -1 for a graph
/// with neither.
int lastFrame(const GraphDescription& graph);

} // namespace Morvane::Qel::Viewer
