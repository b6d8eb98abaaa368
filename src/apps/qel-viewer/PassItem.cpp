#include "PassItem.h"

#include <QApplication>
#include <QPainter>
#include <QPalette>
#include <QStyleOptionGraphicsItem>

#include <algorithm>

#include "GraphEdits.h"

using namespace Qt::StringLiterals;

namespace Morvane::Qel::Viewer {

namespace {

constexpr double width = 210.0;
constexpr double headHeight = 40.0;
constexpr double rowHeight = 18.0;
constexpr double thumbnailHeight = 58.0;
constexpr double portRadius = 4.5;
// In units of the box, which is enlarged as a whole.
constexpr int textSize = 12;
constexpr int smallTextSize = 10;

/// Whether an input is shown: one that only a connection sets, or one that is connected.
bool hasConnector(const PassSetting& pass, const InputDescription& input)
{
    const QString type = PortName::parse(input.name).type;
    const InputSetting* setting = findInput(pass, input.name);
    return type.contains(u'*') || type == QLatin1StringView("QVariant") ||
           (setting && isReference(setting->value) && setting->value.toString().contains(u'.'));
}

} // namespace

PassItem::PassItem(const PassSetting& pass, int number, const QString& cullReason)
    : m_name(pass.name)
    , m_typeName(pass.type)
    , m_number(number)
    , m_cullReason(cullReason)
{
    const PassPorts ports = portsOf(pass);
    for (const InputDescription& input : ports.inputs) {
        if (hasConnector(pass, input)) {
            m_inputs.append(input.name);
        }
    }
    for (const OutputDescription& output : ports.outputs) {
        m_outputs.append(output.name);
    }
    setFlags(ItemIsSelectable | ItemIsFocusable);
    setToolTip(cullReason.isEmpty() ? pass.type : u"%1\nculled: %2"_s.arg(pass.type, cullReason));
}

QRectF PassItem::boundingRect() const
{
    const auto rows = static_cast<double>(std::max(m_inputs.size(), m_outputs.size()));
    return QRectF(0.0, 0.0, width, headHeight + rows * rowHeight + thumbnailHeight + 8.0)
        .adjusted(-portRadius, -1.0, portRadius, 1.0);
}

QPointF PassItem::point(qsizetype row, bool isInput) const
{
    return {isInput ? 0.0 : width, headHeight + (static_cast<double>(row) + 0.5) * rowHeight};
}

QPointF PassItem::inputPoint(const QString& port) const
{
    return mapToScene(point(std::max<qsizetype>(m_inputs.indexOf(port), 0), true));
}

QPointF PassItem::outputPoint(const QString& port) const
{
    return mapToScene(point(std::max<qsizetype>(m_outputs.indexOf(port), 0), false));
}

QString PassItem::portAt(const QPointF& scenePoint, const QStringList& ports, bool isInput) const
{
    constexpr double reach = 11.0;
    for (qsizetype i = 0; i < ports.size(); ++i) {
        const QPointF way = mapFromScene(scenePoint) - point(i, isInput);
        if (std::hypot(way.x(), way.y()) < reach) {
            return ports[i];
        }
    }
    return {};
}

QString PassItem::inputAt(const QPointF& scenePoint) const
{
    return portAt(scenePoint, m_inputs, true);
}

QString PassItem::outputAt(const QPointF& scenePoint) const
{
    return portAt(scenePoint, m_outputs, false);
}

void PassItem::paint(QPainter* painter, const QStyleOptionGraphicsItem* option, QWidget* /*widget*/)
{
    const QPalette palette = QApplication::palette();
    const bool isSelected = option->state.testFlag(QStyle::State_Selected);
    const bool runs = m_cullReason.isEmpty() && !m_isOff;
    const QRectF box = boundingRect().adjusted(portRadius, 1.0, -portRadius, -1.0);
    painter->setRenderHint(QPainter::Antialiasing);
    painter->setOpacity(runs ? 1.0 : 0.55);
    QPen frame(isSelected ? palette.color(QPalette::Highlight) : palette.color(QPalette::PlaceholderText),
               isSelected ? 2.0 : 1.0);
    frame.setStyle(runs ? Qt::SolidLine : Qt::DashLine);
    painter->setPen(frame);
    painter->setBrush(palette.color(QPalette::Base));
    painter->drawRoundedRect(box, 5.0, 5.0);

    painter->setPen(palette.color(QPalette::Text));
    QFont font = painter->font();
    font.setPixelSize(textSize);
    const QFont plain = font;
    font.setBold(true);
    painter->setFont(font);
    const QString title = runs ? u"%1  %2"_s.arg(m_number).arg(m_name) : m_name;
    painter->drawText(QRectF(8.0, 4.0, width - 80.0, 18.0), Qt::AlignVCenter,
                      painter->fontMetrics().elidedText(title, Qt::ElideRight, static_cast<int>(width) - 80));
    painter->setFont(plain);
    painter->drawText(QRectF(width - 80.0, 4.0, 72.0, 18.0), Qt::AlignVCenter | Qt::AlignRight,
                      m_isOff ? QObject::tr("off")
                      : runs  ? m_time
                              : QObject::tr("culled"));
    QFont small = plain;
    small.setPixelSize(smallTextSize);
    painter->setFont(small);
    painter->setPen(palette.color(QPalette::PlaceholderText));
    painter->drawText(QRectF(8.0, 20.0, width - 16.0, 16.0), Qt::AlignVCenter, m_typeName);

    painter->setPen(palette.color(QPalette::Text));
    painter->setBrush(palette.color(QPalette::Highlight));
    const auto drawPorts = [&](const QStringList& ports, bool isInput) {
        for (qsizetype i = 0; i < ports.size(); ++i) {
            const QPointF place = point(i, isInput);
            painter->drawEllipse(place, portRadius, portRadius);
            const QRectF area(isInput ? 9.0 : width / 2.0, place.y() - rowHeight / 2.0, width / 2.0 - 9.0,
                              rowHeight);
            painter->drawText(area, Qt::AlignVCenter | (isInput ? Qt::AlignLeft : Qt::AlignRight),
                              PortName::parse(ports[i]).name);
        }
    };
    drawPorts(m_inputs, true);
    drawPorts(m_outputs, false);
    if (!m_thumbnail.isNull()) {
        const QSizeF size =
            QSizeF(m_thumbnail.size()).scaled(width - 16.0, thumbnailHeight, Qt::KeepAspectRatio);
        painter->drawImage(QRectF({(width - size.width()) / 2.0, box.bottom() - thumbnailHeight - 4.0}, size),
                           m_thumbnail);
    }
}

WireItem::WireItem(const PassItem& from, const QString& output, const PassItem& to, const QString& toInput)
    : QGraphicsPathItem(curve(from.outputPoint(output), to.inputPoint(toInput)))
    , fromPass(from.name())
    , toPass(to.name())
    , input(toInput)
{
    setFlags(ItemIsSelectable);
    setZValue(-1.0);
}

QPainterPath WireItem::curve(const QPointF& from, const QPointF& to)
{
    QPainterPath path(from);
    const double reach = std::max(40.0, std::abs(to.x() - from.x()) / 2.0);
    path.cubicTo(from + QPointF(reach, 0.0), to - QPointF(reach, 0.0), to);
    return path;
}

void WireItem::paint(QPainter* painter, const QStyleOptionGraphicsItem* option, QWidget* /*widget*/)
{
    const QPalette palette = QApplication::palette();
    const bool isSelected = option->state.testFlag(QStyle::State_Selected);
    painter->setRenderHint(QPainter::Antialiasing);
    painter->setPen(QPen(palette.color(isSelected ? QPalette::Highlight : QPalette::PlaceholderText),
                         isSelected ? 3.0 : 1.5));
    painter->drawPath(path());
}

} // namespace Morvane::Qel::Viewer
