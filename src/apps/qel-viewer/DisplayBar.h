#pragma once

#include <QToolBar>

class QCheckBox;
class QComboBox;
class QDoubleSpinBox;
class QLabel;
class QSpinBox;

namespace Morvane::Qel::Viewer {

class TextureView;

/// How the picture is shown: size, zoom, channels, range and colours.
class DisplayBar : public QToolBar
{
    Q_OBJECT
public:
    explicit DisplayBar(TextureView& view, QWidget* parent = nullptr);

private:
    QDoubleSpinBox* addNumber(const QString& name, const QString& title, const QString& toolTip, double low,
                              double high, double step);
    QCheckBox* addCheck(const QString& name, const QString& title, const QString& toolTip);
    QSpinBox* addIndex(const QString& name, const QString& title);
    void apply();
    void update();

    TextureView& m_view;
    QComboBox* m_size;
    QComboBox* m_zoom;
    QComboBox* m_channels;
    QDoubleSpinBox* m_exposure;
    QDoubleSpinBox* m_gamma;
    QDoubleSpinBox* m_minimum;
    QDoubleSpinBox* m_maximum;
    QCheckBox* m_auto;
    QCheckBox* m_falseColors;
    QCheckBox* m_smooth;
    QSpinBox* m_level;
    QSpinBox* m_layer;
};

} // namespace Morvane::Qel::Viewer
