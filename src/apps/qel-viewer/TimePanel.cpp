#include "TimePanel.h"

#include <QHeaderView>
#include <QLabel>
#include <QPainter>
#include <QSignalBlocker>
#include <QStyledItemDelegate>
#include <QTreeWidget>
#include <QVBoxLayout>

#include <cmath>
#include <limits>
#include <utility>

#include "Document.h"
#include "GraphEdits.h"
#include "OutputStore.h"
#include "SteadyLabel.h"
#include "TextureView.h"

using namespace Qt::StringLiterals;

namespace Morvane::Qel::Viewer {

namespace {

enum Column
{
    Pass,
    Gpu,
    Cpu,
};
constexpr int partRole = Qt::UserRole;
constexpr double unknown = std::numeric_limits<double>::quiet_NaN();
/// Frames that are measured after a switch; the first ones only warm up.
constexpr int numMeasuredFrames = Profiler::numWarmUpFrames + 8;

QString timeText(double milliseconds)
{
    return std::isnan(milliseconds) ? u"–"_s : u"%1 ms"_s.arg(milliseconds, 0, 'f', 2);
}

/// Draws the part of the frame behind the text of a cell.
class BarDelegate : public QStyledItemDelegate
{
public:
    using QStyledItemDelegate::QStyledItemDelegate;
    void paint(QPainter* painter, const QStyleOptionViewItem& option, const QModelIndex& index) const override
    {
        const double part = index.data(partRole).toDouble();
        QRectF bar = QRectF(option.rect).adjusted(1.0, 3.0, -1.0, -3.0);
        bar.setWidth(bar.width() * std::clamp(part, 0.0, 1.0));
        QColor color = option.palette.color(QPalette::Highlight);
        color.setAlpha(110);
        painter->fillRect(bar, color);
        QStyledItemDelegate::paint(painter, option, index);
    }
};

} // namespace

/// The times of the last frames as a curve.
class TimePlot : public QWidget
{
public:
    TimePlot()
    {
        setMinimumHeight(48);
        setToolTip(TimePanel::tr("Times of the last frames"));
    }
    void add(double milliseconds)
    {
        constexpr size_t numFrames = 240;
        m_times.push_back(milliseconds);
        if (m_times.size() > numFrames) {
            m_times.pop_front();
        }
        QWidget::update();
    }
    void clear()
    {
        m_times.clear();
        QWidget::update();
    }

protected:
    void paintEvent(QPaintEvent* /*event*/) override
    {
        QPainter painter(this);
        painter.fillRect(rect(), palette().color(QPalette::Base));
        if (m_times.size() < 2) {
            return;
        }
        const double highest = *std::max_element(m_times.begin(), m_times.end());
        QPolygonF curve;
        for (size_t i = 0; i < m_times.size(); ++i) {
            curve << QPointF(static_cast<double>(i) * width() / static_cast<double>(m_times.size() - 1),
                             height() - 2.0 - (height() - 16.0) * m_times[i] / std::max(highest, 1e-3));
        }
        painter.setRenderHint(QPainter::Antialiasing);
        painter.setPen(QPen(palette().color(QPalette::Highlight), 1.5));
        painter.drawPolyline(curve);
        painter.setPen(palette().color(QPalette::Text));
        painter.drawText(rect().adjusted(4, 0, -4, 0), Qt::AlignTop | Qt::AlignLeft, timeText(highest));
    }

private:
    std::deque<double> m_times;
};

TimePanel::TimePanel(GraphSession& session, Document& document, OutputStore& store, TextureView& view,
                     QWidget* parent)
    : QWidget(parent)
    , m_session(session)
    , m_document(document)
    , m_store(store)
    , m_view(view)
    , m_table(new QTreeWidget)
    , m_plot(new TimePlot)
    , m_summary(new SteadyLabel)
    , m_timeBefore(unknown)
    , m_frameTime(unknown)
{
    auto* column = new QVBoxLayout(this);
    column->setContentsMargins(4, 4, 4, 4);
    m_table->setObjectName(u"times"_s);
    m_table->setRootIsDecorated(false);
    m_table->setHeaderLabels({tr("Pass"), tr("GPU"), tr("CPU")});
    m_table->setItemDelegateForColumn(Gpu, new BarDelegate(m_table));
    m_table->setItemDelegateForColumn(Cpu, new BarDelegate(m_table));
    m_table->header()->setSectionResizeMode(Pass, QHeaderView::ResizeToContents);
    m_table->setToolTip(tr("Untick a pass to leave it out and see what it costs"));
    column->addWidget(m_table, 1);
    column->addWidget(m_plot);
    m_summary->label().setWordWrap(true);
    m_summary->label().setAlignment(Qt::AlignTop);
    m_summary->label().setObjectName(u"summary"_s);
    column->addWidget(m_summary);
    m_clock.start();
    m_timer.setSingleShot(true);
    m_timer.setInterval(200);
    connect(&m_timer, &QTimer::timeout, this, &TimePanel::update);
    connect(&session, &GraphSession::frameRendered, this, &TimePanel::addFrame, Qt::QueuedConnection);
    connect(&session, &GraphSession::graphReplaced, this, &TimePanel::rebuild, Qt::QueuedConnection);
    // The memory follows after the frame.
    connect(&store, &OutputStore::updated, this, &TimePanel::schedule);
    connect(&document, &Document::opened, this, [this] {
        m_times.clear();
        m_plot->clear();
        m_frameTimes.clear();
        m_switched.clear();
        m_timeBefore = unknown;
        m_frameTime = unknown;
    });
    connect(m_table, &QTreeWidget::itemChanged, this, &TimePanel::switchPass);
}

double TimePanel::timeOf(const QString& pass) const
{
    const Times times = m_times.value(pass, {unknown, unknown});
    return std::isnan(times.gpu) ? times.cpu : times.gpu;
}

void TimePanel::addFrame()
{
    constexpr qint64 second = 1000;
    const qint64 now = m_clock.elapsed();
    m_frameTimes.push_back(now);
    while (now - m_frameTimes.front() > second) {
        m_frameTimes.pop_front();
    }
    schedule();
}

void TimePanel::schedule()
{
    if (!m_timer.isActive()) {
        m_timer.start();
    }
}

/// Frames that were rendered out of sight are shown too.
void TimePanel::showEvent(QShowEvent* event)
{
    QWidget::showEvent(event);
    m_timer.start();
}

void TimePanel::rebuild()
{
    const QSignalBlocker blocker(m_table);
    m_table->clear();
    if (!m_session.graph()) {
        return;
    }
    const GraphPlan& plan = m_session.graph()->plan();
    QStringList names;
    for (const int index : plan.order) {
        names.append(plan.passes[static_cast<size_t>(index)].name);
    }
    for (const PassSetting& pass : m_document.graph().passes) {
        if (m_session.bypassed().contains(pass.name)) {
            names.append(pass.name);
        }
    }
    for (const QString& name : names) {
        auto* item = new QTreeWidgetItem(m_table, {name});
        const bool isOn = !m_session.bypassed().contains(name);
        item->setCheckState(Pass, isOn ? Qt::Checked : Qt::Unchecked);
        if (isOn && !canLeaveOut(withoutPasses(m_document.graph(), m_session.bypassed()), name)) {
            item->setFlags(item->flags() & ~Qt::ItemIsUserCheckable);
            item->setData(Pass, Qt::CheckStateRole, {});
            item->setToolTip(Pass, tr("No input of this pass fits its outputs, so it cannot be left out"));
        }
    }
    update();
}

bool TimePanel::toggle(const QString& pass)
{
    const QList<QTreeWidgetItem*> found = m_table->findItems(pass, Qt::MatchExactly, Pass);
    if (found.isEmpty() || !found.first()->flags().testFlag(Qt::ItemIsUserCheckable)) {
        return false;
    }
    found.first()->setCheckState(Pass, found.first()->checkState(Pass) == Qt::Checked ? Qt::Unchecked
                                                                                      : Qt::Checked);
    return true;
}

void TimePanel::switchPass(QTreeWidgetItem* item)
{
    QSet<QString> passes = m_session.bypassed();
    const QString name = item->text(Pass);
    if (item->checkState(Pass) == Qt::Checked) {
        passes.remove(name);
    } else {
        passes.insert(name);
    }
    m_timeBefore = m_frameTime;
    m_frameTime = unknown;
    m_switched = name;
    m_session.setBypassed(passes);
    m_session.requestFrames(numMeasuredFrames);
}

void TimePanel::update()
{
    if (!isVisible() || !m_session.graph()) {
        return;
    }
    Profiler::Report report;
    m_view.withContext([&] { report = m_session.times(); });
    double sumGpu = 0.0;
    double sumCpu = 0.0;
    for (const Profiler::Row& row : report.sections) {
        m_times[row.section] = {row.gpu.latest, row.cpu.latest};
        sumGpu += row.gpu.latest;
        sumCpu += row.cpu.latest;
    }
    const bool isMeasured = report.numFrames > 0;
    m_frameTime = !isMeasured ? unknown : std::isnan(sumGpu) ? sumCpu : sumGpu;
    const QSignalBlocker blocker(m_table);
    for (int i = 0; i < m_table->topLevelItemCount(); ++i) {
        QTreeWidgetItem* item = m_table->topLevelItem(i);
        const QString name = item->text(Pass);
        const Times times = m_times.value(name, {unknown, unknown});
        const bool isOff = m_session.bypassed().contains(name);
        const auto show = [&](Column column, double time, double sum) {
            item->setText(column, isOff ? tr("off, was %1").arg(timeText(time)) : timeText(time));
            item->setData(column, partRole, isOff || std::isnan(time) ? 0.0 : time / sum);
        };
        show(Gpu, times.gpu, sumGpu);
        show(Cpu, times.cpu, sumCpu);
    }
    const quint64 frame = m_session.numFrames();
    if (isMeasured && std::exchange(m_plottedFrame, frame) != frame) {
        m_plot->add(m_frameTime);
    }
    QString text =
        tr("%1 frames per second; GPU %2, CPU %3 in the passes; %4 MiB in outputs; textures in the pool: %5")
            .arg(m_frameTimes.size())
            .arg(timeText(isMeasured ? sumGpu : unknown), timeText(isMeasured ? sumCpu : unknown))
            .arg(m_store.numBytes() / (1024.0 * 1024.0), 0, 'f', 1)
            .arg(m_store.numPoolTextures());
    if (!m_switched.isEmpty() && !std::isnan(m_timeBefore) && isMeasured) {
        text +=
            tr("; since the switch of %1: %2 ms").arg(m_switched).arg(m_frameTime - m_timeBefore, 0, 'f', 2);
    }
    m_summary->setText(text);
    Q_EMIT updated();
}

} // namespace Morvane::Qel::Viewer
