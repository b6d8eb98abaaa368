#include "MainWindow.h"

#include <QCloseEvent>
#include <QDockWidget>
#include <QFileInfo>
#include <QJsonArray>
#include <QLabel>
#include <QMessageBox>
#include <QMimeData>
#include <QProgressDialog>
#include <QSettings>
#include <QStackedWidget>
#include <QStatusBar>
#include <QVBoxLayout>

#include <utility>

#include <Qel/graph/ImageIO.h>

#include "AnimationExport.h"
#include "CameraPanel.h"
#include "ComparePanel.h"
#include "ControlPanel.h"
#include "DisplayBar.h"
#include "ErrorPanel.h"
#include "GraphEdits.h"
#include "GraphView.h"
#include "OutputStore.h"
#include "OutputTree.h"
#include "StartPage.h"
#include "SteadyLabel.h"
#include "TimeLine.h"
#include "TimePanel.h"

using namespace Qt::StringLiterals;

namespace Morvane::Qel::Viewer {

MainWindow::MainWindow()
    : m_pages(new QStackedWidget)
    , m_viewPage(new QWidget)
    , m_view(new TextureView(m_session))
    , m_timeLine(new TimeLine(m_session, m_document))
    , m_store(new OutputStore(m_session, *m_view, this))
    , m_startPage(new StartPage)
{
    setCentralWidget(m_pages);
    m_pages->addWidget(m_startPage);
    auto* column = new QVBoxLayout(m_viewPage);
    column->setContentsMargins(0, 0, 0, 0);
    column->setSpacing(0);
    column->addWidget(m_view, 1);
    column->addWidget(m_timeLine);
    m_pages->addWidget(m_viewPage);
    setAcceptDrops(true);
    setDockNestingEnabled(true);
    makePanels();
    makeActions();
    connectPanels();
    updateTitle();
    restore();
}

MainWindow::~MainWindow()
{
    m_export.reset();
    m_recovery.discard();
    // The view releases the session's GL objects.
    delete m_view;
}

void MainWindow::makePanels()
{
    m_displayBar = new DisplayBar(*m_view, this);
    addToolBar(m_displayBar);
    m_outputs = new OutputTree(m_session, *m_store);
    addPanel(m_outputs, u"outputPanel"_s, tr("Outputs"), Qt::LeftDockWidgetArea);
    m_times = new TimePanel(m_session, m_document, *m_store, *m_view);
    addPanel(m_times, u"timePanel"_s, tr("Times"), Qt::LeftDockWidgetArea);
    m_controls = new ControlPanel(m_document, m_session);
    QDockWidget* controls = addPanel(m_controls, u"controlPanel"_s, tr("Controls"), Qt::RightDockWidgetArea);
    m_camera = new CameraPanel(m_session);
    QDockWidget* camera = addPanel(m_camera, u"cameraPanel"_s, tr("Camera"), Qt::RightDockWidgetArea);
    m_compare = new ComparePanel(*m_view, *m_store);
    QDockWidget* compare = addPanel(m_compare, u"comparePanel"_s, tr("Compare"), Qt::RightDockWidgetArea);
    tabifyDockWidget(controls, camera);
    tabifyDockWidget(camera, compare);
    controls->raise();
    m_graphView = new GraphView(m_document, m_session, *m_store);
    addPanel(m_graphView, u"graphPanel"_s, tr("Graph"), Qt::BottomDockWidgetArea);
    m_errors = new ErrorPanel;
    m_errorDock = addPanel(m_errors, u"errorPanel"_s, tr("Errors"), Qt::BottomDockWidgetArea);
    m_errorDock->hide();
    m_status = new SteadyLabel;
    m_status->label().setAlignment(Qt::AlignRight | Qt::AlignVCenter);
    statusBar()->addPermanentWidget(m_status);
}

QDockWidget* MainWindow::addPanel(QWidget* panel, const QString& name, const QString& title,
                                  Qt::DockWidgetArea area)
{
    auto* dock = new QDockWidget(title, this);
    dock->setObjectName(name);
    dock->setWidget(panel);
    addDockWidget(area, dock);
    m_docks.append(dock);
    return dock;
}

void MainWindow::connectPanels()
{
    connect(&m_document, &Document::opened, this, [this] {
        m_recovery.discard();
        m_graphFileErrors.clear();
        m_session.clear();
        m_view->setFollowsWindow(m_view->followsWindow());
        m_view->show(OutputName());
        m_outputs->select({});
        showStartPage(false);
        m_view->setFocus();
    });
    connect(&m_document, &Document::changed, this, [this] {
        m_session.setGraph(m_document.graph());
        m_watch.watch(m_document.graph(), m_document.includes());
        setFileErrors({});
        updateTitle();
        const bool hasTime = lastFrame(m_document.graph()) > 0;
        for (QAction* action : std::as_const(m_timeActions)) {
            action->setEnabled(hasTime);
        }
    });
    connect(&m_document.undoStack(), &QUndoStack::cleanChanged, this, &MainWindow::updateTitle);
    // Before the frame with the change is rendered.
    const auto keep = [this] { m_recovery.update(m_document); };
    connect(&m_document.undoStack(), &QUndoStack::indexChanged, this, keep);
    connect(&m_document.undoStack(), &QUndoStack::cleanChanged, this, keep);
    connect(&m_watch, &FileWatch::graphChanged, this, [this] {
        m_graphFileErrors.clear();
        m_document.reload(&m_graphFileErrors);
        updateErrors();
    });
    connect(&m_watch, &FileWatch::filesChanged, &m_session, &GraphSession::reloadFiles);
    connect(&m_session, &GraphSession::errorsChanged, this, &MainWindow::updateErrors, Qt::QueuedConnection);
    connect(m_errors, &ErrorPanel::fileChosen, this, [this](const QString& file, int line) {
        if (!openEditor(file, line)) {
            showMessage(
                tr("No editor opens %1. Set the environment variable VISUAL to the command of one, or "
                   "choose a program for such files in the desktop.")
                    .arg(file));
        }
    });

    connect(m_view, &TextureView::cameraMoved, this,
            [this](const CameraDescription& camera) { m_session.setCamera(camera); });
    connect(m_view, &TextureView::focusChosen, this, &MainWindow::setFocus);
    m_inspection.setSingleShot(true);
    m_inspection.setInterval(50);
    connect(&m_inspection, &QTimer::timeout, this, &MainWindow::inspect);
    connect(m_view, &TextureView::hovered, this, [this](const QPoint& texel) {
        m_texel = texel;
        if (!m_inspection.isActive()) {
            m_inspection.start();
        }
    });
    connect(m_view, &TextureView::left, this, [this] {
        m_inspection.stop();
        m_outputs->setValues({});
        m_status->setText({});
    });
    connect(m_controls, &ControlPanel::failed, this, &MainWindow::showMessage);
    connect(m_camera, &CameraPanel::failed, this, &MainWindow::showMessage);
    connect(m_camera, &CameraPanel::storeRequested, this, [this] {
        const CameraDescription camera = m_session.camera();
        m_document.edit(tr("Camera of the graph"), [&](GraphDescription& graph) {
            graph.removeCamera();
            graph.camera = camera;
        });
    });
    connect(m_outputs, &OutputTree::chosen, m_view, qOverload<const OutputName&>(&TextureView::show));
    connect(m_times, &TimePanel::updated, this,
            [this] { m_graphView->setTimes([this](const QString& pass) { return m_times->timeOf(pass); }); });
    connect(m_graphView, &GraphView::rejected, this, &MainWindow::setFileErrors);
    connect(m_graphView, &GraphView::switched, this, [this](const QString& pass) {
        if (!m_times->toggle(pass)) {
            showMessage(
                tr("%1 cannot be left out: no input of it fits its outputs, or it is culled.").arg(pass));
        }
    });
    connect(m_graphView, &GraphView::passChosen, m_controls, &ControlPanel::reveal);
    connect(m_graphView, &GraphView::outputChosen, this, [this](const OutputName& output) {
        m_view->show(output);
        m_outputs->select(output);
    });
    connect(m_startPage, &StartPage::chosen, this,
            [this](const QString& graph) { afterAsking([this, graph] { open(graph); }); });
}

bool MainWindow::open(const QString& file, const QString& model)
{
    if (m_recovery.isOffered(file)) {
        askForRecovery(file, model);
        return false;
    }
    return openNow(file, model);
}

bool MainWindow::openNow(const QString& file, const QString& model)
{
    QStringList errors;
    const bool good = m_document.open(file, model, &errors);
    setFileErrors(errors);
    if (good) {
        updateRecentFiles(m_document.graph().file);
    }
    return good;
}

void MainWindow::drop(const QString& file)
{
    const QString suffix = QFileInfo(file).suffix().toLower();
    static const QStringList images{u"png"_s, u"jpg"_s, u"jpeg"_s, u"exr"_s, u"hdr"_s, u"bmp"_s, u"webp"_s};
    if (suffix == u"json") {
        afterAsking([this, file] { open(file); });
    } else if (!m_document.isOpen()) {
        showMessage(tr("Open a graph before a model or an image."));
    } else if (!images.contains(suffix)) {
        m_document.edit(tr("Model %1").arg(QFileInfo(file).fileName()),
                        [&](GraphDescription& graph) { graph.replaceModel(file); });
        m_session.setCamera({});
    } else {
        const GraphDescription before = m_document.graph();
        m_document.edit(tr("Image %1").arg(QFileInfo(file).fileName()), [&](GraphDescription& graph) {
            for (PassSetting& pass : graph.passes) {
                for (const InputDescription& input : portsOf(pass).inputs) {
                    if (PortName::parse(input.name).type == QLatin1StringView("QString")) {
                        setInput(pass, input.name, QFileInfo(file).absoluteFilePath());
                        return;
                    }
                }
            }
        });
        if (m_document.graph() == before) {
            showMessage(tr("No pass of this graph reads an image file."));
        }
    }
}

bool MainWindow::save(const QString& file, const std::function<void()>& then)
{
    QString error;
    const GraphUpdate update = m_document.save(file, false, &error);
    if (update != GraphUpdate::NeedsRewrite) {
        return finishSaving(update, error);
    }
    const GraphFileExtras extras = graphFileExtras(m_document.graph().file);
    QStringList losses;
    for (const QString& include : extras.includes) {
        losses.append(
            tr("%1 becomes part of it and is no longer included.").arg(QFileInfo(include).fileName()));
    }
    if (extras.hasComments) {
        losses.append(tr("Its comments are lost."));
    }
    auto* question =
        new QMessageBox(QMessageBox::Warning, u"qel-viewer"_s,
                        tr("This change cannot be made in the text of %1: the whole file is written anew.")
                            .arg(QFileInfo(m_document.graph().file).fileName()),
                        QMessageBox::Cancel, this);
    question->setObjectName(u"rewrite"_s);
    question->setInformativeText(losses.join(u'\n'));
    question->addButton(tr("&Write anew"), QMessageBox::AcceptRole);
    question->setAttribute(Qt::WA_DeleteOnClose);
    connect(question, &QMessageBox::accepted, this, [this, file, then] {
        QString what;
        const GraphUpdate rewritten = m_document.save(file, true, &what);
        if (finishSaving(rewritten, what) && then) {
            then();
        }
    });
    question->open();
    return false;
}

bool MainWindow::finishSaving(GraphUpdate update, const QString& error)
{
    const bool good = update == GraphUpdate::Written;
    if (good) {
        m_watch.accept(m_document.graph().file);
        m_graphFileErrors.clear();
        updateErrors();
        updateRecentFiles(m_document.graph().file);
        showMessage(tr("Saved %1").arg(m_document.graph().file));
    } else {
        setFileErrors({error});
    }
    updateTitle();
    return good;
}

bool MainWindow::savePicture(const QString& file)
{
    QString error;
    const Image image = m_view->shownImage();
    const bool good = image.width > 0 && writeImage(image, file, &error);
    if (good) {
        showMessage(tr("Saved %1").arg(file));
    } else {
        setFileErrors({image.width > 0 ? error : tr("There is no picture to save.")});
    }
    return good;
}

bool MainWindow::saveAnimation(const QString& file)
{
    m_timeLine->setPlaying(false);
    const int last = lastFrame(m_document.graph());
    QStringList errors;
    QString error;
    std::unique_ptr<RenderGraph> graph;
    if (last < 0 || m_export) {
        error = tr("The graph has no animation to save.");
    } else if (AnimationExport::check(file, &error)) {
        m_view->withContext([&] { graph = m_session.makeCopy(&errors); });
    }
    if (!graph) {
        setFileErrors(error.isEmpty() ? errors : QStringList{error});
        return false;
    }
    m_export = std::make_unique<AnimationExport>(std::move(graph), last, file, *m_view);
    auto* dialog =
        new QProgressDialog(tr("Saving %1").arg(QFileInfo(file).fileName()), tr("Cancel"), 0, last + 1, this);
    dialog->setObjectName(u"export"_s);
    dialog->setAttribute(Qt::WA_DeleteOnClose);
    dialog->setWindowModality(Qt::WindowModal);
    dialog->setMinimumDuration(0);
    dialog->setAutoReset(false);
    dialog->setAutoClose(false);
    dialog->setValue(0);
    connect(m_export.get(), &AnimationExport::progressed, dialog, &QProgressDialog::setValue);
    connect(dialog, &QProgressDialog::canceled, m_export.get(), &AnimationExport::cancel);
    connect(m_export.get(), &AnimationExport::finished, this, [this, dialog, file](const QString& what) {
        // The export is in a function of its own.
        m_export.release()->deleteLater();
        dialog->disconnect();
        dialog->close();
        if (what.isEmpty()) {
            showMessage(tr("Saved %1").arg(file));
        } else {
            setFileErrors({what});
        }
    });
    return true;
}

void MainWindow::inspect()
{
    if (QRect(QPoint(0, 0), m_view->textureSize()).contains(m_texel)) {
        m_status->setText(tr("texel %1, %2 of %3x%4")
                              .arg(m_texel.x())
                              .arg(m_texel.y())
                              .arg(m_view->textureSize().width())
                              .arg(m_view->textureSize().height()));
    } else {
        m_status->setText({});
    }
    if (m_outputs->isVisible()) {
        m_outputs->setValues(m_store->valuesAt(m_texel));
    }
}

/// Focuses the passes that blur by depth on a point of the picture.
void MainWindow::setFocus(const QPointF& position)
{
    const GraphDescription before = m_document.graph();
    m_document.edit(tr("Focus"), [&](GraphDescription& graph) {
        for (PassSetting& pass : graph.passes) {
            for (const InputDescription& input : portsOf(pass).inputs) {
                const PortName port = PortName::parse(input.name);
                const InputSetting* setting = findInput(pass, input.name);
                if (setting && isReference(setting->value)) {
                    continue;
                }
                if (port.name == u"Focus" && port.type == u"QVector2D") {
                    setInput(pass, input.name, QJsonArray{position.x(), position.y()});
                } else if (port.name == u"AutoFocus" && port.type == u"bool") {
                    setInput(pass, input.name, true);
                }
            }
        }
    });
    if (m_document.graph() == before) {
        showMessage(tr("No pass of this graph has a focus to set."));
    }
}

void MainWindow::setFileErrors(const QStringList& errors)
{
    m_fileErrors = errors;
    updateErrors();
}

void MainWindow::updateErrors()
{
    const QStringList all = errors();
    m_errors->setErrors(all);
    m_errorDock->setVisible(!all.isEmpty());
    if (!all.isEmpty()) {
        m_errorDock->raise();
    }
}

void MainWindow::updateTitle()
{
    setWindowTitle(m_document.isOpen()
                       ? tr("%1[*] - qel-viewer").arg(QFileInfo(m_document.graph().file).fileName())
                       : u"qel-viewer"_s);
    setWindowModified(m_document.isModified());
}

void MainWindow::showMessage(const QString& text)
{
    constexpr int duration = 6000;
    statusBar()->showMessage(text, duration);
}

void MainWindow::restore()
{
    const QSettings settings;
    resize(1440, 900);
    restoreGeometry(settings.value(u"geometry"_s).toByteArray());
    if (!restoreState(settings.value(u"state"_s).toByteArray())) {
        resizeDocks({m_docks[0], m_docks[2]}, {340, 340}, Qt::Horizontal);
        resizeDocks({m_docks[5]}, {230}, Qt::Vertical);
    }
    m_errorDock->hide();
    showStartPage(true);
    m_view->setFollowsWindow(settings.value(u"followsWindow"_s, true).toBool());
}

void MainWindow::showStartPage(bool isShown)
{
    if (isShown && m_layout.isEmpty()) {
        m_layout = saveState();
        for (QDockWidget* dock : m_docks) {
            dock->hide();
        }
        m_displayBar->hide();
    } else if (!isShown && !m_layout.isEmpty()) {
        restoreState(std::exchange(m_layout, {}));
        updateErrors();
    }
    m_pages->setCurrentWidget(isShown ? m_startPage : m_viewPage);
}

void MainWindow::closeEvent(QCloseEvent* event)
{
    if (m_document.isModified() && !m_isClosing) {
        event->ignore();
        afterAsking([this] {
            m_isClosing = true;
            close();
        });
        return;
    }
    QSettings settings;
    settings.setValue(u"geometry"_s, saveGeometry());
    settings.setValue(u"state"_s, m_layout.isEmpty() ? saveState() : m_layout);
    settings.setValue(u"followsWindow"_s, m_view->followsWindow());
}

void MainWindow::dragEnterEvent(QDragEnterEvent* event)
{
    if (event->mimeData()->hasUrls() && event->mimeData()->urls().first().isLocalFile()) {
        event->acceptProposedAction();
    }
}

void MainWindow::dropEvent(QDropEvent* event)
{
    drop(event->mimeData()->urls().first().toLocalFile());
}

} // namespace Morvane::Qel::Viewer
