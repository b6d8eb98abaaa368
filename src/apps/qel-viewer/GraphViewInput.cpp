// Keys, wheel and menus of the boxes; see GraphView.h.

#include <QContextMenuEvent>
#include <QFocusEvent>
#include <QKeyEvent>
#include <QMenu>
#include <QWheelEvent>

#include <algorithm>
#include <cmath>
#include <limits>

#include <Qel/graph/PassRegistry.h>

#include "Document.h"
#include "GraphEdits.h"
#include "GraphView.h"
#include "PassItem.h"

using namespace Qt::StringLiterals;

namespace Morvane::Qel::Viewer {

QString GraphView::selectedPass() const
{
    const QList<QGraphicsItem*> selected = scene()->selectedItems();
    for (const QGraphicsItem* item : selected) {
        if (const auto* pass = qgraphicsitem_cast<const PassItem*>(item)) {
            return pass->name();
        }
    }
    return {};
}

void GraphView::select(const QString& pass)
{
    if (PassItem* item = passItem(pass)) {
        constexpr int margin = 10;
        scene()->clearSelection();
        item->setSelected(true);
        ensureVisible(item, margin, margin);
        Q_EMIT passChosen(pass);
    }
}

void GraphView::focusInEvent(QFocusEvent* event)
{
    QGraphicsView::focusInEvent(event);
    if (event->reason() != Qt::MouseFocusReason && scene()->selectedItems().isEmpty()) {
        select(nearest({1.0, 0.0}));
    }
}

/// The nearest pass in a direction from the selected one: to the left and right one that is connected with
/// it, if there is one. Null if there is none; the last pass if none is selected.
PassItem* GraphView::nearest(const QPointF& direction) const
{
    const std::vector<PassItem*> items = passItems();
    const PassItem* from = passItem(selectedPass());
    if (!from) {
        return items.empty() ? nullptr : items.front();
    }
    QSet<QString> connected;
    const QList<QGraphicsItem*> all = scene()->items();
    for (const QGraphicsItem* item : all) {
        const auto* wire = qgraphicsitem_cast<const WireItem*>(item);
        if (wire && direction.x() != 0.0 &&
            (wire->fromPass == from->name() || wire->toPass == from->name())) {
            connected += {wire->fromPass, wire->toPass};
        }
    }
    PassItem* best = nullptr;
    double least = std::numeric_limits<double>::infinity();
    for (PassItem* item : items) {
        const QPointF way = item->pos() - from->pos();
        const double along = QPointF::dotProduct(way, direction);
        const double across = std::abs(way.x() * direction.y() - way.y() * direction.x());
        constexpr double acrossCost = 4.0;
        constexpr double unconnectedCost = 1e6;
        const double cost =
            along + acrossCost * across + (connected.contains(item->name()) ? 0.0 : unconnectedCost);
        if (along > 0.0 && cost < least) {
            best = item;
            least = cost;
        }
    }
    return best;
}

void GraphView::select(const PassItem* item)
{
    if (item) {
        select(item->name());
    }
}

/// Returns whether the key is one of the boxes'.
bool GraphView::pressKey(const QKeyEvent& event)
{
    const QString pass = selectedPass();
    const auto arrow = [&](double x, double y) {
        if (event.modifiers().testFlag(Qt::AltModifier)) {
            movePass(pass, x + y > 0.0 ? 1 : -1);
        } else {
            select(nearest({x, y}));
        }
    };
    switch (event.key()) {
    case Qt::Key_Left:
        arrow(-1.0, 0.0);
        break;
    case Qt::Key_Right:
        arrow(1.0, 0.0);
        break;
    case Qt::Key_Up:
        arrow(0.0, -1.0);
        break;
    case Qt::Key_Down:
        arrow(0.0, 1.0);
        break;
    case Qt::Key_Return:
    case Qt::Key_Enter:
        if (!pass.isEmpty()) {
            QMenu* menu = makeMenu();
            fillInputs(menu, pass);
            menu->popup(selectedPlace());
        }
        break;
    case Qt::Key_Insert: {
        QMenu* menu = makeMenu();
        fillTypes(menu);
        menu->popup(selectedPlace());
        break;
    }
    case Qt::Key_Space:
        Q_EMIT switched(pass);
        break;
    case Qt::Key_Delete:
    case Qt::Key_Backspace:
        removeSelected();
        break;
    case Qt::Key_Plus:
        scaleBy(std::sqrt(2.0));
        break;
    case Qt::Key_Minus:
        scaleBy(std::sqrt(0.5));
        break;
    default:
        return false;
    }
    return true;
}

void GraphView::keyPressEvent(QKeyEvent* event)
{
    if (!pressKey(*event)) {
        QGraphicsView::keyPressEvent(event);
    }
}

void GraphView::wheelEvent(QWheelEvent* event)
{
    scaleBy(std::exp2(event->angleDelta().y() / 480.0));
    event->accept();
}

void GraphView::scaleBy(double factor)
{
    if (const double scaled = transform().m11() * factor; scaled > 0.05 && scaled < 4.0) {
        scale(factor, factor);
    }
}

/// Where the menus of the selected pass open, on the screen.
QPoint GraphView::selectedPlace() const
{
    constexpr QPointF head(30.0, 30.0);
    const PassItem* item = passItem(selectedPass());
    const QPoint place = item ? mapFromScene(item->mapToScene(head)) : viewport()->rect().center();
    return viewport()->mapToGlobal(place);
}

QMenu* GraphView::makeMenu()
{
    auto* menu = new QMenu(this);
    menu->setAttribute(Qt::WA_DeleteOnClose);
    return menu;
}

/// A menu for each input that something can be connected with.
void GraphView::fillInputs(QMenu* menu, const QString& pass)
{
    const GraphDescription& graph = m_document.graph();
    const PassPorts ports = portsOf(*findPass(graph, pass));
    QStringList inputs;
    for (const InputDescription& input : ports.inputs) {
        inputs.append(input.name);
    }
    for (const QString& input : inputs) {
        const std::vector<OutputPort> sources = sourcesFor(graph, pass, input);
        const InputSetting* setting = findInput(*findPass(graph, pass), input);
        const QString current = setting ? graph.resolved(setting->value).toString() : QString();
        if (sources.empty() && !current.startsWith(u'@')) {
            continue;
        }
        QMenu* choices = menu->addMenu(shortestName(input, inputs));
        const auto add = [&](const QString& text, bool isCurrent, const auto& call) {
            QAction* action = choices->addAction(text, this, call);
            action->setCheckable(true);
            action->setChecked(isCurrent);
        };
        add(tr("Not connected"), current.isEmpty(), [this, pass, input] { disconnectInput(pass, input); });
        for (const OutputPort& source : sources) {
            GraphDescription connected = graph;
            Viewer::connectPorts(connected, source.pass, source.port, pass, input);
            const QString reference = findInput(*findPass(connected, pass), input)->value.toString();
            add(reference.sliced(1), reference == current,
                [this, source, pass, input] { connectPorts(source.pass, source.port, pass, input); });
        }
    }
    if (menu->isEmpty()) {
        menu->addAction(tr("Nothing fits the inputs of %1").arg(pass))->setEnabled(false);
    }
}

void GraphView::fillTypes(QMenu* menu)
{
    for (const QString& type : PassRegistry::builtin().types()) {
        QAction* action = menu->addAction(type, this, [this, type] { addPass(type); });
        action->setToolTip(PassRegistry::builtin().description(type)->summary);
    }
    menu->setToolTipsVisible(true);
}

void GraphView::fillPass(QMenu* menu, const QString& pass)
{
    fillInputs(menu->addMenu(tr("&Connect")), pass);
    QMenu* show = menu->addMenu(tr("&Show"));
    QMenu* output = menu->addMenu(tr("Make the &output of the graph"));
    for (const OutputDescription& port : portsOf(*findPass(m_document.graph(), pass)).outputs) {
        const OutputName name{pass, port.name};
        const QString text = PortName::parse(port.name).name;
        show->addAction(text, this, [this, name] { Q_EMIT outputChosen(name); });
        output->addAction(text, this, [this, name] { setOutput(name); });
    }
    menu->addAction(m_session.bypassed().contains(pass) ? tr("S&witch on") : tr("S&witch off"), this,
                    [this, pass] { Q_EMIT switched(pass); });
    menu->addAction(tr("&Earlier in the file"), this, [this, pass] { movePass(pass, -1); });
    menu->addAction(tr("&Later in the file"), this, [this, pass] { movePass(pass, 1); });
    menu->addAction(tr("&Remove %1").arg(pass), this, [this, pass] { removePass(pass); });
    menu->addSeparator();
}

void GraphView::contextMenuEvent(QContextMenuEvent* event)
{
    const bool isByKey = event->reason() == QContextMenuEvent::Keyboard;
    const PassItem* pass = isByKey ? passItem(selectedPass()) : passAt(mapToScene(event->pos()));
    QMenu* menu = makeMenu();
    if (pass) {
        fillPass(menu, pass->name());
    }
    fillTypes(menu->addMenu(tr("&Add a pass")));
    menu->popup(isByKey ? selectedPlace() : event->globalPos());
}

} // namespace Morvane::Qel::Viewer
