#pragma once

#include <QGraphicsView>

#include <functional>

#include <Qel/graph/GraphDescription.h>

#include "GraphSession.h"

namespace Morvane::Qel::Viewer {

class Document;
class OutputStore;
class PassItem;

/// The graph as boxes and wires in running order, where passes are added, connected and removed. A change
/// that the graph does not allow is not made.
class GraphView : public QGraphicsView
{
    Q_OBJECT
public:
    GraphView(Document& document, OutputStore& store, QWidget* parent = nullptr);

    /// Writes the time of every pass into its box.
    void setTimes(const std::function<double(const QString&)>& timeOf);

    /// \name Commands
    /// Checked: each returns whether the graph allowed it.
    /// @{
    bool addPass(const QString& type);
    bool connectPorts(const QString& fromPass, const QString& output, const QString& toPass,
                      const QString& input);
    bool removeSelected();
    bool removePass(const QString& name);
    bool movePass(const QString& name, int places);
    bool setOutput(const OutputName& output);
    /// @}

Q_SIGNALS:
    void passChosen(const QString& pass);
    void outputChosen(const OutputName& output);
    /// A change was not made, for these reasons.
    void rejected(const QStringList& errors);

protected:
    void mousePressEvent(QMouseEvent* event) override;
    void mouseMoveEvent(QMouseEvent* event) override;
    void mouseReleaseEvent(QMouseEvent* event) override;
    void keyPressEvent(QKeyEvent* event) override;
    void wheelEvent(QWheelEvent* event) override;
    void contextMenuEvent(QContextMenuEvent* event) override;
    void showEvent(QShowEvent* event) override;
    void resizeEvent(QResizeEvent* event) override;

private:
    bool tryEdit(const QString& text, const std::function<void(GraphDescription&)>& change);
    void rebuild();
    void updateThumbnails();
    void fitScene();
    std::vector<PassItem*> passItems() const;
    PassItem* passAt(const QPointF& point) const;

    Document& m_document;
    OutputStore& m_store;
    bool m_isStale = true;
    bool m_isFitting = true;
    QGraphicsPathItem* m_newWire = nullptr;
    QString m_fromPass;
    QString m_fromPort;
};

} // namespace Morvane::Qel::Viewer
