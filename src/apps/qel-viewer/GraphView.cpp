#include "GraphView.h"

#include <QMouseEvent>

#include <algorithm>
#include <cmath>
#include <limits>
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

/// Passes in running order, the culled ones last, with their columns: a pass stands left of the first that
/// reads it.
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
    // As far right as its readers allow, so that few wires run behind other passes.
    std::vector<int> nearest(plan.passes.size(), std::numeric_limits<int>::max());
    for (auto index = layout.order.rbegin(); index != layout.order.rend(); ++index) {
        const auto i = static_cast<size_t>(*index);
        if (nearest[i] != std::numeric_limits<int>::max()) {
            layout.columns[i] = nearest[i] - 1;
        }
        for (const PlannedInput& input : plan.passes[i].inputs) {
            if (input.source == InputSource::Connection) {
                int& column = nearest[static_cast<size_t>(input.pass)];
                column = std::min(column, layout.columns[i]);
            }
        }
    }
    return layout;
}

} // namespace

GraphView::GraphView(Document& document, GraphSession& session, OutputStore& store, QWidget* parent)
    : QGraphicsView(parent)
    , m_document(document)
    , m_session(session)
    , m_store(store)
{
    setObjectName(u"graph"_s);
    setScene(new QGraphicsScene(this));
    setDragMode(ScrollHandDrag);
    // Files that are dropped here are the window's; the scene would refuse them.
    setAcceptDrops(false);
    setTransformationAnchor(AnchorUnderMouse);
    setMinimumHeight(120);
    setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    setVerticalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    connect(&document, &Document::changed, this, [this] {
        m_isStale = true;
        if (isVisible()) {
            rebuild();
        } else {
            // No box may stand for a pass that is gone.
            m_newWire = nullptr;
            scene()->clear();
        }
    });
    connect(&document, &Document::opened, this, [this] { m_isFitting = true; });
    connect(&session, &GraphSession::graphReplaced, this, &GraphView::updateSwitches, Qt::QueuedConnection);
    connect(&store, &OutputStore::updated, this, &GraphView::updateThumbnails);
}

void GraphView::showEvent(QShowEvent* event)
{
    QGraphicsView::showEvent(event);
    if (m_isStale) {
        rebuild();
    }
    updateThumbnails();
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
    const QString selected = selectedPass();
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
                scene()->addItem(new WireItem(*items[source], plan->passes[source].outputs[input.output],
                                              *items[i], input.port));
            }
        }
    }
    scene()->setSceneRect(scene()->itemsBoundingRect().adjusted(-200, -200, 200, 200));
    if (PassItem* item = passItem(selected)) {
        item->setSelected(true);
    }
    updateSwitches();
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
}

void GraphView::updateSwitches()
{
    for (PassItem* item : passItems()) {
        item->setOff(m_session.bypassed().contains(item->name()));
    }
}

PassItem* GraphView::passItem(const QString& name) const
{
    const std::vector<PassItem*> items = passItems();
    const auto found =
        std::find_if(items.begin(), items.end(), [&](const PassItem* item) { return item->name() == name; });
    return found == items.end() ? nullptr : *found;
}

void GraphView::setTimes(const std::function<double(const QString&)>& timeOf)
{
    for (PassItem* item : passItems()) {
        const double time = timeOf(item->name());
        item->setTime(std::isnan(time) ? QString() : u"%1 ms"_s.arg(time, 0, 'f', 2));
    }
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
    QString name;
    const bool good = tryEdit(tr("New pass %1").arg(type),
                              [&](GraphDescription& graph) { name = Viewer::addPass(graph, type); });
    select(name);
    return good;
}

bool GraphView::connectPorts(const QString& fromPass, const QString& output, const QString& toPass,
                             const QString& input)
{
    return tryEdit(tr("Connection to %1").arg(toPass), [&](GraphDescription& graph) {
        Viewer::connectPorts(graph, fromPass, output, toPass, input);
    });
}

bool GraphView::disconnectInput(const QString& pass, const QString& input)
{
    return tryEdit(tr("Disconnection of %1").arg(pass), [&](GraphDescription& graph) {
        // A menu may be open while the pass is removed from the file.
        if (PassSetting* setting = findPass(graph, pass)) {
            resetInput(*setting, input);
        }
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
    // The keyboard goes on from where the passes were.
    const PassItem* left = nearest({-1.0, 0.0});
    const PassItem* next = left ? left : nearest({1.0, 0.0});
    const QString nextName = next && !selectedPass().isEmpty() ? next->name() : QString();
    const bool good = tryEdit(tr("Removal"), [&](GraphDescription& graph) {
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
    if (good) {
        select(nextName);
    }
    return good;
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

} // namespace Morvane::Qel::Viewer
