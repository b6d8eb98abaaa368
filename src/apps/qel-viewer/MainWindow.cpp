#include "MainWindow.h"

#include <QDockWidget>
#include <QFileInfo>
#include <QLabel>
#include <QStatusBar>

#include "ErrorPanel.h"

using namespace Qt::StringLiterals;

namespace Morvane::Qel::Viewer {

MainWindow::MainWindow()
    : m_pages(new QStackedWidget)
    , m_view(new TextureView(m_session))
{
    setCentralWidget(m_pages);
    m_pages->addWidget(m_view);
    makePanels();
    makeActions();
    connect(&m_document, &Document::opened, this, [this] {
        m_session.clear();
        m_view->setFollowsWindow(m_view->followsWindow());
        m_view->show(OutputName());
    });
    connect(&m_document, &Document::changed, this, [this] {
        m_session.setGraph(m_document.graph());
        updateTitle();
    });
    connect(&m_document.undoStack(), &QUndoStack::cleanChanged, this, &MainWindow::updateTitle);
    connect(&m_session, &GraphSession::errorsChanged, this, &MainWindow::updateErrors, Qt::QueuedConnection);
    connect(m_view, &TextureView::cameraMoved, this,
            [this](const CameraDescription& camera) { m_session.setCamera(camera); });
    updateTitle();
    resize(1440, 900);
}

MainWindow::~MainWindow()
{
    // The view releases the session's GL objects.
    delete m_view;
}

bool MainWindow::open(const QString& file, const QString& model)
{
    m_fileErrors.clear();
    const bool good = m_document.open(file, model, &m_fileErrors);
    updateErrors();
    return good;
}

void MainWindow::makePanels()
{
    m_errors = new ErrorPanel;
    m_errorDock = addPanel(m_errors, u"errorPanel"_s, tr("Errors"), Qt::BottomDockWidgetArea);
    m_errorDock->hide();
    connect(m_errors, &ErrorPanel::fileChosen, this, &openEditor);
    m_status = new QLabel;
    statusBar()->addWidget(m_status, 1);
}

QDockWidget* MainWindow::addPanel(QWidget* panel, const QString& name, const QString& title,
                                  Qt::DockWidgetArea area)
{
    auto* dock = new QDockWidget(title, this);
    dock->setObjectName(name);
    dock->setWidget(panel);
    addDockWidget(area, dock);
    return dock;
}

void MainWindow::makeActions() {}

void MainWindow::updateTitle()
{
    setWindowTitle(m_document.isOpen()
                       ? tr("%1[*] - qel-viewer").arg(QFileInfo(m_document.graph().file).fileName())
                       : u"qel-viewer"_s);
    setWindowModified(m_document.isModified());
}

void MainWindow::updateErrors()
{
    const QStringList errors = m_fileErrors + m_session.errors();
    m_errors->setErrors(errors);
    m_errorDock->setVisible(!errors.isEmpty());
}

} // namespace Morvane::Qel::Viewer
