#include "OutputTree.h"

#include <QHeaderView>
#include <QSignalBlocker>
#include <QTreeWidgetItemIterator>

#include <Qel/core/PassDescription.h>

#include "OutputStore.h"

using namespace Qt::StringLiterals;

namespace Morvane::Qel::Viewer {

namespace {

enum Column
{
    Name,
    Value,
    Format,
};
constexpr int passRole = Qt::UserRole;
constexpr int portRole = Qt::UserRole + 1;

OutputName nameOf(const QTreeWidgetItem* item)
{
    return {item->data(0, passRole).toString(), item->data(0, portRole).toString()};
}

bool isOutput(const QTreeWidgetItem* item)
{
    return item->data(0, portRole).isValid();
}

} // namespace

OutputTree::OutputTree(GraphSession& session, OutputStore& store, QWidget* parent)
    : QTreeWidget(parent)
    , m_session(session)
    , m_store(store)
{
    setObjectName(u"outputs"_s);
    setHeaderLabels({tr("Output"), tr("Value at cursor"), tr("Format")});
    setIconSize({64, 36});
    header()->setStretchLastSection(true);
    setUniformRowHeights(false);
    setMinimumWidth(240);
    connect(&session, &GraphSession::graphReplaced, this, &OutputTree::rebuild, Qt::QueuedConnection);
    connect(&store, &OutputStore::updated, this, &OutputTree::updateOutputs);
    connect(this, &QTreeWidget::currentItemChanged, this, [this](const QTreeWidgetItem* item) {
        if (item && isOutput(item)) {
            m_selected = nameOf(item);
            Q_EMIT chosen(m_selected);
        }
    });
}

void OutputTree::rebuild()
{
    const QSignalBlocker blocker(this);
    clear();
    if (!m_session.graph()) {
        return;
    }
    const GraphPlan& plan = m_session.graph()->plan();
    if (!plan.graph.output.isEmpty()) {
        auto* item = new QTreeWidgetItem(this, {tr("Output of the graph"), {}, plan.graph.output.mid(1)});
        item->setData(0, passRole, QString());
        item->setData(0, portRole, QString());
    }
    for (const int index : plan.order) {
        const PlannedPass& pass = plan.passes[static_cast<size_t>(index)];
        auto* parent = new QTreeWidgetItem(this, {pass.name, {}, pass.type});
        parent->setFlags(Qt::ItemIsEnabled);
        for (const QString& port : pass.outputs) {
            auto* item = new QTreeWidgetItem(parent, {PortName::parse(port).name});
            item->setData(0, passRole, pass.name);
            item->setData(0, portRole, port);
        }
    }
    for (const PlannedPass& pass : plan.passes) {
        if (!pass.cullReason.isEmpty()) {
            auto* item = new QTreeWidgetItem(this, {pass.name, {}, tr("culled: %1").arg(pass.cullReason)});
            item->setDisabled(true);
        }
    }
    expandAll();
    constexpr int numCharactersOfName = 27;
    constexpr int numCharactersOfValue = 22;
    setColumnWidth(Name, numCharactersOfName * fontMetrics().averageCharWidth());
    setColumnWidth(Value, numCharactersOfValue * fontMetrics().averageCharWidth());
    select(m_selected);
    updateOutputs();
}

void OutputTree::select(const OutputName& name)
{
    m_selected = name;
    const QSignalBlocker blocker(this);
    for (QTreeWidgetItemIterator item(this); *item; ++item) {
        if (isOutput(*item) && nameOf(*item) == name) {
            setCurrentItem(*item);
        }
    }
}

void OutputTree::updateOutputs()
{
    const QSignalBlocker blocker(this);
    for (QTreeWidgetItemIterator item(this); *item; ++item) {
        if (!isOutput(*item)) {
            continue;
        }
        if (const OutputInfo* info = m_store.find(nameOf(*item))) {
            (*item)->setText(Format, info->format);
            (*item)->setToolTip(Name, info->format);
            (*item)->setIcon(Name, QPixmap::fromImage(info->thumbnail));
        }
    }
    viewport()->update();
}

void OutputTree::setValues(const QHash<QString, QString>& values)
{
    const QSignalBlocker blocker(this);
    const QString graphOutput = m_session.graph() ? m_session.graph()->plan().graph.output : QString();
    for (QTreeWidgetItemIterator item(this); *item; ++item) {
        if (isOutput(*item)) {
            const QString name = nameOf(*item).text();
            (*item)->setText(Value, values.value(name.isEmpty() ? graphOutput.mid(1) : name));
        }
    }
    viewport()->update();
}

} // namespace Morvane::Qel::Viewer
