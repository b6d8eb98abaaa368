#include "ControlPanel.h"

#include <QFileInfo>
#include <QGridLayout>
#include <QJsonObject>
#include <QLabel>
#include <QScrollBar>
#include <QToolButton>
#include <QVBoxLayout>

#include <Qel/graph/PassRegistry.h>
#include <Qel/graph/ValueJson.h>

#include "Document.h"
#include "GraphEdits.h"
#include "PortRange.h"
#include "ValueEditor.h"

using namespace Qt::StringLiterals;

namespace Morvane::Qel::Viewer {

namespace {

/// Inputs that the camera and the window set, unless the graph sets them itself.
bool isFrameValue(const QString& port)
{
    static const QStringList names{
        u"Viewport"_s,       u"ProjectionMatrix"_s, u"CameraMatrix"_s, u"NearPlane"_s,   u"FarPlane"_s,
        u"SceneBoundsMin"_s, u"SceneBoundsMax"_s,   u"Time"_s,         u"FrameNumber"_s, u"NewFrame"_s};
    return names.contains(PortName::parse(port).name);
}

QString toolTipOf(const InputDescription& input)
{
    QStringList lines{u"<b>%1</b>"_s.arg(PortName::parse(input.name).name.toHtmlEscaped())};
    const auto add = [&](const QString& title, const QString& text) {
        if (!text.isEmpty()) {
            lines.append(title + text.toHtmlEscaped());
        }
    };
    add({}, input.meaning);
    add(ControlPanel::tr("Range: "), input.range);
    add(ControlPanel::tr("When missing: "), input.whenMissing);
    return lines.join(u"<br>"_s);
}

/// Whether the control of an input would do something: it is not connected and nothing else sets it.
bool isEditable(const PassSetting& pass, const InputDescription& input)
{
    const InputSetting* setting = findInput(pass, input.name);
    return setting ? !isReference(setting->value) : !isFrameValue(input.name);
}

} // namespace

ControlPanel::ControlPanel(Document& document, QWidget* parent)
    : QScrollArea(parent)
    , m_document(document)
{
    setWidgetResizable(true);
    setFrameShape(NoFrame);
    setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    setMinimumWidth(300);
    connect(&document, &Document::changed, this, &ControlPanel::update);
}

void ControlPanel::update()
{
    const GraphDescription& graph = m_document.graph();
    QStringList structure{graph.file};
    for (const PassSetting& pass : graph.passes) {
        structure << pass.name << pass.type;
        for (const InputDescription& input : portsOf(pass).inputs) {
            if (isEditable(pass, input)) {
                structure << input.name;
            }
        }
    }
    if (const QString text = structure.join(u'\n'); text != m_structure) {
        m_structure = text;
        rebuild();
    }
    for (const Row& row : m_rows) {
        show(row);
    }
}

void ControlPanel::rebuild()
{
    m_rows.clear();
    auto* content = new QWidget;
    auto* column = new QVBoxLayout(content);
    column->setContentsMargins(8, 8, 8, 8);
    column->setSpacing(2);
    for (const PassSetting& pass : m_document.graph().passes) {
        addPass(pass, column);
    }
    if (m_rows.empty()) {
        auto* nothing = new QLabel(tr("No pass of this graph has values to set."));
        nothing->setWordWrap(true);
        column->addWidget(nothing);
    }
    column->addStretch(1);
    setWidget(content);
}

void ControlPanel::addPass(const PassSetting& pass, QVBoxLayout* column)
{
    const PassDescription* description = PassRegistry::builtin().description(pass.type);
    if (!description) {
        return;
    }
    auto* rows = new QWidget;
    auto* grid = new QGridLayout(rows);
    grid->setContentsMargins(18, 2, 0, 8);
    grid->setVerticalSpacing(3);
    grid->setColumnStretch(1, 1);
    const auto addRow = [&](const QString& name, bool isOption, const QString& title, const QString& toolTip,
                            const QVariant& initial, ValueEditor* editor) {
        if (!editor) {
            return;
        }
        auto* label = new QLabel(title);
        auto* reset = new QToolButton;
        reset->setText(u"↺"_s);
        reset->setAutoRaise(true);
        reset->setToolTip(tr("Back to the default"));
        reset->setObjectName(u"reset."_s + pass.name + u'.' + title);
        label->setToolTip(toolTip);
        editor->setToolTip(toolTip);
        editor->setObjectName(pass.name + u'.' + title);
        editor->setAccessibleName(pass.name + u' ' + title);
        label->setBuddy(editor);
        const int line = grid->rowCount();
        grid->addWidget(label, line, 0);
        grid->addWidget(editor, line, 1);
        grid->addWidget(reset, line, 2);
        const Row row{pass.name, name, isOption, jsonFromValue(initial), label, editor, reset};
        m_rows.push_back(row);
        connect(editor, &ValueEditor::edited, this,
                [this, row](const QJsonValue& value) { change(row, value); });
        connect(reset, &QToolButton::clicked, this,
                [this, row] { change(row, QJsonValue(QJsonValue::Undefined)); });
    };
    const QString folder = QFileInfo(m_document.graph().file).absolutePath();
    for (const InputDescription& input : portsOf(pass).inputs) {
        if (isEditable(pass, input)) {
            const PortName port = PortName::parse(input.name);
            const PortRange range = PortRange::of(input);
            const QString type = port.type.isEmpty() ? u"int"_s : port.type;
            ValueEditor* editor = ValueEditor::forPort(type, range, folder);
            addRow(input.name, false, port.name, toolTipOf(input), input.defaultValue, editor);
            if (editor && !range.unit.isEmpty()) {
                m_rows.back().label->setText(
                    u"%1 <span style='color:gray'>%2</span>"_s.arg(port.name, range.unit));
            }
        }
    }
    for (const OptionDescription& option : description->options) {
        addRow(option.name, true, option.name,
               u"<b>%1</b><br>%2"_s.arg(option.name, option.meaning.toHtmlEscaped()), option.defaultValue,
               ValueEditor::forOption(option, folder));
    }
    if (grid->count() == 0) {
        delete rows;
        return;
    }
    auto* header = new QToolButton;
    header->setText(pass.name);
    header->setToolTip(u"<b>%1</b><br>%2"_s.arg(pass.type, description->summary.toHtmlEscaped()));
    header->setObjectName(u"header."_s + pass.name);
    header->setCheckable(true);
    header->setChecked(true);
    header->setAutoRaise(true);
    header->setToolButtonStyle(Qt::ToolButtonTextBesideIcon);
    header->setArrowType(Qt::DownArrow);
    header->setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Fixed);
    QFont bold = header->font();
    bold.setBold(true);
    header->setFont(bold);
    connect(header, &QToolButton::toggled, rows, [header, rows](bool isOpen) {
        rows->setVisible(isOpen);
        header->setArrowType(isOpen ? Qt::DownArrow : Qt::RightArrow);
    });
    column->addWidget(header);
    column->addWidget(rows);
}

void ControlPanel::show(const Row& row)
{
    const PassSetting* pass = findPass(m_document.graph(), row.pass);
    if (!pass) {
        return;
    }
    QJsonValue value(QJsonValue::Undefined);
    if (row.isOption) {
        value = pass->options.value(row.name);
    } else if (const InputSetting* setting = findInput(*pass, row.name)) {
        value = setting->value;
    }
    const bool isSet = !value.isUndefined();
    row.editor->setValue(isSet ? value : row.initial);
    row.reset->setEnabled(isSet);
    QFont font = row.label->font();
    font.setItalic(!isSet);
    row.label->setFont(font);
}

/// Sets a value of the graph, or takes it away if it is undefined.
void ControlPanel::change(const Row& row, const QJsonValue& value)
{
    const QString name = row.pass + u'.' + (row.isOption ? row.name : PortName::parse(row.name).name);
    const auto apply = [&](GraphDescription& graph) {
        PassSetting* pass = findPass(graph, row.pass);
        if (!pass) {
            return;
        }
        if (row.isOption && value.isUndefined()) {
            pass->options.remove(row.name);
        } else if (row.isOption) {
            pass->options[row.name] = value;
        } else if (value.isUndefined()) {
            resetInput(*pass, row.name);
        } else {
            setInput(*pass, row.name, value);
        }
    };
    m_document.edit(value.isUndefined() ? tr("Reset of %1").arg(name) : tr("Change of %1").arg(name), apply,
                    value.isUndefined() ? QString() : name);
}

void ControlPanel::reveal(const QString& pass)
{
    if (auto* header = findChild<QToolButton*>(u"header."_s + pass)) {
        header->setChecked(true);
        ensureWidgetVisible(header, 0, 0);
        verticalScrollBar()->setValue(header->y());
    }
}

} // namespace Morvane::Qel::Viewer
