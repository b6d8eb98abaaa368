#include "DisplayBar.h"

#include <QCheckBox>
#include <QComboBox>
#include <QDoubleSpinBox>
#include <QLabel>
#include <QSignalBlocker>
#include <QSpinBox>

#include <utility>

#include "NumberDisplay.h"
#include "TextureView.h"

using namespace Qt::StringLiterals;

namespace Morvane::Qel::Viewer {

DisplayBar::DisplayBar(TextureView& view, QWidget* parent)
    : QToolBar(tr("Display"), parent)
    , m_view(view)
    , m_size(new QComboBox)
    , m_zoom(new QComboBox)
    , m_channels(new QComboBox)
{
    setObjectName(u"displayBar"_s);
    m_size->addItems({tr("Window size"), tr("Graph size")});
    m_size->setToolTip(tr("Frames are rendered in the size of the window, or in that of the graph"));
    m_size->setObjectName(u"size"_s);
    addWidget(m_size);
    connect(m_size, &QComboBox::activated, this, [this](int index) { m_view.setFollowsWindow(index == 0); });

    m_zoom->addItem(tr("Fit"), 0.0);
    for (const double zoom : {0.25, 0.5, 1.0, 2.0, 4.0, 8.0, 16.0, 64.0}) {
        m_zoom->addItem(zoom == 1.0 ? u"1:1"_s : u"%1 %"_s.arg(100.0 * zoom), zoom);
    }
    m_zoom->setToolTip(tr("Zoom; also with the mouse wheel"));
    m_zoom->setObjectName(u"zoom"_s);
    addWidget(m_zoom);
    connect(m_zoom, &QComboBox::activated, this,
            [this](int index) { m_view.setZoom(m_zoom->itemData(index).toDouble()); });
    m_smooth = addCheck(u"smooth"_s, tr("Smooth"), tr("Interpolates enlarged texels"));
    addSeparator();

    m_channels->addItems({u"RGB"_s, u"RGBA"_s, u"R"_s, u"G"_s, u"B"_s, u"A"_s});
    m_channels->setToolTip(tr("The channels that are shown; RGBA over a checkerboard"));
    m_channels->setObjectName(u"channels"_s);
    addWidget(m_channels);
    connect(m_channels, &QComboBox::activated, this, &DisplayBar::apply);
    m_falseColors = addCheck(u"falseColors"_s, tr("False colours"),
                             tr("A colour for each integer; a scale from blue to red for a single channel"));
    addSeparator();
    m_exposure =
        addNumber(u"exposure"_s, tr("Exposure"), tr("In stops: 1 doubles the values"), -20.0, 20.0, 0.25);
    m_gamma =
        addNumber(u"gamma"_s, tr("Gamma"), tr("2.2 shows linear values on a usual screen"), 0.1, 5.0, 0.1);
    m_minimum = addNumber(u"minimum"_s, tr("Range"), tr("The value that is black"), -1e6, 1e6, 0.1);
    m_maximum = addNumber(u"maximum"_s, tr("to"), tr("The value that is white"), -1e6, 1e6, 0.1);
    m_auto = addCheck(u"autoRange"_s, tr("Auto"), tr("The range follows the values"));
    addSeparator();
    m_level = addIndex(u"level"_s, tr("Mip level"));
    m_layer = addIndex(u"layer"_s, tr("Layer"));
    connect(&view, &TextureView::displayChanged, this, &DisplayBar::update);
    connect(&view, &TextureView::zoomChanged, this, &DisplayBar::update);
    update();
}

QDoubleSpinBox* DisplayBar::addNumber(const QString& name, const QString& title, const QString& toolTip,
                                      double low, double high, double step)
{
    auto* box = new QDoubleSpinBox;
    box->setRange(low, high);
    box->setSingleStep(step);
    box->setDecimals(3);
    constexpr int numCharacters = 13;
    box->setMaximumWidth(numCharacters * box->fontMetrics().averageCharWidth());
    box->setKeyboardTracking(false);
    box->setToolTip(toolTip);
    box->setObjectName(name);
    box->setAccessibleName(title);
    addWidget(new QLabel(u' ' + title + u' '));
    addWidget(box);
    connect(box, &QDoubleSpinBox::valueChanged, this, &DisplayBar::apply);
    return box;
}

QCheckBox* DisplayBar::addCheck(const QString& name, const QString& title, const QString& toolTip)
{
    auto* box = new QCheckBox(title);
    box->setToolTip(toolTip);
    box->setObjectName(name);
    addWidget(box);
    connect(box, &QCheckBox::clicked, this, &DisplayBar::apply);
    return box;
}

QSpinBox* DisplayBar::addIndex(const QString& name, const QString& title)
{
    auto* box = new QSpinBox;
    box->setObjectName(name);
    box->setAccessibleName(title);
    box->setMaximum(31);
    addWidget(new QLabel(u' ' + title + u' '));
    addWidget(box);
    connect(box, &QSpinBox::valueChanged, this, &DisplayBar::apply);
    return box;
}

void DisplayBar::apply()
{
    DisplaySettings display = m_view.display();
    display.channels = static_cast<DisplaySettings::Channels>(m_channels->currentIndex());
    display.exposure = static_cast<float>(m_exposure->value());
    display.gamma = static_cast<float>(m_gamma->value());
    display.hasAutoRange = m_auto->isChecked();
    // Values that the automatic range set keep their digits.
    if (!display.hasAutoRange) {
        display.minimum = static_cast<float>(m_minimum->value());
        display.maximum = static_cast<float>(m_maximum->value());
    }
    display.hasFalseColors = m_falseColors->isChecked();
    display.isSmooth = m_smooth->isChecked();
    display.level = m_level->value();
    display.layer = m_layer->value();
    m_view.setDisplay(display);
}

void DisplayBar::update()
{
    const DisplaySettings& display = m_view.display();
    // In each frame while the range is automatic.
    const auto set = [](QDoubleSpinBox* box, float value) { showNumber(*box, static_cast<double>(value)); };
    const auto setIndex = [](QSpinBox* box, int value) {
        if (box->value() != value) {
            const QSignalBlocker blocker(box);
            box->setValue(value);
        }
    };
    m_channels->setCurrentIndex(static_cast<int>(display.channels));
    set(m_exposure, display.exposure);
    set(m_gamma, display.gamma);
    set(m_minimum, display.minimum);
    set(m_maximum, display.maximum);
    m_minimum->setEnabled(!display.hasAutoRange);
    m_maximum->setEnabled(!display.hasAutoRange);
    m_auto->setChecked(display.hasAutoRange);
    m_falseColors->setChecked(display.hasFalseColors);
    m_smooth->setChecked(display.isSmooth);
    setIndex(m_level, display.level);
    setIndex(m_layer, display.layer);
    m_size->setCurrentIndex(m_view.followsWindow() ? 0 : 1);
    const int index = m_zoom->findData(m_view.isFitting() ? 0.0 : m_view.scale());
    m_zoom->setCurrentIndex(index);
    m_zoom->setPlaceholderText(u"%1 %"_s.arg(100.0 * m_view.scale(), 0, 'f', 0));
}

} // namespace Morvane::Qel::Viewer
