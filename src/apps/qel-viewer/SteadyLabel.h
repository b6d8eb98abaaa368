#pragma once

#include <QWidget>

class QLabel;

namespace Morvane::Qel::Viewer {

/// A label for text that changes all the time. New text is laid out in the window only if it needs more room
/// than all texts before it; a QLabel alone would have the whole main window laid out for each.
class SteadyLabel : public QWidget
{
public:
    SteadyLabel();

    /// The label within, for its properties.
    QLabel& label() { return *m_label; }
    void setText(const QString& text);

    QSize sizeHint() const override;
    QSize minimumSizeHint() const override;
    bool hasHeightForWidth() const override;
    int heightForWidth(int width) const override;

protected:
    void resizeEvent(QResizeEvent* event) override;

private:
    int extent() const;

    /// In no layout, where a change of its text would pass on to the window.
    QLabel* m_label;
    /// The largest extent so far: the width of a line, or the height of wrapped text at the present width.
    int m_largest = 0;
};

} // namespace Morvane::Qel::Viewer
