#pragma once

#include <QTimer>
#include <QWidget>

class QCheckBox;
class QComboBox;

namespace Morvane::Qel::Viewer {

class OutputStore;
class SteadyLabel;
class TextureView;

/// Compares the shown output with another one or with a snapshot.
class ComparePanel : public QWidget
{
    Q_OBJECT
public:
    ComparePanel(TextureView& view, OutputStore& store, QWidget* parent = nullptr);

    void takeSnapshot();

private:
    void updateChoices();
    void apply();
    void measure();

    TextureView& m_view;
    OutputStore& m_store;
    QComboBox* m_with;
    QCheckBox* m_difference;
    SteadyLabel* m_result;
    /// Metrics wait until the picture rests.
    QTimer m_timer;
};

} // namespace Morvane::Qel::Viewer
