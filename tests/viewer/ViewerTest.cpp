#include "ViewerTest.h"

#include <QApplication>
#include <QDir>
#include <QScreen>
#include <QSettings>
#include <QStandardPaths>
#include <QTemporaryDir>

#include <TextureView.h>

#include "support/Paths.h"
#include "support/Program.h"

using namespace Qt::StringLiterals;

namespace Morvane::Qel::Test {

void ViewerTest::SetUp()
{
    QSettings().clear();
    m_window = std::make_unique<Viewer::MainWindow>();
    m_window->show();
    ASSERT_TRUE(QTest::qWaitForWindowExposed(m_window.get()));
}

void ViewerTest::TearDown()
{
    EXPECT_EQ(m_window->session().errors(), QStringList());
    m_window.reset();
}

bool ViewerTest::waitFor(const std::function<bool()>& condition)
{
    return QTest::qWaitFor(condition, 20000);
}

void ViewerTest::settle()
{
    EXPECT_TRUE(waitFor([&] { return !m_window->session().isFrameNeeded(); }));
    QCoreApplication::processEvents();
}

void ViewerTest::open(const QString& graph, const QSize& size)
{
    m_window->view().setFixedSize(size);
    m_window->open(graph);
    EXPECT_TRUE(waitFor([&] { return m_window->session().numFrames() > 0; }));
    settle();
}

QString ViewerTest::copyExamples(const QString& graph)
{
    for (const QString& name : {u"graphs"_s, u"graphs/shaders"_s, u"graphs/shared"_s, u"scenes"_s}) {
        const QDir source(sourcePath(u"examples/"_s + name));
        QDir().mkpath(m_folder.path(name));
        for (const QString& file : source.entryList(QDir::Files)) {
            QFile::copy(source.filePath(file), m_folder.path(name + u'/' + file));
        }
    }
    return m_folder.path(u"graphs/%1"_s.arg(graph));
}

QImage ViewerTest::shown()
{
    settle();
    const Viewer::TextureView& view = m_window->view();
    const QPoint corner = view.mapTo(m_window.get(), QPoint(0, 0));
    return m_window->screen()
        ->grabWindow(m_window->winId(), corner.x(), corner.y(), view.width(), view.height())
        .toImage()
        .convertToFormat(QImage::Format_RGB32);
}

QImage ViewerTest::rendered(const QString& graph, const QStringList& arguments)
{
    const QSize size = m_window->view().size();
    const QString file = m_folder.path(u"rendered.png"_s);
    const ProgramResult result = runProgram(QStringList{u"render"_s, graph, u"--output"_s, file, u"--size"_s,
                                                        u"%1x%2"_s.arg(size.width()).arg(size.height())} +
                                            arguments);
    EXPECT_EQ(result.exitCode, 0) << qPrintable(result.errors);
    return QImage(file).convertToFormat(QImage::Format_RGB32);
}

} // namespace Morvane::Qel::Test

int main(int argc, char** argv)
{
    testing::InitGoogleTest(&argc, argv);
    // Threads of the software rasteriser keep what a finished frame used, deleted textures too, until one of
    // 64 places in their queue is needed again. Without threads it is given back at once, see Robot.
    qputenv("LP_NUM_THREADS", "0");
    Morvane::Qel::Viewer::TextureView::setDefaultFormat();
    QStandardPaths::setTestModeEnabled(true);
    // Each process has its own recent files and window.
    const QTemporaryDir settings;
    QSettings::setPath(QSettings::NativeFormat, QSettings::UserScope, settings.path());
    const QApplication application(argc, argv);
    QCoreApplication::setApplicationName(u"qel-viewer-tests"_s);
    QCoreApplication::setOrganizationName(u"qel-viewer-tests"_s);
    return RUN_ALL_TESTS();
}
