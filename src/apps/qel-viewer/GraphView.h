#pragma once

#include <QGraphicsView>

#include <functional>

#include <Qel/graph/GraphDescription.h>

#include "GraphSession.h"

class QMenu;

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
    GraphView(Document& document, GraphSession& session, OutputStore& store, QWidget* parent = nullptr);

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
    bool disconnectInput(const QString& pass, const QString& input);
    bool setOutput(const OutputName& output);
    /// @}

    /// The selected pass; empty if none is.
    QString selectedPass() const;
    void select(const QString& pass);

Q_SIGNALS:
    void passChosen(const QString& pass);
    void outputChosen(const OutputName& output);
    /// A pass is to be left out of the running graph, or to run again.
    void switched(const QString& pass);
    /// A change was not made, for these reasons.
    void rejected(const QStringList& errors);

protected:
    void mousePressEvent(QMouseEvent* event) override;
    void mouseMoveEvent(QMouseEvent* event) override;
    void mouseReleaseEvent(QMouseEvent* event) override;
    void keyPressEvent(QKeyEvent* event) override;
    void wheelEvent(QWheelEvent* event) override;
    void focusInEvent(QFocusEvent* event) override;
    void contextMenuEvent(QContextMenuEvent* event) override;
    void showEvent(QShowEvent* event) override;
    void resizeEvent(QResizeEvent* event) override;

private:
    bool tryEdit(const QString& text, const std::function<void(GraphDescription&)>& change);
    void rebuild();
    void updateThumbnails();
    void fitScene();
    void updateSwitches();
    std::vector<PassItem*> passItems() const;
    PassItem* passAt(const QPointF& point) const;
    PassItem* passItem(const QString& name) const;
    PassItem* nearest(const QPointF& direction) const;
    void select(const PassItem* item);
    void scaleBy(double factor);
    bool pressKey(const QKeyEvent& event);
    QMenu* makeMenu();
    void fillInputs(QMenu* menu, const QString& pass);
    void fillTypes(QMenu* menu);
    void fillPass(QMenu* menu, const QString& pass);
    QPoint selectedPlace() const;

    Document& m_document;
    GraphSession& m_session;
    OutputStore& m_store;
    bool m_isStale = true;
    bool m_isFitting = true;
    QGraphicsPathItem* m_newWire = nullptr;
    QString m_fromPass;
    QString m_fromPort;
};

} // namespace Morvane::Qel::Viewer
