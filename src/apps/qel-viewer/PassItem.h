#pragma once

#include <QGraphicsItem>
#include <QImage>

#include <Qel/graph/GraphDescription.h>

namespace Morvane::Qel::Viewer {

/// A pass as a box with its ports: inputs on the left, outputs on the right.
class PassItem : public QGraphicsItem
{
public:
    enum
    {
        Type = UserType + 1
    };

    /// `cullReason` is empty for a pass that runs.
    PassItem(const PassSetting& pass, int number, const QString& cullReason);

    const QString& name() const { return m_name; }
    /// Where wires end, in the scene. Ports are named in full.
    QPointF inputPoint(const QString& port) const;
    QPointF outputPoint(const QString& port) const;
    /// The port near a point of the scene; empty if there is none.
    QString inputAt(const QPointF& point) const;
    QString outputAt(const QPointF& point) const;

    void setThumbnail(const QImage& thumbnail) { set(m_thumbnail, thumbnail); }
    void setTime(const QString& time) { set(m_time, time); }
    /// Draws the pass as left out of the running graph.
    void setOff(bool isOff) { set(m_isOff, isOff); }

    int type() const override { return Type; }
    QRectF boundingRect() const override;
    void paint(QPainter* painter, const QStyleOptionGraphicsItem* option, QWidget* widget) override;

private:
    QPointF point(qsizetype row, bool isInput) const;
    QString portAt(const QPointF& point, const QStringList& ports, bool isInput) const;
    /// Sets what is drawn.
    template<class Value>
    void set(Value& member, const Value& value)
    {
        if (member != value) {
            member = value;
            update();
        }
    }

    QString m_name;
    QString m_typeName;
    int m_number;
    QString m_cullReason;
    QStringList m_inputs;
    QStringList m_outputs;
    QImage m_thumbnail;
    QString m_time;
    bool m_isOff = false;
};

/// The connection of an output of one pass with an input of another.
class WireItem : public QGraphicsPathItem
{
public:
    enum
    {
        Type = UserType + 2
    };

    /// From the output of a pass to an input, given by its full name.
    WireItem(const PassItem& from, const QString& output, const PassItem& to, const QString& input);

    QString fromPass;
    QString toPass;
    /// Full name.
    QString input;

    int type() const override { return Type; }
    void paint(QPainter* painter, const QStyleOptionGraphicsItem* option, QWidget* widget) override;
    /// The curve between two points.
    static QPainterPath curve(const QPointF& from, const QPointF& to);
};

} // namespace Morvane::Qel::Viewer
