#include "ViewerTest.h"

#include <QDoubleSpinBox>
#include <QFileInfo>
#include <QLabel>
#include <QProgressDialog>
#include <QSlider>
#include <QToolButton>

#include <AnimationExport.h>
#include <GraphEdits.h>
#include <TimeLine.h>
#include <ValueEditor.h>

#include "support/Paths.h"

using namespace Qt::StringLiterals;
using namespace Morvane::Qel::Viewer;

namespace Morvane::Qel::Test {

namespace {

class Animation : public ViewerTest
{
protected:
    /// A small graph with a keyed colour, a keyed parameter, a camera in orbit and an image that settles.
    QString writeGraph()
    {
        QString graph = copyExamples(u"turning.json"_s);
        folder().write(u"graphs/turning.json"_s, uR"({
  "parameters": {"wide": {"keys": [[0, 2], [10, 7]]}, "radius": 3},
  "animation": {"frames": 6, "fps": 50},
  "settle": 3,
  "camera": {"orbit": {"turns": 0.25}, "fovY": 40},
  "models": {"glassware": "../scenes/glassware.obj"},
  "lights": [{"type": "directional", "direction": [-1, -1, -1]}],
  "passes": [
    {"name": "jitter", "type": "TemporalAAJitterPass", "inputs": {"Dirty": "@NewFrame"}},
    {"name": "drawn", "type": "ForwardRenderPass", "inputs": {"ProjectionMatrix": "@jitter.ProjectionMatrix"}},
    {"name": "sky", "type": "GradientRenderPass",
     "inputs": {"ColorTop": {"keys": [[0, "#000000"], [5, "#ff8000"]]}}},
    {"name": "over", "type": "BlendRenderPass", "inputs": {"FrameA": "@drawn.Frame", "FrameB": "@sky.Frame"}},
    {"name": "blur", "type": "GaussianBlurRenderPass",
     "inputs": {"Input": "@over.Frame", "BlurRadius": "$wide"}},
    {"name": "more", "type": "GaussianBlurRenderPass",
     "inputs": {"Input": "@blur.Output", "BlurRadius": "$radius"}},
    {"name": "temporal", "type": "TemporalAARenderPass",
     "inputs": {"Frame": "@more.Output", "Dirty": "@NewFrame"}}
  ],
  "output": "@temporal.Frame"
})"_s);
        return graph;
    }
};

} // namespace

TEST_F(Animation, FramesAreThoseOfQelRender)
{
    const QString graph = writeGraph();
    open(graph);
    TimeLine& line = window().timeLine();
    ASSERT_TRUE(line.isVisible());
    EXPECT_EQ(shown(), rendered(graph, {u"--frames"_s, u"0..0"_s}));
    find<QSlider>(u"time.slider"_s)->setValue(4);
    EXPECT_EQ(shown(), rendered(graph, {u"--frames"_s, u"4..4"_s}));
    line.step(-1);
    EXPECT_EQ(shown(), rendered(graph, {u"--frames"_s, u"3..3"_s}));

    // Keyed values show those of the frame and cannot be edited.
    auto* keyed = find<ValueEditor>(u"$wide"_s);
    ASSERT_TRUE(keyed);
    EXPECT_FALSE(keyed->isEnabled());
    EXPECT_NEAR(keyed->findChild<QDoubleSpinBox*>()->value(), 3.5, 1e-9);

    // A parameter changes in the running graph, undone and saved like any other value.
    auto* slider = find<ValueEditor>(u"$radius"_s)->findChild<QSlider*>();
    const QImage before = shown();
    const GPUModel* model = window().session().graph()->model(u"glassware"_s);
    slider->setValue(slider->value() + 150);
    const double value = find<ValueEditor>(u"$radius"_s)->findChild<QDoubleSpinBox*>()->value();
    const QImage changed = shown();
    EXPECT_NE(changed, before);
    EXPECT_EQ(changed, rendered(graph, {u"--frames"_s, u"3..3"_s, u"--set"_s, u"radius=%1"_s.arg(value)}));
    EXPECT_EQ(window().session().graph()->model(u"glassware"_s), model) << "the graph was made anew";
    window().document().undoStack().undo();
    EXPECT_EQ(shown(), before);
    window().document().undoStack().redo();
    find<QToolButton>(u"reset.$radius"_s)->click();
    EXPECT_EQ(findParameter(window().document().graph(), u"radius"_s)->value, QJsonValue(3));
    EXPECT_EQ(shown(), before);

    // Another camera holds in all frames, and that of the graph comes back with its orbit.
    CameraDescription camera = window().session().camera();
    camera.eye *= 1.5F;
    window().session().setCamera(camera);
    line.goTo(1);
    settle();
    EXPECT_EQ(window().session().camera().eye, camera.eye);
    window().session().setCamera({});
    EXPECT_EQ(shown(), rendered(graph, {u"--frames"_s, u"1..1"_s}));
}

TEST_F(Animation, PlaysLoopsAndRests)
{
    const QString graph = writeGraph();
    open(graph, {64, 36});
    TimeLine& line = window().timeLine();
    QList<int> frames;
    QObject::connect(&window().session(), &GraphSession::frameNumberChanged, &line,
                     [&] { frames.append(window().session().frameNumber()); });
    QElapsedTimer time;
    time.start();
    find<QToolButton>(u"time.play"_s)->click();
    ASSERT_TRUE(waitFor([&] { return frames.size() >= 8; }));
    // No faster than the graph's clock.
    EXPECT_GE(time.elapsed(), 8 * 1000 / 50);
    EXPECT_EQ(frames.first(8), QList<int>({1, 2, 3, 4, 5, 0, 1, 2}));
    find<QToolButton>(u"time.play"_s)->click();
    EXPECT_FALSE(line.isPlaying());
    const int frame = window().session().frameNumber();
    EXPECT_EQ(shown(), rendered(graph, {u"--frames"_s, u"%1..%1"_s.arg(frame)}));
    const quint64 number = window().session().numFrames();
    QTest::qWait(300);
    EXPECT_EQ(window().session().numFrames(), number) << "a paused window renders";

    // Once without the loop.
    find<QToolButton>(u"time.loop"_s)->click();
    line.goTo(4);
    line.setPlaying(true);
    ASSERT_TRUE(waitFor([&] { return !line.isPlaying(); }));
    EXPECT_EQ(window().session().frameNumber(), 5);

    // Each attempt ends at a frame that fails.
    folder().write(u"scenes/none.png"_s, u"no image"_s);
    folder().write(u"graphs/gap.json"_s, uR"({
  "animation": {"frames": 6, "fps": 50},
  "passes": [
    {"name": "image", "type": "TextureLoaderRenderPass",
     "inputs": {"TexturePath": {"keys": [[0, "../scenes/wood.png"], [2, "../scenes/none.png"]], "ease": "step"}}}
  ],
  "output": "@image.Texture"
})"_s);
    open(folder().path(u"graphs/gap.json"_s), {64, 36});
    for (int i = 0; i < 2; ++i) {
        line.setPlaying(true);
        EXPECT_TRUE(waitFor([&] { return !line.isPlaying(); })) << i;
        EXPECT_EQ(window().session().frameNumber(), 2);
        ASSERT_EQ(window().errors().size(), 1);
        EXPECT_TRUE(window().errors().first().contains(u"none.png"_s))
            << qPrintable(window().errors().first());
    }
    open(sourcePath(u"examples/graphs/fxaa.json"_s));
    EXPECT_FALSE(line.isVisible());
}

TEST_F(Animation, SavesWhatQelRenderSaves)
{
    const QString graph = writeGraph();
    open(graph, {64, 36});
    const auto isDone = [&] { return find<QProgressDialog>(u"export"_s) == nullptr; };
    ASSERT_TRUE(window().saveAnimation(folder().path(u"shown.png"_s)));
    ASSERT_TRUE(waitFor(isDone));
    EXPECT_TRUE(window().errors().isEmpty()) << qPrintable(window().errors().join(u'\n'));
    rendered(graph, {u"--output"_s, folder().path(u"rendered%04d.png"_s)});
    for (int i = 0; i < 6; ++i) {
        const QString name = u"000%1.png"_s.arg(i);
        EXPECT_EQ(QImage(folder().path(u"shown"_s + name)), QImage(folder().path(u"rendered"_s + name)));
        EXPECT_FALSE(QImage(folder().path(u"shown"_s + name)).isNull());
    }
    ASSERT_TRUE(window().saveAnimation(folder().path(u"shown.gif"_s)));
    ASSERT_TRUE(waitFor(isDone));
    rendered(graph, {u"--output"_s, folder().path(u"rendered.gif"_s)});
    EXPECT_TRUE(folder().contents(u"shown.gif"_s) == folder().contents(u"rendered.gif"_s));

    // What was cancelled leaves no video, and what is missing is named.
    ASSERT_TRUE(window().saveAnimation(folder().path(u"cancelled.mp4"_s)));
    Q_EMIT find<QProgressDialog>(u"export"_s)->canceled();
    ASSERT_TRUE(waitFor(isDone));
    EXPECT_FALSE(QFileInfo::exists(folder().path(u"cancelled.mp4"_s)));
    const QByteArray path = qgetenv("PATH");
    qputenv("PATH", folder().path({}).toUtf8());
    EXPECT_FALSE(window().saveAnimation(folder().path(u"none.mp4"_s)));
    qputenv("PATH", path);
    ASSERT_EQ(window().errors().size(), 1);
    EXPECT_TRUE(window().errors().first().contains(u"ffmpeg"_s)) << qPrintable(window().errors().first());
    EXPECT_FALSE(window().saveAnimation(folder().path(u"none.txt"_s)));
}

} // namespace Morvane::Qel::Test
