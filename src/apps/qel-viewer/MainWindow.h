#pragma once

#include <QMainWindow>
#include <QTimer>

#include "Document.h"
#include "FileWatch.h"
#include "GraphSession.h"
#include "MessageLog.h"
#include "Recovery.h"
#include "TextureView.h"

class QDockWidget;
class QMenu;
class QStackedWidget;
class QToolBar;

namespace Morvane::Qel::Viewer {

class AnimationExport;
class CameraPanel;
class ComparePanel;
class ControlPanel;
class ErrorPanel;
class GraphView;
class OutputStore;
class OutputTree;
class SteadyLabel;
class StartPage;
class TimeLine;
class TimePanel;

/// The window of the viewer: a picture, and panels around it that read and change the document.
class MainWindow : public QMainWindow
{
    Q_OBJECT
public:
    MainWindow();
    ~MainWindow() override;

    /// Opens a graph file, with another model if one is named, and lists what is wrong with it if it cannot.
    /// If unsaved changes to it are left from a session that ended, asks first whether to restore them.
    bool open(const QString& file, const QString& model = {});
    /// Opens a graph, replaces the model by one, or sets an image as the input of the first pass that reads
    /// one, depending on the file.
    void drop(const QString& file);
    /// Saves the graph, and asks before comments, layout or includes of its file are lost. Returns whether it
    /// is saved; otherwise `then` follows if the user agrees.
    bool save(const QString& file, const std::function<void()>& then = {});
    /// Writes the shown texture as PNG or EXR, with its values and not as they are displayed.
    bool savePicture(const QString& file);
    /// Begins to write the animation as a video or as numbered images, with a dialog that shows how far it
    /// is. Returns false if it cannot begin.
    bool saveAnimation(const QString& file);

    Document& document() { return m_document; }
    GraphSession& session() { return m_session; }
    TextureView& view() { return *m_view; }
    TimeLine& timeLine() { return *m_timeLine; }
    GraphView& graphView() { return *m_graphView; }
    /// What the error panel lists.
    QStringList errors() const { return m_graphFileErrors + m_fileErrors + m_session.errors(); }

protected:
    void closeEvent(QCloseEvent* event) override;
    void dragEnterEvent(QDragEnterEvent* event) override;
    void dropEvent(QDropEvent* event) override;

private:
    void makePanels();
    void connectPanels();
    void makeActions();
    void makeFileMenu();
    bool finishSaving(GraphUpdate update, const QString& error);
    void updateTitle();
    void updateErrors();
    void updateRecentFiles(const QString& newest);
    void setFileErrors(const QStringList& errors);
    void inspect();
    void setFocus(const QPointF& position);
    void showOpenDialog();
    void showSaveDialog(const QString& title, const QString& filter, const QString& name,
                        const std::function<void(const QString&)>& save);
    void showShortcuts();
    void focusNextPanel();
    void showMessage(const QString& text);
    /// Calls a function at once, or after the user has agreed to lose unsaved changes.
    void afterAsking(const std::function<void()>& call);
    void restore();
    bool openNow(const QString& file, const QString& model);
    void askForRecovery(const QString& file, const QString& model);
    void recover();
    /// Shows the examples instead of the picture and its panels, or the other way round.
    void showStartPage(bool isShown);
    QDockWidget* addPanel(QWidget* panel, const QString& name, const QString& title, Qt::DockWidgetArea area);

    MessageLog m_log;
    Document m_document;
    GraphSession m_session;
    FileWatch m_watch;
    Recovery m_recovery;
    QStackedWidget* m_pages;
    /// The picture and, below it, the time line.
    QWidget* m_viewPage;
    TextureView* m_view;
    TimeLine* m_timeLine;
    OutputStore* m_store;
    StartPage* m_startPage = nullptr;
    OutputTree* m_outputs = nullptr;
    ControlPanel* m_controls = nullptr;
    CameraPanel* m_camera = nullptr;
    ComparePanel* m_compare = nullptr;
    TimePanel* m_times = nullptr;
    GraphView* m_graphView = nullptr;
    ErrorPanel* m_errors = nullptr;
    QDockWidget* m_errorDock = nullptr;
    QList<QDockWidget*> m_docks;
    QToolBar* m_displayBar = nullptr;
    QMenu* m_recent = nullptr;
    /// What needs an animation.
    QList<QAction*> m_timeActions;
    std::unique_ptr<AnimationExport> m_export;
    SteadyLabel* m_status = nullptr;
    /// What is wrong with the graph file since it was changed by another program.
    QStringList m_graphFileErrors;
    /// What is wrong with files that could not be read and changes that were not made, until the next change.
    QStringList m_fileErrors;
    /// The panels as they were before the start page took their place.
    QByteArray m_layout;
    QTimer m_inspection;
    QPoint m_texel;
    bool m_isClosing = false;
};

} // namespace Morvane::Qel::Viewer
