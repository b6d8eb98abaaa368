#pragma once

#include <QScrollArea>

#include <functional>
#include <vector>

#include <Qel/graph/GraphDescription.h>

class QGridLayout;
class QLabel;
class QToolButton;
class QVBoxLayout;

namespace Morvane::Qel::Viewer {

class Document;
class GraphSession;
class ValueEditor;

/// Controls for the parameters of the graph and for the inputs and options of all passes, made from the
/// descriptions of their types. Values that follow a parameter or keys are shown as they are in the frame.
class ControlPanel : public QScrollArea
{
    Q_OBJECT
public:
    ControlPanel(Document& document, GraphSession& session, QWidget* parent = nullptr);

    /// Scrolls to the controls of a pass.
    void reveal(const QString& pass);

Q_SIGNALS:
    /// A value cannot be set, for a reason in one line.
    void failed(const QString& reason);

private:
    /// A value that the user can change.
    struct Row
    {
        /// Empty for a parameter of the graph.
        QString pass;
        /// Full name of an input, or the name of an option or a parameter.
        QString name;
        bool isOption;
        /// As it stands in the panel.
        QString title;
        QString unit;
        QString toolTip;
        /// The default of the pass; a parameter has the value in the file.
        QJsonValue initial;
        QLabel* label = nullptr;
        ValueEditor* editor = nullptr;
        QToolButton* reset = nullptr;
    };

    void update();
    void rebuild();
    void addParameters(QVBoxLayout* column);
    void addPass(const PassSetting& pass, QVBoxLayout* column);
    void addRow(QGridLayout* grid, const Row& row, ValueEditor* editor);
    void addSection(QGridLayout* grid, const QString& name, const QString& title, const QString& toolTip,
                    QVBoxLayout* column);
    QJsonValue valueOf(const Row& row) const;
    void showFrameValues();
    void show(const Row& row);
    void change(const Row& row, const QJsonValue& value);

    Document& m_document;
    GraphSession& m_session;
    std::vector<Row> m_rows;
    /// The passes and ports that the rows were made for.
    QString m_structure;
};

} // namespace Morvane::Qel::Viewer
