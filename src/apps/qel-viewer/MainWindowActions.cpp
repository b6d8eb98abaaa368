// Menus, shortcuts and dialogs; see MainWindow.h. Dialogs do not block the event loop.

#include <QAbstractButton>
#include <QAction>
#include <QApplication>
#include <QDialog>
#include <QDockWidget>
#include <QFile>
#include <QFileDialog>
#include <QFileInfo>
#include <QFormLayout>
#include <QHBoxLayout>
#include <QLabel>
#include <QMenuBar>
#include <QMessageBox>
#include <QPushButton>
#include <QScreen>
#include <QScrollArea>
#include <QSettings>
#include <QStackedWidget>
#include <QStyle>
#include <QVBoxLayout>

#include "CameraPanel.h"
#include "ComparePanel.h"
#include "GraphEdits.h"
#include "GraphView.h"
#include "MainWindow.h"
#include "StartPage.h"
#include "TimeLine.h"

using namespace Qt::StringLiterals;

namespace Morvane::Qel::Viewer {

namespace {

constexpr qsizetype numRecentFiles = 10;

} // namespace

void MainWindow::makeActions()
{
    makeFileMenu();
    QMenu* edit = menuBar()->addMenu(tr("&Edit"));
    QAction* undo = m_document.undoStack().createUndoAction(this, tr("&Undo"));
    undo->setShortcut(QKeySequence::Undo);
    QAction* redo = m_document.undoStack().createRedoAction(this, tr("&Redo"));
    redo->setShortcut(QKeySequence::Redo);
    edit->addActions({undo, redo});

    QMenu* picture = menuBar()->addMenu(tr("&Picture"));
    picture->addAction(tr("&Fit into the window"), QKeySequence(Qt::Key_0), this,
                       [this] { m_view->setZoom(0.0); });
    picture->addAction(tr("&1:1"), QKeySequence(Qt::Key_1), this, [this] { m_view->setZoom(1.0); });
    picture->addAction(tr("Take a &snapshot"), QKeySequence(Qt::CTRL | Qt::Key_T), this,
                       [this] { m_compare->takeSnapshot(); });
    QAction* run = picture->addAction(tr("&Render all the time"), QKeySequence(Qt::CTRL | Qt::Key_R), this,
                                      [this](bool isOn) { m_view->setContinuous(isOn); });
    run->setCheckable(true);
    run->setObjectName(u"continuous"_s);

    QMenu* time = menuBar()->addMenu(tr("&Animation"));
    const auto addTime = [&](const QString& text, Qt::Key key, const std::function<void()>& call) {
        m_timeActions.append(time->addAction(text, QKeySequence(key), this, call));
        m_timeActions.last()->setEnabled(false);
    };
    addTime(tr("&Play or pause"), Qt::Key_P, [this] { m_timeLine->setPlaying(!m_timeLine->isPlaying()); });
    addTime(tr("One frame &forward"), Qt::Key_Period, [this] { m_timeLine->step(1); });
    addTime(tr("One frame &back"), Qt::Key_Comma, [this] { m_timeLine->step(-1); });
    addTime(tr("F&irst frame"), Qt::Key_Home, [this] { m_timeLine->goTo(0); });

    QMenu* camera = menuBar()->addMenu(tr("&Camera"));
    camera->addAction(tr("&Fit the models"), QKeySequence(Qt::Key_F), this, [this] { m_camera->fit(); });
    camera->addAction(tr("Camera of the &graph"), QKeySequence(Qt::Key_H), this,
                      [this] { m_camera->useGraphCamera(); });
    camera->addAction(tr("&Copy as JSON"), QKeySequence(Qt::CTRL | Qt::SHIFT | Qt::Key_C), this,
                      [this] { m_camera->copy(); });
    camera->addAction(tr("&Paste"), QKeySequence(Qt::CTRL | Qt::SHIFT | Qt::Key_V), this,
                      [this] { m_camera->paste(); });

    QMenu* panels = menuBar()->addMenu(tr("Pa&nels"));
    for (qsizetype i = 0; i < m_docks.size(); ++i) {
        QAction* toggle = m_docks[i]->toggleViewAction();
        toggle->setShortcut(QKeySequence(Qt::CTRL | static_cast<Qt::Key>(Qt::Key_1 + i)));
        panels->addAction(toggle);
    }
    panels->addSeparator();
    panels->addAction(tr("Go to the &next panel"), QKeySequence(Qt::Key_F6), this,
                      &MainWindow::focusNextPanel);

    QMenu* help = menuBar()->addMenu(tr("&Help"));
    help->addAction(tr("&Shortcuts"), QKeySequence(Qt::Key_Question), this, &MainWindow::showShortcuts);
}

void MainWindow::makeFileMenu()
{
    QMenu* file = menuBar()->addMenu(tr("&File"));
    file->addAction(tr("&Open..."), QKeySequence::Open, this,
                    [this] { afterAsking([this] { showOpenDialog(); }); });
    m_recent = file->addMenu(tr("Open &recent"));
    updateRecentFiles({});
    file->addAction(tr("&Examples"), QKeySequence(Qt::CTRL | Qt::Key_E), this,
                    [this] { showStartPage(m_layout.isEmpty() || !m_document.isOpen()); });
    file->addSeparator();
    file->addAction(tr("&Save"), QKeySequence::Save, this, [this] {
        if (m_document.isOpen()) {
            save(m_document.graph().file);
        }
    });
    file->addAction(tr("Save &as..."), QKeySequence::SaveAs, this, [this] {
        showSaveDialog(tr("Save the graph"), tr("Graphs (*.json)"), m_document.graph().file,
                       [this](const QString& name) { save(name); });
    });
    file->addAction(tr("Save the &picture..."), QKeySequence(Qt::CTRL | Qt::Key_P), this, [this] {
        const QString base = QFileInfo(m_document.graph().file).completeBaseName();
        showSaveDialog(tr("Save the picture"), tr("Images (*.png *.exr)"), base + u".png"_s,
                       [this](const QString& name) { savePicture(name); });
    });
    m_timeActions.append(file->addAction(tr("Save the &animation..."), this, [this] {
        const QString base = QFileInfo(m_document.graph().file).completeBaseName();
        showSaveDialog(tr("Save the animation"), tr("Videos (*.mp4 *.webm *.gif);;Images (*.png *.exr)"),
                       base + u".mp4"_s, [this](const QString& name) { saveAnimation(name); });
    }));
    m_timeActions.last()->setEnabled(false);
    file->addSeparator();
    file->addAction(tr("&Quit"), QKeySequence::Quit, this, &QWidget::close);
}

void MainWindow::updateRecentFiles(const QString& newest)
{
    QSettings settings;
    QStringList files = settings.value(u"recent"_s).toStringList();
    if (!newest.isEmpty()) {
        files.removeAll(newest);
        files.prepend(newest);
        files = files.first(std::min(files.size(), numRecentFiles));
        settings.setValue(u"recent"_s, files);
    }
    m_recent->clear();
    for (const QString& file : files) {
        m_recent->addAction(file, this, [this, file] { afterAsking([this, file] { open(file); }); });
    }
    m_recent->setEnabled(!files.isEmpty());
}

void MainWindow::showOpenDialog()
{
    const QString folder =
        m_document.isOpen() ? QFileInfo(m_document.graph().file).absolutePath() : StartPage::examplesFolder();
    auto* dialog = new QFileDialog(this, tr("Open"), folder, tr("Graphs (*.json);;All files (*)"));
    dialog->setAttribute(Qt::WA_DeleteOnClose);
    dialog->setFileMode(QFileDialog::ExistingFile);
    connect(dialog, &QFileDialog::fileSelected, this, [this](const QString& file) { open(file); });
    dialog->open();
}

void MainWindow::showSaveDialog(const QString& title, const QString& filter, const QString& name,
                                const std::function<void(const QString&)>& save)
{
    if (!m_document.isOpen()) {
        return;
    }
    auto* dialog = new QFileDialog(this, title, QFileInfo(m_document.graph().file).absolutePath(), filter);
    dialog->setAttribute(Qt::WA_DeleteOnClose);
    dialog->setAcceptMode(QFileDialog::AcceptSave);
    dialog->selectFile(name);
    connect(dialog, &QFileDialog::fileSelected, this, save);
    dialog->open();
}

void MainWindow::afterAsking(const std::function<void()>& call)
{
    if (!m_document.isModified()) {
        call();
        return;
    }
    auto* question = new QMessageBox(
        QMessageBox::Question, u"qel-viewer"_s,
        tr("%1 has changes that are not saved.").arg(QFileInfo(m_document.graph().file).fileName()),
        QMessageBox::Save | QMessageBox::Discard | QMessageBox::Cancel, this);
    question->setAttribute(Qt::WA_DeleteOnClose);
    connect(question, &QMessageBox::finished, this, [this, call](int answer) {
        if (answer == QMessageBox::Discard ||
            (answer == QMessageBox::Save && save(m_document.graph().file, call))) {
            call();
        }
    });
    question->open();
}

void MainWindow::askForRecovery(const QString& file, const QString& model)
{
    auto* question = new QMessageBox(
        QMessageBox::Question, u"qel-viewer"_s,
        tr("There are unsaved changes to %1 from a session that has ended.").arg(QFileInfo(file).fileName()),
        QMessageBox::Cancel, this);
    question->setInformativeText(
        tr("If a shader that never ends stopped it, restore them with the passes switched off that run your "
           "shaders, and mend it."));
    question->setObjectName(u"recovery"_s);
    question->setAttribute(Qt::WA_DeleteOnClose);
    const auto add = [&](const QString& text, QMessageBox::ButtonRole role,
                         const std::function<void()>& then) {
        connect(question->addButton(text, role), &QAbstractButton::clicked, this, then);
    };
    add(tr("&Restore"), QMessageBox::AcceptRole, [this, file, model] {
        if (openNow(file, model)) {
            recover();
        }
    });
    add(tr("Restore with &shaders off"), QMessageBox::YesRole, [this, file, model] {
        if (openNow(file, model)) {
            recover();
            const QSet<QString> passes = shaderPasses(m_document.graph());
            m_session.setBypassed(passes);
            showMessage(tr("Switched off, see Times: %1").arg(QStringList(passes.values()).join(u", "_s)));
        }
    });
    add(tr("&Discard"), QMessageBox::DestructiveRole, [this, file, model] {
        QFile::remove(Recovery::fileFor(file));
        openNow(file, model);
    });
    question->open();
}

/// Makes the changes that are left from another session those of the graph that is open.
void MainWindow::recover()
{
    const QString file = m_document.graph().file;
    QStringList errors;
    std::optional<GraphDescription> kept = loadGraph(Recovery::fileFor(file), &errors);
    if (!kept) {
        setFileErrors(errors);
        return;
    }
    kept->file = file;
    m_document.edit(tr("Changes of the last session"), [&](GraphDescription& graph) { graph = *kept; });
}

/// Moves the keyboard focus from the picture to the panels in turn, and back to the picture.
void MainWindow::focusNextPanel()
{
    const auto holds = [this](const QDockWidget* dock) { return dock->isAncestorOf(focusWidget()); };
    const auto current = std::find_if(m_docks.begin(), m_docks.end(), holds);
    const auto next = std::find_if(current == m_docks.end() ? m_docks.begin() : current + 1, m_docks.end(),
                                   [](const QDockWidget* dock) { return dock->isVisible(); });
    if (next == m_docks.end()) {
        m_view->setFocus(Qt::TabFocusReason);
        return;
    }
    (*next)->raise();
    QWidget* panel = (*next)->widget();
    if (panel->focusPolicy() == Qt::NoFocus) {
        panel = panel->nextInFocusChain();
    }
    panel->setFocus(Qt::TabFocusReason);
}

void MainWindow::showShortcuts()
{
    auto* dialog = new QDialog(this);
    dialog->setAttribute(Qt::WA_DeleteOnClose);
    dialog->setWindowTitle(tr("Shortcuts"));
    auto* area = new QScrollArea;
    area->setFrameShape(QFrame::NoFrame);
    auto* content = new QWidget;
    auto* columns = new QHBoxLayout(content);
    columns->setSpacing(40);
    QFormLayout* form = nullptr;
    const auto addColumn = [&] {
        form = new QFormLayout;
        form->setHorizontalSpacing(24);
        columns->addLayout(form);
    };
    addColumn();
    const auto add = [&](const QString& keys, const QString& meaning) {
        form->addRow(u"<b>%1</b>"_s.arg(keys.toHtmlEscaped()), new QLabel(meaning));
    };
    add(tr("Drag, arrow keys"), tr("turns the camera around its target"));
    add(tr("Shift + drag, Shift + arrow keys"), tr("moves the camera sideways"));
    add(tr("Alt + drag, Alt + arrow keys"), tr("turns the view direction"));
    add(tr("Right drag, Ctrl + wheel, Page Up, Page Down"), tr("moves the camera to its target or away"));
    add(u"W A S D Q E"_s, tr("flies forward, left, back, right, down, up"));
    add(tr("Wheel, + and -"), tr("zooms the picture, down to single texels"));
    add(tr("Middle drag"), tr("moves the zoomed picture"));
    add(tr("Ctrl + click"), tr("focuses passes with depth of field there"));
    add(tr("Graph: arrow keys"), tr("select the next pass, along the wires to the left and right"));
    add(tr("Graph: Enter"), tr("connects or disconnects the inputs of the selected pass"));
    add(tr("Graph: Insert, Delete"), tr("adds a pass, removes the selected one"));
    add(tr("Graph: Space"), tr("switches the selected pass off or on"));
    add(tr("Graph: Alt + arrow keys"), tr("moves the selected pass earlier or later in the file"));
    add(tr("Graph: Menu, Shift + F10"), tr("shows all that can be done with the selected pass"));
    add(tr("Graph: + and -"), tr("enlarges and reduces the boxes"));
    addColumn();
    const QList<QAction*> menus = menuBar()->actions();
    for (const QAction* menu : menus) {
        const QList<QAction*> actions = menu->menu()->actions();
        for (const QAction* action : actions) {
            if (!action->shortcut().isEmpty()) {
                add(action->shortcut().toString(QKeySequence::NativeText),
                    action->text().remove(u'&').remove(u"..."_s));
            }
        }
    }
    area->setWidget(content);
    auto* layout = new QVBoxLayout(dialog);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->addWidget(area);
    const int bar = area->style()->pixelMetric(QStyle::PM_ScrollBarExtent);
    dialog->resize((content->sizeHint() + QSize(bar, bar)).boundedTo(screen()->availableSize() * 0.9));
    dialog->open();
}

} // namespace Morvane::Qel::Viewer
