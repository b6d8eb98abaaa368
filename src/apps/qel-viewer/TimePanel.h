#pragma once

#include <QElapsedTimer>
#include <QHash>
#include <QTimer>
#include <QWidget>

#include <deque>

class QTreeWidget;
class QTreeWidgetItem;

namespace Morvane::Qel::Viewer {

class Document;
class GraphSession;
class OutputStore;
class SteadyLabel;
class TextureView;
class TimePlot;

/// The time of each pass, and switches that leave passes out.
class TimePanel : public QWidget
{
    Q_OBJECT
public:
    TimePanel(GraphSession& session, Document& document, OutputStore& store, TextureView& view,
              QWidget* parent = nullptr);

    /// The latest time of a pass in milliseconds, on the GPU if it can be measured; NaN before it is known.
    double timeOf(const QString& pass) const;

    /// Leaves a pass out, or takes it in again. Returns false if it cannot be left out.
    bool toggle(const QString& pass);

Q_SIGNALS:
    void updated();

protected:
    void showEvent(QShowEvent* event) override;

private:
    struct Times
    {
        double gpu;
        double cpu;
    };

    void addFrame();
    void schedule();
    void rebuild();
    void update();
    void switchPass(QTreeWidgetItem* item);

    GraphSession& m_session;
    Document& m_document;
    OutputStore& m_store;
    TextureView& m_view;
    QTreeWidget* m_table;
    TimePlot* m_plot;
    quint64 m_plottedFrame = 0;
    SteadyLabel* m_summary;
    QTimer m_timer;
    /// When the frames of the last second were rendered, in milliseconds.
    QElapsedTimer m_clock;
    std::deque<qint64> m_frameTimes;
    /// By pass; those of passes that are left out are kept.
    QHash<QString, Times> m_times;
    /// The time of the frame before the last switch; NaN if there was none.
    double m_timeBefore;
    double m_frameTime;
    QString m_switched;
};

} // namespace Morvane::Qel::Viewer
