#pragma once

#include <QWidget>

#include <Qel/gl/Image.h>

namespace Morvane::Qel::Viewer {

/// Writes the values of enlarged texels over the picture, and draws the line of a wipe.
class TexelOverlay : public QWidget
{
public:
    explicit TexelOverlay(QWidget* parent);

    /// The values of texels whose rectangle on the widget is `area`; an empty image for none.
    void setTexels(const Image& texels, const QRectF& area);
    /// The position of the wipe in pixels of the widget; negative for none.
    void setWipe(double x);
    /// Text instead of a picture; empty for none.
    void setText(const QString& text);

    const QString& text() const { return m_text; }

protected:
    void paintEvent(QPaintEvent* event) override;

private:
    void updateVisibility();

    Image m_texels;
    QRectF m_area;
    double m_wipe = -1.0;
    QString m_text;
};

/// A value as the overlay and the inspector write it.
QString texelText(const Image& image, int x, int y, int channel);

} // namespace Morvane::Qel::Viewer
