#include "ValueEditor.h"

#include <QCheckBox>
#include <QColorDialog>
#include <QComboBox>
#include <QDir>
#include <QDoubleSpinBox>
#include <QFileDialog>
#include <QFileInfo>
#include <QHBoxLayout>
#include <QJsonArray>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QSignalBlocker>
#include <QSlider>
#include <QToolButton>
#include <QWheelEvent>

#include <algorithm>
#include <cmath>
#include <limits>
#include <optional>

#include <Qel/graph/ValueJson.h>

#include "NumberDisplay.h"

using namespace Qt::StringLiterals;

namespace Morvane::Qel::Viewer {

namespace {

constexpr int numSliderSteps = 1000;
constexpr double unlimited = 1e9;

QHBoxLayout* makeRow(QWidget* widget)
{
    auto* row = new QHBoxLayout(widget);
    row->setContentsMargins(0, 0, 0, 0);
    row->setSpacing(4);
    return row;
}

/// A spin box that leaves the wheel to the panel that it scrolls in, unless it has the focus.
class NumberBox : public QDoubleSpinBox
{
public:
    NumberBox(bool isInteger, const PortRange& range)
    {
        constexpr int decimals = 4;
        setDecimals(isInteger ? 0 : decimals);
        setRange(range.minimum.value_or(-unlimited), range.maximum.value_or(unlimited));
        setSingleStep(isInteger ? 1.0 : 0.05);
        setStepType(isInteger ? DefaultStepType : AdaptiveDecimalStepType);
        setKeyboardTracking(false);
        setFocusPolicy(Qt::StrongFocus);
    }
    QString textFromValue(double value) const override
    {
        return decimals() == 0 ? QString::number(static_cast<qint64>(value)) : QString::number(value, 'g', 7);
    }
    // The range would need more room than the numbers that it mostly shows.
    QSize sizeHint() const override { return {widthOf(12), QDoubleSpinBox::sizeHint().height()}; }
    QSize minimumSizeHint() const override
    {
        return {widthOf(7), QDoubleSpinBox::minimumSizeHint().height()};
    }

protected:
    void wheelEvent(QWheelEvent* event) override
    {
        if (hasFocus()) {
            QDoubleSpinBox::wheelEvent(event);
        } else {
            event->ignore();
        }
    }

private:
    int widthOf(int numCharacters) const { return numCharacters * fontMetrics().averageCharWidth(); }
};

class NumberSlider : public QSlider
{
public:
    NumberSlider()
        : QSlider(Qt::Horizontal)
    {
        setRange(0, numSliderSteps);
        setMinimumWidth(60);
        setFocusPolicy(Qt::StrongFocus);
    }

protected:
    void wheelEvent(QWheelEvent* event) override { event->ignore(); }
};

class NumberEditor : public ValueEditor
{
public:
    NumberEditor(bool isInteger, const PortRange& range)
        : m_isInteger(isInteger)
        , m_range(range)
        , m_slider(new NumberSlider)
        , m_box(new NumberBox(isInteger, range))
    {
        QHBoxLayout* row = makeRow(this);
        row->addWidget(m_slider, 1);
        row->addWidget(m_box);
        setFocusProxy(m_box);
        connect(m_slider, &QSlider::valueChanged, this, [this](int step) {
            const double part = static_cast<double>(step) / numSliderSteps;
            const double value = low() + part * (m_high - low());
            // No more digits than a step has.
            const double digit = std::pow(10.0, std::floor(std::log10((m_high - low()) / numSliderSteps)));
            const double rounded = m_isInteger ? std::round(value) : std::round(value / digit) * digit;
            const QSignalBlocker blocker(m_box);
            m_box->setValue(rounded);
            Q_EMIT edited(m_box->value());
        });
        connect(m_box, &QDoubleSpinBox::valueChanged, this, [this](double value) {
            showOnSlider(value);
            Q_EMIT edited(value);
        });
    }

    void setValue(const QJsonValue& value) override
    {
        showNumber(*m_box, value.toDouble());
        showOnSlider(value.toDouble());
    }

private:
    double low() const { return m_range.minimum.value_or(m_lowest); }

    /// Without a documented end the slider reaches four times the value that it starts from.
    void showOnSlider(double value)
    {
        const QSignalBlocker blocker(m_slider);
        if (m_slider->isSliderDown()) {
            return;
        }
        if (m_range.maximum) {
            m_high = *m_range.maximum;
        } else if (value > m_high || m_high == 0.0) {
            m_high = std::max(4.0 * std::abs(value), low() + (m_isInteger ? 10.0 : 1.0));
        }
        m_lowest = value < m_lowest ? -m_high : m_lowest;
        m_slider->setValue(
            static_cast<int>(std::lround(numSliderSteps * (value - low()) / (m_high - low()))));
    }

    bool m_isInteger;
    PortRange m_range;
    double m_lowest = 0.0;
    double m_high = 0.0;
    NumberSlider* m_slider;
    NumberBox* m_box;
};

class BoolEditor : public ValueEditor
{
public:
    BoolEditor()
        : m_box(new QCheckBox)
    {
        makeRow(this)->addWidget(m_box);
        setFocusProxy(m_box);
        connect(m_box, &QCheckBox::clicked, this, [this](bool isOn) { Q_EMIT edited(isOn); });
    }
    void setValue(const QJsonValue& value) override { m_box->setChecked(value.toBool()); }

private:
    QCheckBox* m_box;
};

class ChoiceEditor : public ValueEditor
{
public:
    explicit ChoiceEditor(const QStringList& choices)
        : m_box(new QComboBox)
    {
        m_box->addItems(choices);
        makeRow(this)->addWidget(m_box);
        setFocusProxy(m_box);
        connect(m_box, &QComboBox::textActivated, this, [this](const QString& text) { Q_EMIT edited(text); });
    }
    void setValue(const QJsonValue& value) override { m_box->setCurrentText(value.toString()); }

private:
    QComboBox* m_box;
};

class ColorEditor : public ValueEditor
{
public:
    ColorEditor()
        : m_button(new QPushButton)
    {
        makeRow(this)->addWidget(m_button);
        setFocusProxy(m_button);
        connect(m_button, &QPushButton::clicked, this, [this] {
            auto* dialog = new QColorDialog(m_color, this);
            dialog->setAttribute(Qt::WA_DeleteOnClose);
            dialog->setOption(QColorDialog::ShowAlphaChannel);
            dialog->setOption(QColorDialog::DontUseNativeDialog);
            const auto choose = [this](const QColor& color) {
                if (color.isValid()) {
                    Q_EMIT edited(jsonFromValue(color));
                }
            };
            const QColor before = m_color;
            connect(dialog, &QColorDialog::currentColorChanged, this, choose);
            connect(dialog, &QColorDialog::rejected, this, [choose, before] { choose(before); });
            dialog->open();
        });
    }
    void setValue(const QJsonValue& value) override
    {
        if (m_value == value) {
            return; // A new icon would have the panel laid out.
        }
        m_value = value;
        if (value.isArray()) {
            const QJsonArray parts = value.toArray();
            m_color = QColor(parts[0].toInt(), parts[1].toInt(), parts[2].toInt(), parts[3].toInt(255));
        } else {
            // Files have alpha last, Qt has it first.
            QString text = value.toString();
            m_color = text.size() == 9 ? QColor(u'#' + text.last(2) + text.sliced(1, 6)) : QColor(text);
        }
        QPixmap swatch(32, 16);
        swatch.fill(m_color.isValid() ? m_color : QColor(Qt::transparent));
        m_button->setIcon(swatch);
        m_button->setIconSize(swatch.size());
        m_button->setText(value.isNull() ? tr("not set") : jsonFromValue(m_color).toString());
    }

private:
    QPushButton* m_button;
    std::optional<QJsonValue> m_value;
    QColor m_color;
};

class FileEditor : public ValueEditor
{
public:
    explicit FileEditor(const QString& folder)
        : m_line(new QLineEdit)
    {
        auto* button = new QToolButton;
        button->setText(u"…"_s);
        button->setToolTip(tr("Choose a file"));
        QHBoxLayout* row = makeRow(this);
        row->addWidget(m_line, 1);
        row->addWidget(button);
        setFocusProxy(m_line);
        connect(m_line, &QLineEdit::editingFinished, this, [this] {
            if (m_line->isModified()) {
                m_line->setModified(false);
                Q_EMIT edited(m_line->text());
            }
        });
        connect(button, &QToolButton::clicked, this, [this, folder] {
            auto* dialog = new QFileDialog(this, tr("File"), folder);
            dialog->setAttribute(Qt::WA_DeleteOnClose);
            dialog->setFileMode(QFileDialog::ExistingFile);
            connect(dialog, &QFileDialog::fileSelected, this, [this, folder](const QString& file) {
                Q_EMIT edited(QDir(folder).relativeFilePath(file));
            });
            dialog->open();
        });
    }
    void setValue(const QJsonValue& value) override { m_line->setText(value.toString()); }

private:
    QLineEdit* m_line;
};

class VectorEditor : public ValueEditor
{
public:
    VectorEditor(int count, bool isInteger, const PortRange& range)
    {
        QHBoxLayout* row = makeRow(this);
        for (int i = 0; i < count; ++i) {
            auto* box = new NumberBox(isInteger, range);
            row->addWidget(box, 1);
            m_boxes.append(box);
            connect(box, &QDoubleSpinBox::valueChanged, this, [this] {
                QJsonArray values;
                for (const NumberBox* each : m_boxes) {
                    values.append(each->value());
                }
                Q_EMIT edited(values);
            });
        }
        setFocusProxy(m_boxes.first());
    }
    void setValue(const QJsonValue& value) override
    {
        const QJsonArray values = value.toArray();
        for (qsizetype i = 0; i < m_boxes.size(); ++i) {
            showNumber(*m_boxes[i], values[i].toDouble());
        }
    }

private:
    QList<NumberBox*> m_boxes;
};

} // namespace

ValueEditor* ValueEditor::forPort(const QString& type, const PortRange& range, const QString& folder)
{
    const auto is = [&](const char* name) { return type == QLatin1StringView(name); };
    if (is("bool") || is("Bool")) {
        return new BoolEditor;
    }
    if (is("int") || is("float") || is("double")) {
        return new NumberEditor(is("int"), range);
    }
    if (is("QColor")) {
        return new ColorEditor;
    }
    if (is("QString")) {
        return new FileEditor(folder);
    }
    if (is("QVector2D") || is("QVector3D") || is("QVector4D")) {
        return new VectorEditor(QStringView(type).sliced(7, 1).toInt(), false, range);
    }
    if (is("QSize") || is("QRect")) {
        return new VectorEditor(is("QSize") ? 2 : 4, true, range);
    }
    return nullptr;
}

ValueEditor* ValueEditor::forOption(const OptionDescription& option, const QString& folder)
{
    if (!option.choices.isEmpty()) {
        return new ChoiceEditor(option.choices);
    }
    if (option.isFile) {
        return new FileEditor(folder);
    }
    switch (option.defaultValue.userType()) {
    case QMetaType::Bool:
        return new BoolEditor;
    case QMetaType::Int:
    case QMetaType::Float:
    case QMetaType::Double:
        return new NumberEditor(option.defaultValue.userType() == QMetaType::Int, {});
    case QMetaType::QColor:
        return new ColorEditor;
    default:
        return nullptr;
    }
}

} // namespace Morvane::Qel::Viewer
