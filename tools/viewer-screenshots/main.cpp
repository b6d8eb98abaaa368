// Drives the viewer and writes pictures of its window for docs/viewer.md:
//   qel-viewer-screenshots FOLDER [dark]

#include <QApplication>
#include <QComboBox>
#include <QDir>
#include <QDockWidget>
#include <QElapsedTimer>
#include <QFile>
#include <QHash>
#include <QPalette>
#include <QPushButton>
#include <QScreen>
#include <QStandardPaths>
#include <QThread>

#include <algorithm>
#include <cstdio>

#include <MainWindow.h>
#include <StartPage.h>
#include <TextureView.h>
#include <TimeLine.h>

using namespace Qt::StringLiterals;
using namespace Morvane::Qel::Viewer;

namespace {

void wait(int milliseconds)
{
    QElapsedTimer time;
    time.start();
    while (time.elapsed() < milliseconds) {
        QCoreApplication::processEvents();
        QThread::msleep(5);
    }
}

/// Waits until the window has rendered and its panels have followed.
void settle(MainWindow& window)
{
    constexpr int longest = 60000;
    QElapsedTimer time;
    time.start();
    while (window.session().isFrameNeeded() && time.elapsed() < longest) {
        wait(20);
    }
    wait(1500);
}

class Camera
{
public:
    Camera(MainWindow& window, const QString& folder)
        : m_window(window)
        , m_folder(folder)
    {
    }
    void take(const QString& name)
    {
        settle(m_window);
        constexpr int width = 1000;
        // The most frequent colours as a palette keep the files small, and the panels exact.
        const QImage image = m_window.screen()
                                 ->grabWindow(m_window.winId())
                                 .toImage()
                                 .scaledToWidth(width, Qt::SmoothTransformation)
                                 .convertToFormat(QImage::Format_RGB32);
        QHash<QRgb, int> counts;
        for (int y = 0; y < image.height(); ++y) {
            for (int x = 0; x < image.width(); ++x) {
                // Of similar colours one is enough, except for greys.
                const QRgb color = image.pixel(x, y);
                const bool isGrey = qRed(color) == qGreen(color) && qGreen(color) == qBlue(color);
                ++counts[isGrey ? color : (color & 0xfff0f0f0U) | 0x00080808U];
            }
        }
        QList<QRgb> colors = counts.keys();
        std::sort(colors.begin(), colors.end(), [&](QRgb a, QRgb b) { return counts[a] > counts[b]; });
        constexpr qsizetype numColors = 256;
        colors = colors.first(std::min(colors.size(), numColors));
        good = image.convertToFormat(QImage::Format_Indexed8, colors)
                   .save(m_folder.filePath(name + u".png"_s)) &&
               good;
    }
    bool good = true;

private:
    MainWindow& m_window;
    QDir m_folder;
};

} // namespace

int main(int argc, char** argv)
{
    TextureView::setDefaultFormat();
    QStandardPaths::setTestModeEnabled(true);
    const QApplication application(argc, argv);
    const qsizetype numArguments = QCoreApplication::arguments().size();
    if (numArguments < 2 || numArguments > 3 || StartPage::examplesFolder().isEmpty()) {
        std::fputs("usage: qel-viewer-screenshots FOLDER [dark], in the build tree\n", stderr);
        return 2;
    }
    if (numArguments == 3) {
        QPalette dark(QColor(53, 53, 53));
        dark.setColor(QPalette::Base, QColor(35, 35, 35));
        dark.setColor(QPalette::Highlight, QColor(42, 130, 218));
        QApplication::setStyle(u"fusion"_s);
        QApplication::setPalette(dark);
    }
    const QDir examples(StartPage::examplesFolder());
    MainWindow window;
    Camera camera(window, QCoreApplication::arguments()[1]);
    window.resize(1200, 780);
    window.show();
    window.open(examples.filePath(u"glow.json"_s));
    settle(window);
    window.session().requestFrames(12);
    camera.take(u"window"_s);

    window.view().setZoom(64.0);
    camera.take(u"texels"_s);

    window.view().setZoom(0.0);
    window.findChild<QPushButton*>(u"snapshot"_s)->click();
    window.findChild<QDockWidget*>(u"comparePanel"_s)->raise();
    window.document().edit(u"glow"_s, [](Morvane::Qel::GraphDescription& graph) {
        graph.passes.back().inputs.back().value = 2.5;
    });
    camera.take(u"wipe"_s);

    window.document().undoStack().setClean();
    auto* comparison = window.findChild<QDockWidget*>(u"comparePanel"_s)->findChild<QComboBox*>();
    comparison->setCurrentIndex(0);
    Q_EMIT comparison->activated(0);
    window.open(examples.filePath(u"rack-focus.json"_s));
    window.findChild<QDockWidget*>(u"controlPanel"_s)->raise();
    window.timeLine().goTo(48);
    window.session().requestFrames(12);
    camera.take(u"animation"_s);
    return camera.good ? 0 : 1;
}
