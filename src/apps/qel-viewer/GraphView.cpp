#include "GraphView.h"

#include <QContextMenuEvent>
#include <QKeyEvent>
#include <QMenu>
#include <QMouseEvent>
#include <QWheelEvent>

#include <algorithm>
#include <cmath>
#include <map>
#include <utility>

#include <Qel/graph/GraphPlan.h>
#include <Qel/graph/PassRegistry.h>

#include "Document.h"
#include "GraphEdits.h"
#include "OutputStore.h"
#include "PassItem.h"

using namespace Qt::StringLiterals;

namespace Morvane::Qel::Viewer {

namespace {

constexpr double columnWidth = 290.0;
constexpr double gap = 26.0;

/// Passes in running order, the culled ones last, with their columns: a pass stands right of its sources.
struct Layout
{
    std::vector<int> order;
    std::vector<int> columns;
};

Layout layoutOf(const GraphPlan& plan)
{
    Layout layout;
    layout.order = plan.order;
    layout.columns.resize(plan.passes.size());
    for (size_t i = 0; i < plan.passes.size(); ++i) {
        if (!plan.passes[i].cullReason.isEmpty()) {
            layout.order.push_back(static_cast<int>(i));
        }
    }
    for (const int index : layout.order) {
        int column = 0;
        for (const PlannedInput& input : plan.passes[static_cast<size_t>(index)].inputs) {
            if (input.source == InputSource::Connection) {
                column = std::max(column, layout.columns[static_cast<size_t>(input.pass)] + 1);
            }
        }
        layout.columns[static_cast<size_t>(index)] = column;
    }
    return layout;
}

} // namespace

GraphView::GraphView(Document& document, OutputStore& store, QWidget* parent)
    : QGraphicsView(parent)
    , m_document(document)
    , m_store(store)
{
    setObjectName(u"graph"_s);
    setScene(new QGraphicsScene(this));
    setDragMode(ScrollHandDrag);
    setTransformationAnchor(AnchorUnderMouse);
    setMinimumHeight(120);
    setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    setVerticalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    connect(&document, &Document::changed, this, [this] {
        m_isStale = true;
        if (isVisible()) {
            rebuild();
        }
    });
    connect(&document, &Document::opened, this, [this] { m_isFitting = true; });
    connect(&store, &OutputStore::updated, this, &GraphView::updateThumbnails);
}

void GraphView::showEvent(QShowEvent* event)
{
    QGraphicsView::showEvent(event);
    if (m_isStale) {
        rebuild();
    }
}

void GraphView::resizeEvent(QResizeEvent* event)
{
    QGraphicsView::resizeEvent(event);
    fitScene();
}

void GraphView::fitScene()
{
    constexpr double largest = 1.0;
    fitInView(scene()->itemsBoundingRect().adjusted(-20, -20, 20, 20), Qt::KeepAspectRatio);
    if (transform().m11() > largest) {
        resetTransform();
    }
}

void GraphView::rebuild()
{
    m_newWire = nullptr;
    scene()->clear();
    if (!m_document.isOpen()) {
        return;
    }
    QStringList errors;
    const std::optional<GraphPlan> plan = planGraph(m_document.graph(), PassRegistry::builtin(), &errors);
    if (!plan) {
        scene()->addText(errors.join(u'\n'));
        return;
    }
    m_isStale = false;
    const Layout layout = layoutOf(*plan);
    std::map<int, double> heights;
    std::vector<PassItem*> items(plan->passes.size());
    int number = 0;
    for (const int index : layout.order) {
        const auto i = static_cast<size_t>(index);
        auto* item = new PassItem(m_document.graph().passes[i], ++number, plan->passes[i].cullReason);
        scene()->addItem(item);
        double& height = heights[layout.columns[i]];
        item->setPos(layout.columns[i] * columnWidth, height);
        height += item->boundingRect().height() + gap;
        items[i] = item;
    }
    for (size_t i = 0; i < plan->passes.size(); ++i) {
        for (const PlannedInput& input : plan->passes[i].inputs) {
            if (input.source == InputSource::Connection) {
                const auto source = static_cast<size_t>(input.pass);
                const QPointF from = items[source]->outputPoint(plan->passes[source].outputs[input.output]);
                scene()->addItem(
                    new WireItem(from, items[i]->inputPoint(input.port), items[i]->name(), input.port));
            }
        }
    }
    scene()->setSceneRect(scene()->itemsBoundingRect().adjusted(-200, -200, 200, 200));
    updateThumbnails();
    if (std::exchange(m_isFitting, false)) {
        fitScene();
    }
}

std::vector<PassItem*> GraphView::passItems() const
{
    std::vector<PassItem*> passes;
    const QList<QGraphicsItem*> all = scene()->items();
    for (QGraphicsItem* item : all) {
        if (auto* pass = qgraphicsitem_cast<PassItem*>(item)) {
            passes.push_back(pass);
        }
    }
    return passes;
}

void GraphView::updateThumbnails()
{
    if (!isVisible()) {
        return;
    }
    for (PassItem* item : passItems()) {
        const auto found =
            std::find_if(m_store.outputs().begin(), m_store.outputs().end(),
                         [&](const auto& info) { return info.name.pass == item->name() && info.isTexture; });
        item->setThumbnail(found == m_store.outputs().end() ? QImage() : found->thumbnail);
    }
    viewport()->update();
}

void GraphView::setTimes(const std::function<double(const QString&)>& timeOf)
{
    for (PassItem* item : passItems()) {
        const double time = timeOf(item->name());
        item->setTime(std::isnan(time) ? QString() : u"%1 ms"_s.arg(time, 0, 'f', 2));
    }
    viewport()->update();
}

bool GraphView::tryEdit(const QString& text, const std::function<void(GraphDescription&)>& change)
{
    GraphDescription graph = m_document.graph();
    change(graph);
    QStringList errors;
    if (!planGraph(graph, PassRegistry::builtin(), &errors)) {
        Q_EMIT rejected(errors);
        return false;
    }
    m_document.edit(text, [&](GraphDescription& current) { current = graph; });
    return true;
}

bool GraphView::addPass(const QString& type)
{
    return tryEdit(tr("New pass %1").arg(type),
                   [&](GraphDescription& graph) { Viewer::addPass(graph, type); });
}

bool GraphView::connectPorts(const QString& fromPass, const QString& output, const QString& toPass,
                             const QString& input)
{
    return tryEdit(tr("Connection to %1").arg(toPass), [&](GraphDescription& graph) {
        Viewer::connectPorts(graph, fromPass, output, toPass, input);
    });
}

bool GraphView::removePass(const QString& name)
{
    return tryEdit(tr("Removal of %1").arg(name),
                   [&](GraphDescription& graph) { Viewer::removePass(graph, name); });
}

bool GraphView::movePass(const QString& name, int places)
{
    return tryEdit(tr("Move of %1").arg(name),
                   [&](GraphDescription& graph) { Viewer::movePass(graph, name, places); });
}

bool GraphView::setOutput(const OutputName& output)
{
    return tryEdit(tr("Output of the graph"), [&](GraphDescription& graph) {
        const PassSetting* pass = findPass(graph, output.pass);
        QStringList ports;
        for (const OutputDescription& port :
             pass ? portsOf(*pass).outputs : std::vector<OutputDescription>()) {
            ports.append(port.name);
        }
        graph.output = u"@%1.%2"_s.arg(output.pass, shortestName(output.port, ports));
    });
}

bool GraphView::removeSelected()
{
    const QList<QGraphicsItem*> selected = scene()->selectedItems();
    if (selected.isEmpty()) {
        return false;
    }
    return tryEdit(tr("Removal"), [&](GraphDescription& graph) {
        for (QGraphicsItem* item : selected) {
            if (const auto* wire = qgraphicsitem_cast<WireItem*>(item)) {
                if (PassSetting* pass = findPass(graph, wire->toPass)) {
                    resetInput(*pass, wire->input);
                }
            } else if (const auto* pass = qgraphicsitem_cast<PassItem*>(item)) {
                Viewer::removePass(graph, pass->name());
            }
        }
    });
}

PassItem* GraphView::passAt(const QPointF& point) const
{
    // Ports reach a little beyond their box.
    constexpr double reach = 8.0;
    const QList<QGraphicsItem*> items =
        scene()->items(QRectF(point, QSizeF()).adjusted(-reach, -reach, reach, reach));
    for (QGraphicsItem* item : items) {
        if (auto* pass = qgraphicsitem_cast<PassItem*>(item)) {
            return pass;
        }
    }
    return nullptr;
}

void GraphView::mousePressEvent(QMouseEvent* event)
{
    const QPointF point = mapToScene(event->position().toPoint());
    PassItem* pass = passAt(point);
    const QString port = pass ? pass->outputAt(point) : QString();
    if (pass && event->button() == Qt::LeftButton && !port.isEmpty()) {
        m_fromPass = pass->name();
        m_fromPort = port;
        delete m_newWire;
        m_newWire = scene()->addPath(WireItem::curve(pass->outputPoint(port), point),
                                     QPen(palette().color(QPalette::Highlight), 2.0, Qt::DashLine));
        return;
    }
    QGraphicsView::mousePressEvent(event);
    if (pass && event->button() == Qt::LeftButton) {
        Q_EMIT passChosen(pass->name());
    }
}

void GraphView::mouseMoveEvent(QMouseEvent* event)
{
    if (!m_newWire) {
        QGraphicsView::mouseMoveEvent(event);
        return;
    }
    m_newWire->setPath(
        WireItem::curve(m_newWire->path().elementAt(0), mapToScene(event->position().toPoint())));
}

void GraphView::mouseReleaseEvent(QMouseEvent* event)
{
    if (!m_newWire) {
        QGraphicsView::mouseReleaseEvent(event);
        return;
    }
    delete m_newWire;
    m_newWire = nullptr;
    const QPointF point = mapToScene(event->position().toPoint());
    const PassItem* pass = passAt(point);
    if (!pass) {
        return;
    }
    const QString input = pass->inputAt(point);
    if (!input.isEmpty()) {
        connectPorts(m_fromPass, m_fromPort, pass->name(), input);
    } else if (pass->name() == m_fromPass && pass->outputAt(point) == m_fromPort) {
        Q_EMIT outputChosen({m_fromPass, m_fromPort});
    }
}

void GraphView::keyPressEvent(QKeyEvent* event)
{
    if (event->key() == Qt::Key_Delete || event->key() == Qt::Key_Backspace) {
        removeSelected();
    } else {
        QGraphicsView::keyPressEvent(event);
    }
}

void GraphView::wheelEvent(QWheelEvent* event)
{
    const double factor = std::exp2(event->angleDelta().y() / 480.0);
    if (const double scaled = transform().m11() * factor; scaled > 0.05 && scaled < 4.0) {
        scale(factor, factor);
    }
    event->accept();
}

void GraphView::contextMenuEvent(QContextMenuEvent* event)
{
    const QPointF point = mapToScene(event->pos());
    auto* menu = new QMenu(this);
    menu->setAttribute(Qt::WA_DeleteOnClose);
    if (const PassItem* pass = passAt(point)) {
        const QString name = pass->name();
        menu->addAction(tr("Remove %1").arg(name), this, [this, name] { removePass(name); });
        menu->addAction(tr("Earlier in the file"), this, [this, name] { movePass(name, -1); });
        menu->addAction(tr("Later in the file"), this, [this, name] { movePass(name, 1); });
        if (const QString port = pass->outputAt(point); !port.isEmpty()) {
            menu->addAction(tr("Make this the output of the graph"), this, [this, name, port] {
                setOutput({name, port});
            });
        }
        menu->addSeparator();
    }
    QMenu* types = menu->addMenu(tr("Add a pass"));
    for (const QString& type : PassRegistry::builtin().types()) {
        QAction* action = types->addAction(type, this, [this, type] { addPass(type); });
        action->setToolTip(PassRegistry::builtin().description(type)->summary);
    }
    types->setToolTipsVisible(true);
    menu->popup(event->globalPos());
}

} // namespace Morvane::Qel::Viewer
