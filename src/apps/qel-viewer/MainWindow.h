#pragma once

#include <QMainWindow>
#include <QStackedWidget>

#include "Document.h"
#include "GraphSession.h"
#include "MessageLog.h"
#include "TextureView.h"

class QDockWidget;
class QLabel;

namespace Morvane::Qel::Viewer {

class ErrorPanel;

/// The window of the viewer: a picture, and panels around it that read and change the document.
class MainWindow : public QMainWindow
{
    Q_OBJECT
public:
    MainWindow();
    ~MainWindow() override;

    /// Opens a graph file, with another model if one is named, and lists what is wrong with it if it cannot.
    bool open(const QString& file, const QString& model = {});

    Document& document() { return m_document; }
    GraphSession& session() { return m_session; }
    TextureView& view() { return *m_view; }

private:
    void makeActions();
    void makePanels();
    void updateTitle();
    void updateErrors();
    QDockWidget* addPanel(QWidget* panel, const QString& name, const QString& title, Qt::DockWidgetArea area);

    MessageLog m_log;
    Document m_document;
    GraphSession m_session;
    QStackedWidget* m_pages;
    TextureView* m_view;
    ErrorPanel* m_errors = nullptr;
    QDockWidget* m_errorDock = nullptr;
    QLabel* m_status = nullptr;
    /// What is wrong with files that could not be read.
    QStringList m_fileErrors;
};

} // namespace Morvane::Qel::Viewer
