#include "ViewerTest.h"

#include <QDockWidget>
#include <QDoubleSpinBox>
#include <QSignalSpy>
#include <QTreeWidget>

#include <TimePanel.h>

#include "support/Paths.h"

using namespace Qt::StringLiterals;
using namespace Morvane::Qel::Viewer;

namespace Morvane::Qel::Test {

using Picture = ViewerTest;

TEST_F(Picture, IsWhatQelRenders)
{
    // 8 bits, half floats, floats that lie at the limits between two bytes, and transparent parts.
    for (const QString& name : {u"fxaa"_s, u"glow"_s, u"depth-of-field"_s, u"forward"_s}) {
        const QString graph = sourcePath(u"examples/graphs/%1.json"_s.arg(name));
        open(graph);
        EXPECT_EQ(shown(), rendered(graph)) << qPrintable(name);
    }
    // A change of size is a frame of the new size.
    window().view().setFixedSize(301, 222);
    EXPECT_EQ(shown(), rendered(sourcePath(u"examples/graphs/forward.json"_s)));

    const quint64 frames = window().session().numFrames();
    QTest::qWait(300);
    EXPECT_EQ(window().session().numFrames(), frames) << "an idle window renders";
}

TEST_F(Picture, FramesPaintOnlyPanelsThatChange)
{
    open(sourcePath(u"examples/graphs/fxaa.json"_s));
    find<QDockWidget>(u"cameraPanel"_s)->raise();
    GraphSession& session = window().session();
    const auto play = [&] {
        for (int i = 0; i < 20; ++i) {
            session.requestFrame();
            settle();
            // Quick frames, and some that are slow enough for what waits for a pause.
            QTest::qWait(i < 16 ? 30 : 300);
        }
    };
    play();
    auto* eye = find<QDoubleSpinBox>(u"camera.eye0"_s);
    ASSERT_TRUE(eye->isVisible());
    auto* times = find<QTreeWidget>(u"times"_s);
    EventCount layouts(&window(), QEvent::LayoutRequest);
    EventCount cameraPaints(eye, QEvent::Paint);
    EventCount outputPaints(find<QTreeWidget>(u"outputs"_s)->viewport(), QEvent::Paint);
    EventCount timePaints(times->viewport(), QEvent::Paint);
    QElapsedTimer clock;
    clock.start();
    play();
    // One more line may be needed for longer numbers.
    EXPECT_LE(layouts.number, 1);
    EXPECT_EQ(cameraPaints.number, 0);
    EXPECT_EQ(outputPaints.number, 0);
    EXPECT_GT(timePaints.number, 0);
    EXPECT_LE(timePaints.number, 1 + clock.elapsed() / 100);

    // The camera is shown with its frame.
    CameraDescription camera = session.camera();
    camera.eye.setX(camera.eye.x() + 0.25F);
    session.setCamera(camera);
    settle();
    EXPECT_NEAR(eye->value(), static_cast<double>(camera.eye.x()), 0.5001e-4);
    EXPECT_TRUE(waitFor([&] { return cameraPaints.number > 0; }));

    // A single frame after those that are shown is shown too.
    QSignalSpy updates(find<TimePanel>({}), &TimePanel::updated);
    session.requestFrame();
    ASSERT_TRUE(updates.wait());
    session.requestFrame();
    settle();
    QStringList latest;
    window().view().withContext([&] {
        const Profiler::Report report = session.times();
        for (const Profiler::Row& row : report.sections) {
            for (const double time : {row.gpu.latest, row.cpu.latest}) {
                latest.append(u"%1 ms"_s.arg(time, 0, 'f', 2));
            }
        }
    });
    const auto shownTimes = [&] {
        QStringList texts;
        for (int i = 0; i < times->topLevelItemCount(); ++i) {
            texts << times->topLevelItem(i)->text(1) << times->topLevelItem(i)->text(2);
        }
        return texts;
    };
    EXPECT_TRUE(QTest::qWaitFor([&] { return shownTimes() == latest; }, 1000));
}

} // namespace Morvane::Qel::Test
