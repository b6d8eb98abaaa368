#pragma once

#include <QWidget>

#include <functional>

#include <Qel/graph/GraphDescription.h>

class QDoubleSpinBox;

namespace Morvane::Qel::Viewer {

class GraphSession;

/// The camera in numbers, and views along the axes.
class CameraPanel : public QWidget
{
    Q_OBJECT
public:
    explicit CameraPanel(GraphSession& session, QWidget* parent = nullptr);

    /// \name Commands
    /// @{
    void fit();
    void useGraphCamera();
    void copy() const;
    void paste();
    /// @}

Q_SIGNALS:
    /// The camera is to be written into the graph.
    void storeRequested();
    void failed(const QString& error);

private:
    void update();
    void apply();

    GraphSession& m_session;
    /// Eye, target, up, field of view, near and far.
    QList<QDoubleSpinBox*> m_boxes;
};

} // namespace Morvane::Qel::Viewer
