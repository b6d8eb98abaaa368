#include "ViewerTest.h"

#include <QAction>
#include <QCheckBox>
#include <QComboBox>
#include <QDoubleSpinBox>
#include <QJsonArray>
#include <QPushButton>
#include <QSlider>
#include <QToolButton>

#include <GraphEdits.h>
#include <Qel/graph/GraphFile.h>
#include <ValueEditor.h>

#include "support/Paths.h"

using namespace Qt::StringLiterals;
using namespace Morvane::Qel::Viewer;

namespace Morvane::Qel::Test {

using Controls = ViewerTest;

TEST_F(Controls, SlidersMoveLikeSet)
{
    const QString graph = copyExamples(u"glow.json"_s);
    open(graph);
    QImage before = shown();
    auto* editor = find<ValueEditor>(u"glow.GlowAmount"_s);
    ASSERT_TRUE(editor);
    auto* slider = editor->findChild<QSlider*>();
    for (const int step : {700, 500, 620}) {
        slider->setValue(step);
    }
    const double value = editor->findChild<QDoubleSpinBox*>()->value();
    EXPECT_NE(value, 0.9);
    const QImage moved = shown();
    EXPECT_NE(moved, before);
    EXPECT_EQ(moved, rendered(graph, {u"--set"_s, u"glow.GlowAmount=%1"_s.arg(value, 0, 'g', 17)}));

    // The three moves are one step back.
    QUndoStack& history = window().document().undoStack();
    EXPECT_EQ(history.count(), 1);
    history.undo();
    EXPECT_EQ(shown(), before);
    history.redo();
    EXPECT_EQ(shown(), moved);
    // Back to the default, which this port does not have.
    find<QToolButton>(u"reset.glow.GlowAmount"_s)->click();
    EXPECT_EQ(findInput(*findPass(window().document().graph(), u"glow"_s), u"GlowAmount"_s), nullptr);
    settle();

    // What is saved renders as it is shown.
    history.undo();
    ASSERT_TRUE(window().save(graph));
    EXPECT_FALSE(window().document().isModified());
    EXPECT_EQ(shown(), rendered(graph));
    QStringList errors;
    EXPECT_EQ(*loadGraph(graph, &errors), window().document().graph());

    // A value that the graph does not give is shown as the pass uses it.
    open(sourcePath(u"examples/graphs/deferred.json"_s));
    editor = find<ValueEditor>(u"aa.SubPixelQuality"_s);
    ASSERT_TRUE(editor);
    EXPECT_EQ(editor->findChild<QDoubleSpinBox*>()->value(), 0.75);

    ASSERT_TRUE(window().savePicture(folder().path(u"picture.png"_s)));
    EXPECT_EQ(QImage(folder().path(u"picture.png"_s)).convertToFormat(QImage::Format_RGB32), shown());
}

TEST_F(Controls, EveryTypeOfControlChangesTheGraph)
{
    const QString graph = copyExamples(u"blend.json"_s);
    open(graph);
    const GraphDescription before = window().document().graph();
    int numChanges = 0;
    const QList<ValueEditor*> editors = window().findChildren<ValueEditor*>();
    EXPECT_GT(editors.size(), 2);
    for (ValueEditor* editor : editors) {
        if (auto* box = editor->findChild<QComboBox*>()) {
            const int next = (box->currentIndex() + 1) % box->count();
            box->setCurrentIndex(next);
            Q_EMIT box->textActivated(box->itemText(next));
            ++numChanges;
        } else if (auto* check = editor->findChild<QCheckBox*>()) {
            check->click();
            ++numChanges;
        }
    }
    settle();
    EXPECT_EQ(window().document().undoStack().count(), numChanges);
    EXPECT_NE(window().document().graph(), before);
    while (window().document().undoStack().canUndo()) {
        window().document().undoStack().undo();
    }
    EXPECT_EQ(window().document().graph(), before);
    EXPECT_EQ(shown(), rendered(graph));
}

TEST_F(Controls, AClickFocusesTheLens)
{
    const QString graph = copyExamples(u"depth-of-field.json"_s);
    open(graph);
    QTest::mouseClick(&window().view(), Qt::LeftButton, Qt::ControlModifier, {80, 45});
    // Positions of pixels count at their upper left corner.
    const QImage focused = shown();
    const PassSetting& lens = *findPass(window().document().graph(), u"lens"_s);
    ASSERT_TRUE(findInput(lens, u"Focus"_s));
    EXPECT_EQ(findInput(lens, u"Focus"_s)->value, QJsonValue(QJsonArray{0.25, 0.75}));
    EXPECT_EQ(focused, rendered(graph, {u"--set"_s, u"lens.AutoFocus=true"_s, u"--set"_s,
                                        u"lens.Focus=[0.25,0.75]"_s}));
    EXPECT_NE(focused, rendered(graph));
}

} // namespace Morvane::Qel::Test
