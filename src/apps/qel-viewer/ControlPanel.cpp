#include "ControlPanel.h"

#include <QFileInfo>
#include <QGridLayout>
#include <QJsonArray>
#include <QLabel>
#include <QScrollBar>
#include <QToolButton>
#include <QVBoxLayout>

#include <Qel/graph/PassRegistry.h>
#include <Qel/graph/ValueJson.h>

#include "Document.h"
#include "GraphEdits.h"
#include "GraphSession.h"
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

QString toolTipOf(const InputDescription& input, const QString& title)
{
    QStringList lines{u"<b>%1</b>"_s.arg(title.toHtmlEscaped())};
    const auto add = [&](const QString& lead, const QString& text) {
        if (!text.isEmpty()) {
            lines.append(lead + text.toHtmlEscaped());
        }
    };
    add({}, input.meaning);
    add(ControlPanel::tr("Range: "), input.range);
    add(ControlPanel::tr("When missing: "), input.whenMissing);
    return lines.join(u"<br>"_s);
}

/// Whether an input has a value of its own: it is not connected and nothing else sets it.
bool hasValue(const GraphDescription& graph, const PassSetting& pass, const InputDescription& input)
{
    const InputSetting* setting = findInput(pass, input.name);
    return setting ? !isReference(graph.resolved(setting->value)) : !isFrameValue(input.name);
}

QString typeOf(const InputDescription& input)
{
    const QString type = PortName::parse(input.name).type;
    return type.isEmpty() ? u"int"_s : type;
}

/// The type of a value that no port has: a member of the camera, for example.
QString typeOf(const QJsonValue& value)
{
    if (value.isArray()) {
        const qsizetype count = value.toArray().size();
        return count >= 2 && count <= 4 ? u"QVector%1D"_s.arg(count) : QString();
    }
    return value.isBool()                      ? u"bool"_s
           : value.isDouble()                  ? u"float"_s
           : value.toString().startsWith(u'#') ? u"QColor"_s
           : value.isString()                  ? u"QString"_s
                                               : QString();
}

/// The rows of a section, in a widget of their own.
QGridLayout* makeGrid()
{
    auto* grid = new QGridLayout(new QWidget);
    grid->setContentsMargins(18, 2, 0, 8);
    grid->setVerticalSpacing(3);
    grid->setColumnStretch(1, 1);
    return grid;
}

/// The value that is in use if the graph gives none.
QJsonValue defaultOf(const InputDescription& input)
{
    bool isNumber = false;
    const double number = input.whenMissing.toDouble(&isNumber);
    return !input.defaultValue.isValid() && isNumber ? QJsonValue(number) : jsonFromValue(input.defaultValue);
}

} // namespace

ControlPanel::ControlPanel(Document& document, GraphSession& session, QWidget* parent)
    : QScrollArea(parent)
    , m_document(document)
    , m_session(session)
{
    setWidgetResizable(true);
    setFrameShape(NoFrame);
    setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    setMinimumWidth(300);
    connect(&document, &Document::changed, this, &ControlPanel::update);
    connect(&session, &GraphSession::frameNumberChanged, this, &ControlPanel::showFrameValues);
}

void ControlPanel::update()
{
    const GraphDescription& graph = m_document.graph();
    QStringList structure{graph.file};
    for (const ParameterDescription& parameter : graph.parameters) {
        structure << u'$' + parameter.name;
    }
    for (const PassSetting& pass : graph.passes) {
        structure << pass.name << pass.type;
        for (const InputDescription& input : portsOf(pass).inputs) {
            if (hasValue(graph, pass, input)) {
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

/// The values that follow keys have changed.
void ControlPanel::showFrameValues()
{
    for (const Row& row : m_rows) {
        if (isReference(valueOf(row))) {
            show(row);
        }
    }
}

void ControlPanel::rebuild()
{
    m_rows.clear();
    auto* content = new QWidget;
    auto* column = new QVBoxLayout(content);
    column->setContentsMargins(8, 8, 8, 8);
    column->setSpacing(2);
    addParameters(column);
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

void ControlPanel::addRow(QGridLayout* grid, const Row& described, ValueEditor* editor)
{
    if (!editor) {
        return;
    }
    Row row = described;
    row.editor = editor;
    row.label = new QLabel;
    row.label->setWordWrap(true);
    // Rather than the reset button, a long name is cut.
    constexpr int narrowest = 60;
    row.label->setMinimumWidth(narrowest);
    row.reset = new QToolButton;
    row.reset->setText(u"↺"_s);
    row.reset->setAutoRaise(true);
    row.reset->setToolTip(row.pass.isEmpty() ? tr("Back to the value in the file")
                                             : tr("Back to the default"));
    const QString name = row.pass.isEmpty() ? u'$' + row.name : row.pass + u'.' + row.title;
    row.reset->setObjectName(u"reset."_s + name);
    row.reset->setAccessibleName(tr("Reset %1").arg(name));
    editor->setObjectName(name);
    editor->setAccessibleName(name);
    row.label->setBuddy(editor);
    const int line = grid->rowCount();
    grid->addWidget(row.label, line, 0);
    grid->addWidget(editor, line, 1);
    grid->addWidget(row.reset, line, 2);
    m_rows.push_back(row);
    connect(editor, &ValueEditor::edited, this, [this, row](const QJsonValue& value) { change(row, value); });
    connect(row.reset, &QToolButton::clicked, this,
            [this, row] { change(row, QJsonValue(QJsonValue::Undefined)); });
}

void ControlPanel::addSection(QGridLayout* grid, const QString& name, const QString& title,
                              const QString& toolTip, QVBoxLayout* column)
{
    QWidget* rows = grid->parentWidget();
    if (grid->count() == 0) {
        delete rows;
        return;
    }
    auto* header = new QToolButton;
    header->setText(title);
    header->setToolTip(toolTip);
    header->setObjectName(name);
    header->setCheckable(true);
    header->setChecked(true);
    header->setAutoRaise(true);
    header->setToolButtonStyle(Qt::ToolButtonTextBesideIcon);
    header->setArrowType(Qt::DownArrow);
    header->setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Fixed);
    header->setFocusPolicy(Qt::StrongFocus);
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

void ControlPanel::addParameters(QVBoxLayout* column)
{
    const GraphDescription& graph = m_document.graph();
    const QString folder = QFileInfo(graph.file).absolutePath();
    QGridLayout* grid = makeGrid();
    for (const ParameterDescription& parameter : graph.parameters) {
        const QJsonValue value = graph.resolved(u'$' + parameter.name);
        const std::vector<ParameterUse> uses = usesOf(graph, parameter.name);
        if (isReference(value) || isParameterUse(parameter.value)) {
            continue; // A connection, a model, or what another parameter sets.
        }
        Row row{{}, parameter.name, false, parameter.name, {}, {}, {}};
        QStringList places;
        for (const ParameterUse& use : uses) {
            places.append(use.place);
        }
        ValueEditor* editor = nullptr;
        const bool isPort = !uses.empty() && uses.front().input;
        if (isPort) {
            const InputDescription& input = *uses.front().input;
            const PortRange range = PortRange::of(input);
            row.unit = range.unit;
            row.toolTip = toolTipOf(input, parameter.name);
            editor = ValueEditor::forPort(typeOf(input), range, folder);
        } else {
            row.toolTip = u"<b>%1</b>"_s.arg(parameter.name.toHtmlEscaped());
            if (!uses.empty()) {
                row.toolTip += u"<br>"_s + uses.front().option->meaning.toHtmlEscaped();
            }
            editor = uses.empty() ? ValueEditor::forPort(typeOf(value), {}, folder)
                                  : ValueEditor::forOption(*uses.front().option, folder);
        }
        if (!places.isEmpty()) {
            row.toolTip += u"<br>"_s + tr("Sets %1").arg(places.join(u", "_s)).toHtmlEscaped();
        }
        addRow(grid, row, editor);
    }
    addSection(grid, u"parameters"_s, tr("Parameters"), tr("The parameters of the graph"), column);
}

void ControlPanel::addPass(const PassSetting& pass, QVBoxLayout* column)
{
    const GraphDescription& graph = m_document.graph();
    const PassDescription* description = PassRegistry::builtin().description(pass.type);
    if (!description) {
        return;
    }
    QGridLayout* grid = makeGrid();
    // Paths start from the file that they are written in.
    const QString folder =
        QFileInfo(pass.source.file.isEmpty() ? graph.file : pass.source.file).absolutePath();
    for (const InputDescription& input : portsOf(pass).inputs) {
        if (hasValue(graph, pass, input)) {
            const QString name = PortName::parse(input.name).name;
            const PortRange range = PortRange::of(input);
            addRow(grid,
                   {pass.name, input.name, false, name, range.unit, toolTipOf(input, name), defaultOf(input)},
                   ValueEditor::forPort(typeOf(input), range, folder));
        }
    }
    for (const OptionDescription& option : description->options) {
        addRow(grid,
               {pass.name,
                option.name,
                true,
                option.name,
                {},
                u"<b>%1</b><br>%2"_s.arg(option.name, option.meaning.toHtmlEscaped()),
                jsonFromValue(option.defaultValue)},
               ValueEditor::forOption(option, folder));
    }
    addSection(grid, u"header."_s + pass.name, pass.name,
               u"<b>%1</b><br>%2"_s.arg(pass.type, description->summary.toHtmlEscaped()), column);
}

/// The value in the graph; undefined for a default.
QJsonValue ControlPanel::valueOf(const Row& row) const
{
    const GraphDescription& graph = m_document.graph();
    if (row.pass.isEmpty()) {
        const ParameterDescription* parameter = findParameter(graph, row.name);
        const ParameterDescription* saved = findParameter(m_document.saved(), row.name);
        const bool isSaved = parameter && saved && saved->value == parameter->value;
        return !parameter || (isSaved && !isReference(parameter->value)) ? QJsonValue(QJsonValue::Undefined)
                                                                         : parameter->value;
    }
    const PassSetting* pass = findPass(graph, row.pass);
    if (pass && row.isOption) {
        return pass->options.value(row.name);
    }
    const InputSetting* setting = pass ? findInput(*pass, row.name) : nullptr;
    return setting ? setting->value : QJsonValue(QJsonValue::Undefined);
}

void ControlPanel::show(const Row& row)
{
    const GraphDescription& graph = m_document.graph();
    const QJsonValue value = valueOf(row);
    const bool isSet = !value.isUndefined();
    const bool isBound = isReference(value);
    QJsonValue shown = isSet ? graph.resolved(value, m_session.frameNumber()) : row.initial;
    if (!isSet && row.pass.isEmpty()) {
        shown = graph.resolved(u'$' + row.name);
    }
    row.editor->setValue(shown);
    row.editor->setEnabled(!isBound);
    row.reset->setEnabled(isSet && !isBound);
    // What the value follows, by way of other parameters too.
    const auto follows = [&] {
        QJsonValue at = value;
        for (size_t i = 0; isParameterUse(at) && i <= graph.parameters.size(); ++i) {
            const ParameterDescription* parameter = findParameter(graph, at.toString().sliced(1));
            at = parameter ? parameter->value : QJsonValue();
        }
        return isKeyed(at) ? tr("keyed") : QString();
    };
    QStringList notes;
    QString toolTip = row.toolTip;
    if (isParameterUse(value)) {
        notes << value.toString();
        toolTip += u"<br>"_s + tr("Follows the parameter %1").arg(value.toString().sliced(1)).toHtmlEscaped();
    }
    if (isBound && !follows().isEmpty()) {
        notes << follows();
        toolTip += u"<br>"_s + tr("Keyed: this is the value in the frame");
    }
    notes << row.unit;
    notes.removeAll(QString());
    row.label->setText(notes.isEmpty() ? row.title.toHtmlEscaped()
                                       : u"%1 <span style='color:gray'>%2</span>"_s.arg(
                                             row.title.toHtmlEscaped(), notes.join(u", "_s).toHtmlEscaped()));
    row.label->setToolTip(toolTip);
    row.editor->setToolTip(toolTip);
    QFont font = row.label->font();
    font.setItalic(!isSet);
    row.label->setFont(font);
}

/// Sets a value of the graph, or takes it away if it is undefined.
void ControlPanel::change(const Row& row, const QJsonValue& value)
{
    const QString name = row.pass.isEmpty() ? row.name : row.pass + u'.' + row.title;
    QString error;
    const auto apply = [&](GraphDescription& graph) {
        PassSetting* pass = findPass(graph, row.pass);
        if (row.pass.isEmpty()) {
            const ParameterDescription* saved = findParameter(m_document.saved(), row.name);
            const bool isReset = value.isUndefined();
            if (!isReset || saved) {
                graph.setParameter(row.name, isReset ? saved->value : value, &error);
            }
        } else if (!pass) {
            return;
        } else if (row.isOption && value.isUndefined()) {
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
                    value.isUndefined() ? QString() : (row.pass.isEmpty() ? u'$' + name : name));
    if (!error.isEmpty()) {
        show(row);
        Q_EMIT failed(error);
    }
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
