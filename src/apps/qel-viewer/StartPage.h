#pragma once

#include <QListWidget>
#include <QProcess>

namespace Morvane::Qel::Viewer {

/// The example graphs as pictures, which `qel` renders one after the other when they are first needed.
class StartPage : public QListWidget
{
    Q_OBJECT
public:
    explicit StartPage(QWidget* parent = nullptr);
    ~StartPage() override;

    /// The folder of the example graphs, installed or in the source tree; empty if there is none.
    static QString examplesFolder();

Q_SIGNALS:
    void chosen(const QString& graph);

protected:
    void showEvent(QShowEvent* event) override;

private:
    void renderNext();
    static QString pictureOf(const QString& graph);

    QProcess m_process;
    int m_next = 0;
};

} // namespace Morvane::Qel::Viewer
