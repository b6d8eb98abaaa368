#include "TexelOverlay.h"

#include <QFontDatabase>
#include <QPainter>

namespace Morvane::Qel::Viewer {

void TexelOverlay::setTexels(const Image& texels, const QRectF& area)
{
    const bool isSame = texels.width == 0 && m_texels.width == 0;
    m_texels = texels;
    m_area = area;
    m_isChanged = m_isChanged || !isSame;
}

void TexelOverlay::setWipe(double x)
{
    m_isChanged = m_isChanged || x != m_wipe;
    m_wipe = x;
}

void TexelOverlay::setText(const QString& text)
{
    m_isChanged = m_isChanged || text != m_text;
    m_text = text;
}

void TexelOverlay::draw(QImage& image, const QFont& font, const QPalette& palette)
{
    m_isChanged = false;
    const QRectF all(QPointF(0.0, 0.0), image.deviceIndependentSize());
    QPainter painter(&image);
    if (!m_text.isEmpty()) {
        painter.setFont(QFontDatabase::systemFont(QFontDatabase::FixedFont));
        painter.setPen(palette.color(QPalette::WindowText));
        painter.drawText(all, Qt::AlignCenter | Qt::TextWordWrap, m_text);
    }
    if (m_wipe >= 0.0) {
        painter.setPen(QPen(QColor(0, 0, 0, 160), 3.0));
        painter.drawLine(QPointF(m_wipe, 0.0), QPointF(m_wipe, all.height()));
        painter.setPen(QPen(Qt::white, 1.0));
        painter.drawLine(QPointF(m_wipe, 0.0), QPointF(m_wipe, all.height()));
    }
    if (m_texels.width == 0) {
        return;
    }
    const double side = m_area.width() / m_texels.width;
    QFont small = font;
    small.setPointSizeF(std::min(small.pointSizeF(), side / (m_texels.numChannels() > 3 ? 7.5 : 6.0)));
    painter.setFont(small);
    for (int y = 0; y < m_texels.height; ++y) {
        for (int x = 0; x < m_texels.width; ++x) {
            QStringList lines;
            for (int channel = 0; channel < m_texels.numChannels(); ++channel) {
                lines.append(texelText(m_texels, x, y, channel));
            }
            const QRectF cell(m_area.left() + x * side, m_area.top() + y * side, side, side);
            const QString text = lines.join(u'\n');
            painter.fillRect(painter.boundingRect(cell, Qt::AlignCenter, text).adjusted(-3.0, -1.0, 3.0, 1.0),
                             QColor(0, 0, 0, 130));
            painter.setPen(Qt::white);
            painter.drawText(cell, Qt::AlignCenter, text);
        }
    }
}

QString texelText(const Image& image, int x, int y, int channel)
{
    const double value = image.sample(x, y, channel);
    constexpr int digits = 4;
    return image.isInteger() ? QString::number(static_cast<qulonglong>(value))
                             : QString::number(value, 'g', digits);
}

} // namespace Morvane::Qel::Viewer
