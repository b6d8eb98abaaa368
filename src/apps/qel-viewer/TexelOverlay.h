#pragma once

#include <QFont>
#include <QImage>
#include <QPalette>
#include <QRectF>
#include <QString>

#include <Qel/gl/Image.h>

namespace Morvane::Qel::Viewer {

/// What is written over the picture: the values of enlarged texels, the line of a wipe, or a text instead of
/// a picture.
class TexelOverlay
{
public:
    /// The values of texels whose rectangle on the widget is `area`; an empty image for none.
    void setTexels(const Image& texels, const QRectF& area);
    /// The position of the wipe in pixels of the widget; negative for none.
    void setWipe(double x);
    /// Text instead of a picture; empty for none.
    void setText(const QString& text);

    const QString& text() const { return m_text; }
    bool isEmpty() const { return m_texels.width == 0 && m_wipe < 0.0 && m_text.isEmpty(); }
    /// Whether it must be drawn anew.
    bool isChanged() const { return m_isChanged; }
    void setChanged() { m_isChanged = true; }

    /// Draws it over a transparent image, which is that of the whole widget.
    void draw(QImage& image, const QFont& font, const QPalette& palette);

private:
    bool m_isChanged = true;
    Image m_texels;
    QRectF m_area;
    double m_wipe = -1.0;
    QString m_text;
};

/// A value as the overlay and the inspector write it.
QString texelText(const Image& image, int x, int y, int channel);

} // namespace Morvane::Qel::Viewer
