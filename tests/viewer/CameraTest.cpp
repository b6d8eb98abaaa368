#include "ViewerTest.h"

#include <QApplication>
#include <QClipboard>
#include <QPushButton>

#include <CameraMotion.h>
#include <Qel/graph/GraphFile.h>

#include "support/Paths.h"

using namespace Qt::StringLiterals;
using namespace Morvane::Qel::Viewer;

namespace Morvane::Qel::Test {

using Camera = ViewerTest;

namespace {

float angleBetween(const QVector3D& a, const QVector3D& b)
{
    return qRadiansToDegrees(std::acos(QVector3D::dotProduct(a.normalized(), b.normalized())));
}

} // namespace

TEST_F(Camera, MotionsKeepWhatTheyShould)
{
    CameraDescription camera;
    camera.eye = {3.0F, 1.0F, 4.0F};
    camera.target = {1.0F, 0.5F, -2.0F};
    const QVector3D arm = camera.eye - camera.target;

    const CameraDescription turned = orbit(camera, {0.25, 0.0});
    EXPECT_EQ(turned.target, camera.target);
    EXPECT_NEAR((turned.eye - turned.target).length(), arm.length(), 1e-4F);
    EXPECT_NEAR(turned.eye.y(), camera.eye.y(), 1e-4F);
    QVector3D level = arm;
    QVector3D levelTurned = turned.eye - turned.target;
    level.setY(0.0F);
    levelTurned.setY(0.0F);
    EXPECT_NEAR(angleBetween(level, levelTurned), 45.0F, 1e-2F);
    // A drag to the right moves the scene to the right, so the eye goes left.
    EXPECT_LT(QVector3D::dotProduct(turned.eye - camera.eye, QVector3D::crossProduct(-arm, camera.up)), 0.0F);
    // Dragging over the pole stops before it.
    const CameraDescription top = orbit(camera, {0.0, 3.0});
    EXPECT_NEAR(angleBetween(top.eye - top.target, camera.up), 1.0F, 1e-2F);
    EXPECT_EQ(cameraError(top), QString());

    // The height of the picture at the target is one drag of its height.
    const CameraDescription moved = pan(camera, {0.0, 1.0});
    EXPECT_NEAR((moved.target - camera.target).length(),
                2.0F * arm.length() * std::tan(qDegreesToRadians(22.5F)), 1e-4F);
    EXPECT_NEAR((dolly(camera, 0.5F).eye - camera.target).length(), arm.length() / 2.0F, 1e-4F);
    // An orthographic camera shows less, and its picture is as high as it says.
    CameraDescription flat = camera;
    flat.height = 4.0F;
    EXPECT_EQ(dolly(flat, 0.5F).height, 2.0F);
    EXPECT_EQ(dolly(flat, 0.5F).eye, flat.eye);
    EXPECT_NEAR((pan(flat, {0.0, 1.0}).target - flat.target).length(), 4.0F, 1e-4F);
    QString error;
    EXPECT_EQ(cameraFromJson(cameraToJson(flat), &error), flat) << qPrintable(error);
    EXPECT_NEAR(angleBetween(fly(camera, {0.0F, 0.0F, 0.5F}).eye - camera.eye, -arm), 0.0F, 1e-1F);
    EXPECT_NEAR(angleBetween(alongAxis(camera, {0.0F, -1.0F, 0.0F}).eye - camera.target, {0, 1, 0}), 0.0F,
                1e-2F);
    EXPECT_EQ(cameraError(alongAxis(camera, {0.0F, -1.0F, 0.0F})), QString());
}

TEST_F(Camera, MouseAndClipboard)
{
    const QString graph = copyExamples(u"forward.json"_s);
    open(graph);
    TextureView& view = window().view();
    const CameraDescription before = window().session().camera();
    // By keys, and back.
    QTest::keyClick(&view, Qt::Key_Left, Qt::ShiftModifier);
    EXPECT_NE(window().session().camera().target, before.target);
    QTest::keyClick(&view, Qt::Key_Right, Qt::ShiftModifier);
    EXPECT_LT((window().session().camera().target - before.target).length(), 1e-4F);
    QTest::keyClick(&view, Qt::Key_PageUp);
    EXPECT_LT((window().session().camera().eye - before.eye).length(), (before.target - before.eye).length());
    EXPECT_NE(window().session().camera().eye, before.eye);
    window().session().setCamera(before);

    QTest::mousePress(&view, Qt::LeftButton, {}, {100, 90});
    QTest::mouseMove(&view, {160, 100});
    QTest::mouseRelease(&view, Qt::LeftButton, {}, {160, 100});
    const QImage picture = shown();
    const CameraDescription after = window().session().camera();
    EXPECT_EQ(after.target, before.target);
    EXPECT_NE(after.eye, before.eye);

    // The copied camera, put into the graph file, gives the same picture.
    find<QPushButton>(u"camera.Copy"_s)->click();
    const QByteArray json = QApplication::clipboard()->text().toUtf8();
    QString error;
    const auto parsed = cameraFromJson(json, &error);
    ASSERT_TRUE(parsed) << qPrintable(error);
    EXPECT_EQ(*parsed, after);
    QStringList errors;
    std::optional<GraphDescription> description = loadGraph(graph, &errors);
    description->camera = parsed;
    ASSERT_TRUE(
        saveGraph(*description, folder().path(u"graphs/turned.json"_s), PassRegistry::builtin(), &error));
    EXPECT_EQ(picture, rendered(folder().path(u"graphs/turned.json"_s)));

    find<QPushButton>(u"camera.Camera of the graph"_s)->click();
    EXPECT_EQ(shown(), rendered(graph));
    // As a line of a graph file.
    QApplication::clipboard()->setText(u"  \"camera\": "_s + QString::fromUtf8(json) + u',');
    find<QPushButton>(u"camera.Paste"_s)->click();
    EXPECT_EQ(shown(), picture);
    for (const char* wrong : {"", "{}", R"({"eye": [1, 2]})", R"({"eye": [0, 0, 0], "target": [0, 0, 0]})"}) {
        EXPECT_FALSE(cameraFromJson(wrong, &error)) << wrong;
    }
}

} // namespace Morvane::Qel::Test
