#pragma once

#include <QTreeWidget>

#include "GraphSession.h"

namespace Morvane::Qel::Viewer {

class OutputStore;

/// The passes in running order with their outputs, to choose what is shown.
class OutputTree : public QTreeWidget
{
    Q_OBJECT
public:
    OutputTree(GraphSession& session, OutputStore& store, QWidget* parent = nullptr);

    /// Marks an output as shown.
    void select(const OutputName& name);
    /// Writes the value of each output, by name, beside it; nothing takes the values away.
    void setValues(const QHash<QString, QString>& values);

Q_SIGNALS:
    void chosen(const OutputName& name);

private:
    void rebuild();
    void updateOutputs();

    GraphSession& m_session;
    OutputStore& m_store;
    OutputName m_selected;
};

} // namespace Morvane::Qel::Viewer
