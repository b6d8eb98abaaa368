#include "ViewerTest.h"

#include <QComboBox>
#include <QCursor>
#include <QLabel>
#include <QPushButton>
#include <QTreeWidget>
#include <QWheelEvent>

#include <array>
#include <cmath>
#include <numeric>

#include <epoxy/gl.h>

#include <GraphEdits.h>
#include <OutputTree.h>
#include <Qel/gl/BufferObject.h>
#include <Qel/graph/ImageIO.h>
#include <ShownTextures.h>
#include <TexelOverlay.h>

#include "support/Paths.h"
#include "support/Program.h"

using namespace Qt::StringLiterals;
using namespace Morvane::Qel::Viewer;

namespace Morvane::Qel::Test {

namespace {

class Display : public ViewerTest
{
protected:
    /// The outputs of a graph at the size of the picture, as `qel` writes them.
    Image dumped(const QString& graph, const QString& output)
    {
        const QSize size = window().view().size();
        const ProgramResult result =
            runProgram({u"render"_s, graph, u"--dump"_s, folder().path(u"dump"_s), u"--size"_s,
                        u"%1x%2"_s.arg(size.width()).arg(size.height())});
        EXPECT_EQ(result.exitCode, 0) << qPrintable(result.errors);
        return folder().image(u"dump/%1.exr"_s.arg(output));
    }
    static int byte(double value)
    {
        return static_cast<int>(std::floor(std::clamp(value, 0.0, 1.0) * 255.0 + 0.5));
    }
};

} // namespace

TEST_F(Display, ShowsEveryOutputInItsRange)
{
    const QString graph = sourcePath(u"examples/graphs/deferred.json"_s);
    open(graph);
    const Image depth = dumped(graph, u"gbuffer.Depth"_s);
    ASSERT_GT(depth.width, 0);
    TextureView& view = window().view();
    view.show(OutputName{u"gbuffer"_s, u"Qel_QelTexture*_Depth"_s});
    QImage picture = shown();
    // The depth is stretched from its smallest to its largest value.
    const auto [low, high] =
        std::minmax_element(std::get<0>(depth.samples).begin(), std::get<0>(depth.samples).end());
    ASSERT_LT(*low, *high);
    EXPECT_EQ(view.display().minimum, *low);
    EXPECT_EQ(view.display().maximum, *high);
    int worst = 0;
    for (int y = 0; y < picture.height(); ++y) {
        for (int x = 0; x < picture.width(); ++x) {
            const double value = (depth.sample(x, y, 0) - static_cast<double>(*low)) /
                                 (static_cast<double>(*high) - static_cast<double>(*low));
            worst = std::max(worst, std::abs(qRed(picture.pixel(x, y)) - byte(value)));
        }
    }
    // The range is divided in single precision.
    EXPECT_LE(worst, 1);

    // A channel with a range by hand, one stop brighter.
    const Image normal = dumped(graph, u"gbuffer.Normal"_s);
    view.show(OutputName{u"gbuffer"_s, u"Qel_QelTexture*_Normal"_s});
    DisplaySettings display;
    display.channels = DisplaySettings::Channels::Green;
    display.minimum = -1.0F;
    display.maximum = 3.0F;
    display.exposure = 1.0F;
    view.setDisplay(display);
    picture = shown();
    for (int x = 0; x < picture.width(); ++x) {
        const int expected = byte((normal.sample(x, 90, 1) + 1.0) / 4.0 * 2.0);
        EXPECT_NEAR(qGreen(picture.pixel(x, 90)), expected, 1) << x;
    }
    // Each output keeps its own settings.
    view.show(OutputName());
    EXPECT_EQ(view.display(), DisplaySettings());
    EXPECT_EQ(shown(), rendered(graph));
    view.show(OutputName{u"gbuffer"_s, u"Qel_QelTexture*_Normal"_s});
    EXPECT_EQ(view.display(), display);
}

TEST_F(Display, PaintsArraysOfEveryKind)
{
    open(sourcePath(u"examples/graphs/fxaa.json"_s), {64, 36});
    window().view().withContext([&] {
        const std::array<qint32, 2> integers{-5, 1000};
        const std::array<float, 2> floats{-5.0F, 1000.0F};
        for (const bool isInteger : {true, false}) {
            Texture texture;
            texture.setTarget(GL_TEXTURE_2D_ARRAY);
            texture.setImage3D(isInteger ? GL_R32I : GL_R32F, 2, 1, 1, isInteger ? GL_RED_INTEGER : GL_RED,
                               isInteger ? GL_INT : GL_FLOAT,
                               isInteger ? static_cast<const void*>(integers.data()) : floats.data());
            const Image image = window().view().painter().thumbnail(texture, {2, 1});
            ASSERT_EQ(image.width, 2) << isInteger;
            EXPECT_EQ(image.sample(0, 0, 0), -5.0);
            EXPECT_EQ(image.sample(1, 0, 0), 1000.0);
        }
    });
}

TEST_F(Display, ShowsBuffersMapsAndValues)
{
    open(sourcePath(u"examples/graphs/fxaa.json"_s), {64, 36});
    window().view().withContext([&] {
        ShownTextures textures;
        // The formats of buffer textures, with rows of 64 texels and a rest.
        std::vector<qint32> integers(150);
        std::iota(integers.begin(), integers.end(), -70);
        const std::vector<float> floats(integers.begin(), integers.end());
        BufferObject buffer;
        Texture texels;
        texels.setTarget(GL_TEXTURE_BUFFER);
        const auto image = [&](GLenum format, const void* data) {
            buffer.uploadBytes(data, 600, GL_STATIC_DRAW);
            texels.setBuffer(format, &buffer);
            Texture* rows = textures.of(QVariant::fromValue(&texels));
            return rows ? readTexels(rows, {{0, 0}, rows->size()}) : Image();
        };
        const Image single = image(GL_R32I, integers.data());
        EXPECT_EQ(single.width, 64);
        EXPECT_EQ(single.height, 3);
        EXPECT_EQ(single.sample(5, 2, 0), -65.0) << "rows count from below";
        EXPECT_EQ(single.sample(21, 0, 0), 79.0);
        EXPECT_EQ(single.sample(22, 0, 0), 0.0) << "after the end";
        const Image four = image(GL_RGBA32F, floats.data());
        EXPECT_EQ(four.width, 37);
        EXPECT_EQ(four.sample(36, 0, 3), -70.0 + 36 * 4 + 3);
        const Image bits = image(GL_R32UI, integers.data());
        EXPECT_EQ(bits.sample(0, 2, 0), 4294967296.0 - 70.0);
    });

    // Every output is a picture or a text, and the text of a matrix has its 16 numbers.
    const TexelOverlay& overlay = window().view().overlay();
    for (const QString& graph : {u"shadows"_s, u"temporal"_s, u"visibility"_s}) {
        open(sourcePath(u"examples/graphs/%1.json"_s.arg(graph)), {64, 36});
        std::vector<RenderGraph::Output> outputs;
        window().view().withContext([&] { outputs = window().session().outputs(); });
        for (const RenderGraph::Output& output : outputs) {
            window().view().show(OutputName{output.pass, output.port});
            settle();
            const Image image = window().view().shownImage();
            EXPECT_NE(image.width > 0, !overlay.text().isEmpty()) << qPrintable(output.port);
            if (output.port.contains(u"QMatrix4x4"_s)) {
                EXPECT_EQ(overlay.text().simplified().split(u' ').size(), 1 + 16)
                    << qPrintable(overlay.text());
            }
            if (output.port.contains(u"ShadowMapData"_s)) {
                // Depth and its square, or "nothing" as a large number.
                ASSERT_EQ(image.numChannels(), 2);
                int numDepths = 0;
                for (int i = 0; i < image.width; ++i) {
                    const double depth = image.sample(i, image.height / 2, 0);
                    numDepths += depth > 0.0 && depth <= 1.0 ? 1 : 0;
                }
                EXPECT_GT(numDepths, image.width / 8);
            }
        }
    }
}

TEST_F(Display, ZoomsToTexelsWithTheirValues)
{
    const QString graph = sourcePath(u"examples/graphs/fxaa.json"_s);
    open(graph);
    TextureView& view = window().view();
    const QImage whole = shown();
    const QPointF position(200.5, 60.5);
    const QPoint texel = view.texelAt(position);
    EXPECT_EQ(texel, QPoint(200, 179 - 60));
    for (int i = 0; i < 14; ++i) {
        QWheelEvent event(position, view.mapToGlobal(position), {}, {0, 120}, {}, {}, Qt::NoScrollPhase,
                          false);
        QCoreApplication::sendEvent(&view, &event);
        settle();
    }
    EXPECT_NEAR(view.scale(), 128.0, 1e-6);
    EXPECT_EQ(view.texelAt(position), texel);
    // The whole texel has its colour, but for the values in its middle.
    const QImage zoomed = shown();
    const QRgb color = whole.pixel(200, 60);
    int numPixels = 0;
    int numOthers = 0;
    int numAtSides = 0;
    for (int y = 0; y < zoomed.height(); ++y) {
        for (int x = 0; x < zoomed.width(); ++x) {
            if (view.texelAt({x + 0.5, y + 0.5}) == texel) {
                ++numPixels;
                const bool isOther = zoomed.pixel(x, y) != color;
                numOthers += isOther ? 1 : 0;
                const bool isInside =
                    view.texelAt({x - 9.5, y + 0.5}) == texel && view.texelAt({x + 10.5, y + 0.5}) == texel;
                numAtSides += isOther && !isInside ? 1 : 0;
            }
        }
    }
    EXPECT_EQ(numAtSides, 0);
    EXPECT_GT(numOthers, 100) << "values are written";
    EXPECT_LT(numOthers, numPixels / 2);

    // The inspector reads the value of every output there.
    auto* tree = find<QTreeWidget>(u"outputs"_s);
    QCursor::setPos(view.mapToGlobal(position.toPoint()));
    const Image image = dumped(graph, u"forward.Frame"_s);
    const auto valueOf = [&](const QString& name) {
        for (QTreeWidgetItem* item : tree->findItems(name, Qt::MatchExactly | Qt::MatchRecursive)) {
            if (item->parent() && item->parent()->text(0) == u"forward") {
                return item->text(1);
            }
        }
        return QString();
    };
    ASSERT_TRUE(waitFor([&] { return !valueOf(u"Frame"_s).isEmpty(); }));
    QStringList expected;
    for (int i = 0; i < image.numChannels(); ++i) {
        expected.append(texelText(image, 200, 60, i));
    }
    const QString valueBefore = expected.join(u"  "_s);
    EXPECT_EQ(valueOf(u"Frame"_s), valueBefore);
    // The mouse rests, the frame changes.
    CameraDescription camera = window().session().camera();
    camera.eye += QVector3D(0.0F, 1.0F, 0.0F);
    window().session().setCamera(camera);
    EXPECT_TRUE(waitFor([&] { return valueOf(u"Frame"_s) != valueBefore; }));
    window().session().setCamera({});
    EXPECT_FALSE(tree->topLevelItem(1)->child(0)->icon(0).isNull()) << "no thumbnail";
    // What fits into the widget is in its middle, wherever the zoom was.
    view.setZoom(1.0);
    EXPECT_EQ(shown(), whole);
}

TEST_F(Display, ComparesWithASnapshot)
{
    const QString graph = copyExamples(u"fxaa.json"_s);
    open(graph);
    const QImage first = shown();
    find<QPushButton>(u"snapshot"_s)->window()->raise();
    find<QPushButton>(u"snapshot"_s)->click();
    window().document().edit(u"colour"_s, [](GraphDescription& description) {
        for (PassSetting& pass : description.passes) {
            if (pass.type == u"GradientRenderPass") {
                setInput(pass, u"Qel_QColor_ColorTop"_s, u"#ff2000"_s);
            }
        }
    });
    ASSERT_TRUE(waitFor([&] { return shown() != first; }));
    const QImage wiped = shown();
    window().view().setComparison({});
    const QImage second = shown();
    EXPECT_NE(second, first);
    // Left of the line is now, right of it the snapshot.
    EXPECT_EQ(wiped.copy(0, 0, 158, 180), second.copy(0, 0, 158, 180));
    EXPECT_EQ(wiped.copy(162, 0, 158, 180), first.copy(162, 0, 158, 180));
    EXPECT_EQ(wiped.pixelColor(160, 90), Qt::white);

    ComparisonChoice difference{ComparisonChoice::With::Snapshot, {}, true};
    window().view().setComparison(difference);
    const QImage shownDifference = shown();
    for (int y = 0; y < 180; y += 7) {
        for (int x = 0; x < 320; ++x) {
            const QRgb a = first.pixel(x, y);
            const QRgb b = second.pixel(x, y);
            ASSERT_EQ(shownDifference.pixel(x, y),
                      qRgb(std::abs(qRed(a) - qRed(b)), std::abs(qGreen(a) - qGreen(b)),
                           std::abs(qBlue(a) - qBlue(b))));
        }
    }
    const std::vector<Image> images = window().view().comparedImages();
    ASSERT_EQ(images.size(), 2U);
    EXPECT_NE(images[0].samples, images[1].samples);
}

} // namespace Morvane::Qel::Test
