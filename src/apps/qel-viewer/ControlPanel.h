#pragma once

#include <QScrollArea>

#include <functional>
#include <vector>

#include <Qel/graph/GraphDescription.h>

class QLabel;
class QToolButton;
class QVBoxLayout;

namespace Morvane::Qel::Viewer {

class Document;
class ValueEditor;

/// Controls for the inputs and options of all passes, made from the descriptions of their types.
class ControlPanel : public QScrollArea
{
    Q_OBJECT
public:
    explicit ControlPanel(Document& document, QWidget* parent = nullptr);

    /// Scrolls to the controls of a pass.
    void reveal(const QString& pass);

private:
    /// A value of a pass that the user can change.
    struct Row
    {
        QString pass;
        /// Full name of an input, or the name of an option.
        QString name;
        bool isOption;
        QJsonValue initial;
        QLabel* label;
        ValueEditor* editor;
        QToolButton* reset;
    };

    void update();
    void rebuild();
    void addPass(const PassSetting& pass, QVBoxLayout* column);
    void show(const Row& row);
    void change(const Row& row, const QJsonValue& value);

    Document& m_document;
    std::vector<Row> m_rows;
    /// The passes and ports that the rows were made for.
    QString m_structure;
};

} // namespace Morvane::Qel::Viewer
