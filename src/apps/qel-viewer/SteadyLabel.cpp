#include "SteadyLabel.h"

#include <QLabel>
#include <QResizeEvent>

#include <algorithm>

namespace Morvane::Qel::Viewer {

SteadyLabel::SteadyLabel()
    : m_label(new QLabel(this))
{
}

void SteadyLabel::setText(const QString& text)
{
    m_label->setText(text);
    if (const int needed = extent(); needed > m_largest) {
        m_largest = needed;
        updateGeometry();
    }
}

QSize SteadyLabel::sizeHint() const
{
    const QSize hint = m_label->sizeHint();
    return hasHeightForWidth() ? hint : QSize(std::max(hint.width(), m_largest), hint.height());
}

QSize SteadyLabel::minimumSizeHint() const
{
    return m_label->minimumSizeHint();
}

bool SteadyLabel::hasHeightForWidth() const
{
    return m_label->hasHeightForWidth();
}

int SteadyLabel::heightForWidth(int width) const
{
    const int height = m_label->heightForWidth(width);
    return width == this->width() ? std::max(height, m_largest) : height;
}

void SteadyLabel::resizeEvent(QResizeEvent* event)
{
    m_label->resize(size());
    if (hasHeightForWidth() && event->size().width() != event->oldSize().width()) {
        m_largest = extent();
    }
}

int SteadyLabel::extent() const
{
    return hasHeightForWidth() ? m_label->heightForWidth(width()) : m_label->sizeHint().width();
}

} // namespace Morvane::Qel::Viewer
