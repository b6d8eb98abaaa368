#include "ViewerTest.h"

#include <QApplication>
#include <QContextMenuEvent>
#include <QFile>
#include <QListWidget>
#include <QMenu>
#include <QMessageBox>
#include <QPushButton>
#include <QScrollBar>

#include <GraphEdits.h>
#include <GraphView.h>
#include <PassItem.h>
#include <StartPage.h>

#include "support/Paths.h"

using namespace Qt::StringLiterals;
using namespace Morvane::Qel::Viewer;

namespace Morvane::Qel::Test {

using Editing = ViewerTest;

TEST_F(Editing, SavedFilesLoadAtOnce)
{
    const QString graph = copyExamples(u"shader.json"_s);
    open(graph);
    const QImage first = shown();
    const QString shader = u"graphs/shaders/film.frag"_s;
    const QString good = QString::fromUtf8(folder().contents(shader));
    // Another camera, which stays.
    CameraDescription camera = window().session().camera();
    camera.eye += QVector3D(0.5F, 0.0F, 0.0F);
    window().session().setCamera(camera);
    const QImage moved = shown();
    EXPECT_NE(moved, first);

    folder().write(shader, QString(good).replace(u"exposed * vignette"_s, u"exposed.bgr * vignette"_s));
    ASSERT_TRUE(waitFor([&] { return shown() != moved; }));
    EXPECT_EQ(shown(), moved.rgbSwapped());

    // A mistake: file and line in the panel, and the picture stays.
    const QImage last = shown();
    folder().write(shader, QString(good).replace(u"exposed * vignette"_s, u"expsed * vignette"_s));
    auto* errors = find<QListWidget>(u"errors"_s);
    ASSERT_TRUE(waitFor([&] { return errors->count() > 0; }));
    EXPECT_TRUE(errors->item(0)->text().contains(u"film.frag:17:"_s)) << qPrintable(errors->item(0)->text());
    EXPECT_EQ(shown(), last);

    // A click opens the editor with the file and the line.
    const QString note = folder().path(u"note"_s);
    folder().write(u"editor"_s, u"#!/bin/sh\necho \"$@\" > %1.part; mv %1.part %1\n"_s.arg(note));
    QFile::setPermissions(folder().path(u"editor"_s), QFile::ReadOwner | QFile::ExeOwner);
    qputenv("VISUAL", folder().path(u"editor"_s).toUtf8());
    QTest::mouseClick(errors->viewport(), Qt::LeftButton, {},
                      errors->visualItemRect(errors->item(0)).center());
    ASSERT_TRUE(waitFor([&] { return QFile::exists(note); }));
    EXPECT_EQ(QString::fromUtf8(folder().contents(u"note"_s)), u"+17 %1\n"_s.arg(folder().path(shader)));
    qunsetenv("VISUAL");

    folder().write(shader, good);
    ASSERT_TRUE(waitFor([&] { return errors->count() == 0; }));
    EXPECT_EQ(shown(), moved);

    // A lost file is reported, and found again.
    ASSERT_TRUE(QFile::remove(folder().path(shader)));
    ASSERT_TRUE(waitFor([&] { return errors->count() > 0; }));
    EXPECT_TRUE(errors->item(0)->text().contains(u"film.frag"_s)) << qPrintable(errors->item(0)->text());
    EXPECT_EQ(shown(), moved);
    folder().write(shader, good);
    ASSERT_TRUE(waitFor([&] { return errors->count() == 0; }));

    // The graph file, broken and then changed; a value that was set here stays.
    const QString text = QString::fromUtf8(folder().contents(u"graphs/shader.json"_s));
    window().document().edit(u"exposure"_s, [](GraphDescription& description) {
        setInput(*findPass(description, u"film"_s), u"Exposure"_s, 0.8);
    });
    folder().write(u"graphs/shader.json"_s, text.chopped(20));
    ASSERT_TRUE(waitFor([&] { return errors->count() > 0; }));
    window().document().undoStack().undo();
    window().document().undoStack().redo();
    EXPECT_GT(errors->count(), 0) << "the file is still broken";
    folder().write(u"graphs/shader.json"_s, QString(text).replace(u"0.45"_s, u"0.9"_s));
    ASSERT_TRUE(waitFor([&] { return errors->count() == 0; }));
    const PassSetting& film = *findPass(window().document().graph(), u"film"_s);
    EXPECT_EQ(findInput(film, u"Vignette"_s)->value, QJsonValue(0.9));
    EXPECT_EQ(findInput(film, u"Exposure"_s)->value, QJsonValue(0.8));
    window().session().setCamera({});
    EXPECT_EQ(shown(), rendered(graph, {u"--set"_s, u"film.Exposure=0.8"_s}));
}

TEST_F(Editing, BoxesAndWires)
{
    const QString graph = copyExamples(u"glow.json"_s);
    open(graph);
    GraphView& boxes = window().graphView();
    EXPECT_FALSE(boxes.viewport()->acceptDrops()) << "files dropped here do not reach the window";
    const auto item = [&](const QString& name) -> PassItem* {
        for (QGraphicsItem* each : boxes.scene()->items()) {
            auto* pass = qgraphicsitem_cast<PassItem*>(each);
            if (pass && pass->name() == name) {
                return pass;
            }
        }
        return nullptr;
    };
    const QImage before = shown();
    ASSERT_TRUE(boxes.addPass(u"GaussianBlurRenderPass"_s));
    ASSERT_TRUE(item(u"gaussianBlur"_s));
    EXPECT_EQ(shown(), before) << "a pass that nothing reads is culled";

    // Wires by the mouse: composite-over into the new pass.
    boxes.fitInView(boxes.scene()->itemsBoundingRect(), Qt::KeepAspectRatio);
    const QString frame = u"Qel_QelTexture*_Frame"_s;
    const PassPorts ports = portsOf(*findPass(window().document().graph(), u"gaussianBlur"_s));
    const QString input = ports.inputs[1].name;
    const auto place = [&](const QPointF& point) { return boxes.mapFromScene(point); };
    QTest::mousePress(boxes.viewport(), Qt::LeftButton, {},
                      place(item(u"composite-over"_s)->outputPoint(frame)));
    QTest::mouseRelease(boxes.viewport(), Qt::LeftButton, {},
                        place(item(u"gaussianBlur"_s)->inputPoint(input)));
    const InputSetting* connected =
        findInput(*findPass(window().document().graph(), u"gaussianBlur"_s), input);
    ASSERT_TRUE(connected);
    EXPECT_EQ(connected->value, QJsonValue(u"@composite-over.Frame"_s));
    EXPECT_TRUE(window().errors().isEmpty());

    // A cycle is refused with a reason, and nothing changes.
    const GraphDescription whole = window().document().graph();
    EXPECT_FALSE(boxes.connectPorts(u"glow"_s, u"Qel_QelTexture*_Output"_s, u"composite-over"_s, frame));
    EXPECT_EQ(window().document().graph(), whole);
    ASSERT_FALSE(window().errors().isEmpty());
    EXPECT_TRUE(window().errors().first().contains(u"cyclic"_s)) << qPrintable(window().errors().first());
    EXPECT_TRUE(boxes.movePass(u"gaussianBlur"_s, -3));

    // Without the glow the picture is the composite-over's, and undo brings everything back.
    ASSERT_TRUE(boxes.removePass(u"glow"_s));
    EXPECT_EQ(window().document().graph().output, u"@composite-over.Frame"_s);
    QString error;
    ASSERT_EQ(window().document().save(folder().path(u"graphs/less.json"_s), true, &error),
              GraphUpdate::Written);
    EXPECT_EQ(shown(), rendered(folder().path(u"graphs/less.json"_s)));
    window().document().undoStack().setIndex(0);
    EXPECT_EQ(shown(), before);
}

TEST_F(Editing, BoxesByKeyboard)
{
    open(copyExamples(u"glow.json"_s));
    const QImage before = shown();
    GraphView& boxes = window().graphView();
    const auto choose = [](const QStringList& path) {
        for (const QString& text : path) {
            auto* menu = qobject_cast<QMenu*>(QApplication::activePopupWidget());
            ASSERT_TRUE(menu) << qPrintable(text);
            const auto active = [&] {
                return menu->activeAction() ? menu->activeAction()->text() : QString();
            };
            for (qsizetype i = 0; i <= menu->actions().size() && active() != text; ++i) {
                QTest::keyClick(menu, Qt::Key_Down);
            }
            ASSERT_EQ(active().toStdString(), text.toStdString());
            QTest::keyClick(menu, Qt::Key_Return);
        }
    };
    const auto pass = [&](const QString& name) { return findPass(window().document().graph(), name); };
    // F6 goes through the panels to the boxes.
    window().activateWindow();
    ASSERT_TRUE(QTest::qWaitForWindowActive(&window()));
    for (int i = 0; i < 10 && !boxes.hasFocus(); ++i) {
        QTest::keyClick(window().focusWidget(), Qt::Key_F6);
    }
    ASSERT_TRUE(boxes.hasFocus());
    boxes.select(u"glow"_s);
    const auto arrow = [&](Qt::Key key) {
        QTest::keyClick(&boxes, key);
        return boxes.selectedPass().toStdString();
    };
    EXPECT_EQ(arrow(Qt::Key_Left), "highlights") << "along the wires";
    EXPECT_EQ(arrow(Qt::Key_Left), "composite-over");
    EXPECT_EQ(arrow(Qt::Key_Left), "forward");
    EXPECT_EQ(arrow(Qt::Key_Down), "composite-sky") << "within the column";
    EXPECT_EQ(arrow(Qt::Key_Right), "composite-over");
    boxes.select(u"glow"_s);

    // Space leaves the pass out and takes it in again.
    QTest::keyClick(&boxes, Qt::Key_Space);
    const QImage without = shown();
    EXPECT_NE(without, before);
    QTest::keyClick(&boxes, Qt::Key_Space);
    EXPECT_EQ(shown(), before);

    // A new pass, connected, made the output, and taken out of the way again.
    QTest::keyClick(&boxes, Qt::Key_Insert);
    ASSERT_NO_FATAL_FAILURE(choose({u"FastApproximateAntiAliasingRenderPass"_s}));
    const QString added = boxes.selectedPass();
    ASSERT_TRUE(pass(added));
    QTest::keyClick(&boxes, Qt::Key_Return);
    ASSERT_NO_FATAL_FAILURE(choose({u"Frame"_s, u"composite-over.Frame"_s}));
    EXPECT_EQ(findInput(*pass(added), u"Frame"_s)->value, QJsonValue(u"@composite-over.Frame"_s));
    EXPECT_EQ(boxes.selectedPass(), added);
    QContextMenuEvent menuKey(QContextMenuEvent::Keyboard, {}, {});
    QCoreApplication::sendEvent(boxes.viewport(), &menuKey);
    choose({u"Make the &output of the graph"_s, u"Frame"_s});
    EXPECT_EQ(window().document().graph().output, u'@' + added + u".Frame"_s);
    EXPECT_NE(shown(), before);
    QTest::keyClick(&boxes, Qt::Key_Return);
    choose({u"Frame"_s, u"Not connected"_s});
    EXPECT_EQ(findInput(*pass(added), u"Frame"_s), nullptr);
    window().document().undoStack().undo();
    EXPECT_EQ(boxes.selectedPass(), added) << "the selection survives changes of the graph";
    QTest::keyClick(&boxes, Qt::Key_Left, Qt::AltModifier);
    const size_t last = window().document().graph().passes.size() - 1;
    EXPECT_EQ(window().document().graph().passes[last - 1].name, added);
    QTest::keyClick(&boxes, Qt::Key_Delete);
    EXPECT_FALSE(pass(added));
    EXPECT_EQ(boxes.selectedPass().toStdString(), "composite-over")
        << "the keyboard goes on from the neighbour";
    EXPECT_EQ(shown(), without);

    // What would make a cycle is not offered.
    QTest::keyClick(&boxes, Qt::Key_Return);
    for (QAction* input : QApplication::activePopupWidget()->actions()) {
        for (QAction* source : input->menu() ? input->menu()->actions() : QList<QAction*>()) {
            EXPECT_FALSE(source->text().startsWith(u"composite-over."_s)) << qPrintable(source->text());
            EXPECT_FALSE(source->text().startsWith(u"glow."_s)) << qPrintable(source->text());
        }
    }
    QTest::keyClick(QApplication::activePopupWidget(), Qt::Key_Escape);

    // Boxes that are hidden while the graph changes do not outlive their passes.
    boxes.select(u"glow"_s);
    boxes.hide();
    window().document().edit(u"Removal"_s, [](GraphDescription& graph) { removePass(graph, u"glow"_s); });
    EXPECT_EQ(boxes.selectedPass(), QString());
}

TEST_F(Editing, SavesOnlyWhatChanged)
{
    const QString graph = copyExamples(u"rack-focus.json"_s);
    const QString text = QString::fromUtf8(folder().contents(u"graphs/rack-focus.json"_s));
    open(graph, {64, 36});
    window().document().edit(u"stop"_s, [](GraphDescription& description) {
        setInput(*findPass(description, u"lens"_s), u"FStop"_s, 5.6);
    });
    ASSERT_TRUE(window().save(graph));
    const QString changed = QString(text).replace(u"\"FStop\": 4,"_s, u"\"FStop\": 5.6,"_s);
    EXPECT_NE(changed, text);
    EXPECT_EQ(QString::fromUtf8(folder().contents(u"graphs/rack-focus.json"_s)), changed);
    EXPECT_FALSE(window().document().isModified());

    // Includes and comments are lost only after a question.
    ASSERT_TRUE(window().graphView().addPass(u"GaussianBlurRenderPass"_s));
    EXPECT_FALSE(window().save(graph));
    auto* question = find<QMessageBox>(u"rewrite"_s);
    ASSERT_TRUE(question);
    EXPECT_TRUE(question->informativeText().contains(u"arcade.json"_s));
    EXPECT_EQ(QString::fromUtf8(folder().contents(u"graphs/rack-focus.json"_s)), changed);
    question->reject();
    EXPECT_TRUE(window().document().isModified());
    // Another example is opened only after a question, too.
    Q_EMIT find<StartPage>(u"examples"_s)->chosen(sourcePath(u"examples/graphs/fxaa.json"_s));
    EXPECT_EQ(window().document().graph().file, graph);
    EXPECT_TRUE(window().document().isModified());
    for (QMessageBox* box : window().findChildren<QMessageBox*>()) {
        box->reject();
    }
    EXPECT_FALSE(window().save(graph));
    ASSERT_TRUE(waitFor([&] { return window().findChildren<QMessageBox*>(u"rewrite"_s).size() == 1; }));
    question = find<QMessageBox>(u"rewrite"_s);
    for (QAbstractButton* button : question->buttons()) {
        if (question->buttonRole(button) == QMessageBox::AcceptRole) {
            button->click();
        }
    }
    ASSERT_TRUE(waitFor([&] { return !window().document().isModified(); }));
    EXPECT_FALSE(folder().contents(u"graphs/rack-focus.json"_s).contains("include"));

    // A file that only lends its camera is watched, too.
    folder().write(u"graphs/view.json"_s, uR"({"camera": {"eye": [0, 1, 6], "target": [0, 1, 0]}})"_s);
    folder().write(u"graphs/seen.json"_s, uR"({
  "include": ["view.json"],
  "passes": [{"name": "sky", "type": "GradientRenderPass"}], "output": "@sky.Frame"})"_s);
    open(folder().path(u"graphs/seen.json"_s), {64, 36});
    folder().write(u"graphs/view.json"_s, uR"({"camera": {"eye": [0, 2, 6], "target": [0, 1, 0]}})"_s);
    ASSERT_TRUE(waitFor([&] { return window().session().camera().eye.y() == 2.0F; }));
}

TEST_F(Editing, LongSessionsKeepLittle)
{
    QStringList errors;
    Document document;
    ASSERT_TRUE(document.open(sourcePath(u"examples/graphs/fxaa.json"_s), {}, &errors));
    constexpr int numEdits = 2000;
    for (int i = 1; i <= numEdits; ++i) {
        document.edit(u"width"_s, [&](GraphDescription& graph) { graph.viewport.setWidth(i); });
    }
    const int numSteps = document.undoStack().count();
    EXPECT_LT(numSteps, numEdits) << "memory grows with every edit";
    EXPECT_GE(numSteps, 100);
    while (document.undoStack().canUndo()) {
        document.undoStack().undo();
    }
    EXPECT_EQ(document.graph().viewport.width(), numEdits - numSteps);
    EXPECT_TRUE(document.isModified()) << "the file's own graph is out of reach";

    // What is reported in every frame is listed once.
    open(sourcePath(u"examples/graphs/shader.json"_s), {64, 36});
    const auto connection = QObject::connect(&window().session(), &GraphSession::frameRendered, &window(),
                                             [] { qWarning("an odd frame"); });
    const quint64 number = window().session().numFrames();
    window().view().setContinuous(true);
    ASSERT_TRUE(waitFor([&] { return window().session().numFrames() >= number + 10; }));
    window().view().setContinuous(false);
    QObject::disconnect(connection);
    settle();
    window().session().requestFrame();
    settle();
    EXPECT_EQ(window().session().errors(), QStringList{u"an odd frame"_s});
    open(sourcePath(u"examples/graphs/fxaa.json"_s), {64, 36});
}

TEST_F(Editing, UnsavedChangesSurviveTheProgram)
{
    const QString graph = copyExamples(u"glow.json"_s);
    open(graph);
    const QImage before = shown();
    window().document().edit(u"radius"_s, [](GraphDescription& description) {
        setInput(*findPass(description, u"glow"_s), u"BlurRadius"_s, 9.0);
    });
    window().document().edit(u"amount"_s, [](GraphDescription& description) {
        setInput(*findPass(description, u"glow"_s), u"GlowAmount"_s, 3.0);
    });
    // On the disk before the frame that may never end.
    const QString file = u"graphs/.glow.json.unsaved"_s;
    ASSERT_TRUE(window().session().isFrameNeeded());
    const QByteArray kept = folder().contents(file);
    EXPECT_TRUE(kept.contains("\"GlowAmount\": 3"));
    const QImage changed = shown();
    EXPECT_NE(changed, before);
    window().document().undoStack().setIndex(0);
    EXPECT_FALSE(QFile::exists(folder().path(file))) << "there is nothing to save";

    const auto answer = [&](const QString& text) {
        folder().write(file, QString::fromUtf8(kept));
        EXPECT_FALSE(window().open(graph));
        for (QAbstractButton* button : find<QMessageBox>(u"recovery"_s)->buttons()) {
            if (button->text() == text) {
                button->click();
            }
        }
        EXPECT_TRUE(waitFor([&] { return !find<QMessageBox>(u"recovery"_s); }));
    };
    answer(u"Restore with &shaders off"_s);
    EXPECT_EQ(window().session().bypassed(), (QSet<QString>{u"highlights"_s, u"composite-over"_s}));
    EXPECT_NE(shown(), changed);
    window().session().setBypassed({});
    EXPECT_EQ(shown(), changed);
    EXPECT_TRUE(window().document().isModified());
    window().document().undoStack().undo();
    EXPECT_EQ(shown(), before);
    answer(u"&Restore"_s);
    EXPECT_EQ(shown(), changed);
    window().document().undoStack().undo();
    answer(u"&Discard"_s);
    EXPECT_EQ(shown(), before);
    EXPECT_FALSE(QFile::exists(folder().path(file)));
}

TEST_F(Editing, PassesCanBeLeftOut)
{
    const QString graph = copyExamples(u"glow.json"_s);
    open(graph);
    const QImage before = shown();
    window().session().setBypassed({u"glow"_s});
    const QImage without = shown();
    EXPECT_NE(without, before);
    window().view().show(OutputName{u"composite-over"_s, u"Qel_QelTexture*_Frame"_s});
    EXPECT_EQ(shown(), without);
    window().view().show(OutputName());
    window().session().setBypassed({});
    EXPECT_EQ(shown(), before);
    EXPECT_FALSE(canLeaveOut(window().document().graph(), u"forward"_s));
    EXPECT_FALSE(window().document().isModified());
}

} // namespace Morvane::Qel::Test
