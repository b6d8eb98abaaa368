#pragma once

#include <QListWidget>

namespace Morvane::Qel::Viewer {

/// Lists what is wrong with the graph and its files. A click on a line, or Enter, opens the file in an
/// editor.
class ErrorPanel : public QListWidget
{
    Q_OBJECT
public:
    explicit ErrorPanel(QWidget* parent = nullptr);

    void setErrors(const QStringList& errors);

protected:
    void keyPressEvent(QKeyEvent* event) override;

Q_SIGNALS:
    /// A line that names a file was activated; the line number is 0 if it names none.
    void fileChosen(const QString& file, int line);

private:
    void choose(const QListWidgetItem* item);
};

/// The file and the line that a message "FILE:LINE:COLUMN: ..." or "FILE: ..." begins with, or names after
/// that; an empty file if there is none.
std::pair<QString, int> placeIn(const QString& message);

/// Opens a file in the editor that the environment variable VISUAL names, or else in the one of the desktop.
/// Returns whether one was started.
bool openEditor(const QString& file, int line);

} // namespace Morvane::Qel::Viewer
