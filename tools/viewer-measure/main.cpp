// Measures the viewer and prints what it finds:
//   qel-viewer-measure start GRAPH [MODEL]    time from the start of the process to the first image
//   qel-viewer-measure use GRAPH [MODEL]      frames, reloads of a shader and rest

#include <QApplication>
#include <QDir>
#include <QEventLoop>
#include <QFile>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QTimer>

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <functional>
#include <vector>

#include <unistd.h>

#include <epoxy/gl.h>

#include <MainWindow.h>
#include <StartPage.h>
#include <TextureView.h>

using namespace Qt::StringLiterals;
using namespace Morvane::Qel;
using namespace Morvane::Qel::Viewer;

namespace {

constexpr QSize pictureSize(1280, 720);

double seconds(clockid_t clock)
{
    timespec time{};
    clock_gettime(clock, &time);
    return static_cast<double>(time.tv_sec) + 1e-9 * static_cast<double>(time.tv_nsec);
}

/// CPU time of all threads of this process, the software rasteriser's too.
double cpuSeconds()
{
    return seconds(CLOCK_PROCESS_CPUTIME_ID);
}

double secondsSinceStart()
{
    QFile file(u"/proc/self/stat"_s);
    if (!file.open(QIODevice::ReadOnly)) {
        return 0.0;
    }
    // Field 22, counted after the name, which may have spaces.
    const QByteArray text = file.readAll();
    const QList<QByteArray> fields = text.sliced(text.lastIndexOf(')') + 2).split(' ');
    constexpr qsizetype startTime = 22 - 3;
    return seconds(CLOCK_BOOTTIME) - fields[startTime].toDouble() / static_cast<double>(sysconf(_SC_CLK_TCK));
}

void waitFor(const std::function<bool()>& condition)
{
    QTimer tick;
    tick.start(1);
    while (!condition()) {
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
    }
}

void wait(int milliseconds)
{
    QEventLoop loop;
    QTimer::singleShot(milliseconds, &loop, &QEventLoop::quit);
    loop.exec();
}

double median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

/// The CPU time of a frame without the window, and what the window adds. Both are medians of blocks that
/// alternate, so that the machine's changes of speed meet both alike.
void measureFrames(MainWindow& window)
{
    constexpr int numBlocks = 15;
    constexpr int numFrames = 5;
    std::vector<double> alone;
    std::vector<double> added;
    std::unique_ptr<RenderGraph> graph;
    window.view().withContext([&] {
        QStringList errors;
        graph = window.session().makeCopy(&errors);
    });
    for (int block = 0; block < numBlocks; ++block) {
        double before = cpuSeconds();
        const quint64 last = window.session().numFrames() + numFrames;
        window.session().requestFrames(numFrames);
        waitFor([&] { return window.session().numFrames() >= last; });
        const double inWindow = (cpuSeconds() - before) / numFrames;
        window.view().withContext([&] {
            glFinish();
            before = cpuSeconds();
            for (int i = 0; i < numFrames; ++i) {
                QString error;
                graph->renderFrame(&error);
                glFinish();
            }
        });
        alone.push_back((cpuSeconds() - before) / numFrames);
        added.push_back(inWindow - alone.back());
    }
    window.view().withContext([&] { graph.reset(); });
    std::printf("frame of 1280x720: %.2f ms CPU, %.2f ms more in the window, %+.1f %%\n",
                1000.0 * median(alone), 1000.0 * median(added), 100.0 * median(added) / median(alone));
}

/// The wall time from saving the shader of an example to the image.
void measureReload(MainWindow& window)
{
    const QTemporaryDir copy;
    const QDir examples(StartPage::examplesFolder() + u"/.."_s);
    for (const QString& folder : {u"graphs/shaders"_s, u"graphs/shared"_s, u"scenes"_s, u"graphs"_s}) {
        QDir().mkpath(copy.filePath(folder));
        const QStringList files = QDir(examples.filePath(folder)).entryList(QDir::Files);
        for (const QString& file : files) {
            QFile::copy(examples.filePath(folder + u'/' + file), copy.filePath(folder + u'/' + file));
        }
    }
    QFile shader(copy.filePath(u"graphs/shaders/film.frag"_s));
    shader.setPermissions(QFile::ReadOwner | QFile::WriteOwner);
    const auto append = [&](const QByteArray& text) {
        if (shader.open(QIODevice::Append)) {
            shader.write(text);
            shader.close();
        }
    };
    double best = 1e9;
    if (!window.open(copy.filePath(u"graphs/shader.json"_s))) {
        std::fprintf(stderr, "%s\n", qPrintable(window.errors().join(u'\n')));
        return;
    }
    wait(3000);
    for (int i = 0; i < 10; ++i) {
        wait(300);
        const quint64 last = window.session().numFrames();
        const double before = seconds(CLOCK_MONOTONIC);
        append("// " + QByteArray::number(i) + "\n");
        waitFor([&] { return window.session().numFrames() > last; });
        best = std::min(best, seconds(CLOCK_MONOTONIC) - before);
    }
    std::printf("saved shader to image: %.0f ms wall, the best of 10\n", 1000.0 * best);
}

void measureRest()
{
    constexpr int duration = 5000;
    wait(3000);
    const double before = cpuSeconds();
    wait(duration);
    std::printf("at rest: %.2f %% of a core\n", 1e5 * (cpuSeconds() - before) / duration);
}

} // namespace

int main(int argc, char** argv)
{
    TextureView::setDefaultFormat();
    QStandardPaths::setTestModeEnabled(true);
    const QApplication application(argc, argv);
    const QStringList arguments = QCoreApplication::arguments();
    if (arguments.size() < 3 || arguments.size() > 4) {
        std::fputs("usage: qel-viewer-measure start|use GRAPH [MODEL]\n", stderr);
        return 2;
    }
    MainWindow window;
    window.view().setFixedSize(pictureSize);
    window.show();
    bool isShown = false;
    QObject::connect(&window.view(), &TextureView::shownChanged, &window,
                     [&] { isShown = isShown || window.session().numFrames() > 0; });
    if (!window.open(arguments[2], arguments.value(3))) {
        std::fprintf(stderr, "%s\n", qPrintable(window.errors().join(u'\n')));
        return 1;
    }
    waitFor([&] { return isShown; });
    if (arguments[1] == u"start") {
        std::printf("%.2f s wall, %.2f s CPU\n", secondsSinceStart(), cpuSeconds());
        return 0;
    }
    waitFor([&] { return !window.session().isFrameNeeded(); });
    measureFrames(window);
    measureRest();
    measureReload(window);
    return 0;
}
