#include <QApplication>
#include <QCommandLineParser>
#include <QMessageBox>
#include <QOffscreenSurface>
#include <QOpenGLContext>
#include <QSurfaceFormat>

#ifdef __GLIBC__
#include <malloc.h>
#endif

#include "MainWindow.h"
#include "TextureView.h"

using namespace Qt::StringLiterals;

namespace {

/// Whether the driver gives contexts of the version that the library needs.
bool hasOpenGL()
{
    QOpenGLContext context;
    QOffscreenSurface surface;
    surface.create();
    return context.create() && context.makeCurrent(&surface) &&
           context.format().version() >= QSurfaceFormat::defaultFormat().version();
}

} // namespace

int main(int argc, char** argv)
{
#ifdef __GLIBC__
    // By default these limits rise with the largest block that was freed. Images then lie on the heap, and
    // most of it cannot be given back once they are gone.
    mallopt(M_MMAP_THRESHOLD, 4 << 20);
    mallopt(M_TRIM_THRESHOLD, 16 << 20);
#endif
    Morvane::Qel::Viewer::TextureView::setDefaultFormat();
    const QApplication application(argc, argv);
    QCoreApplication::setApplicationName(u"qel-viewer"_s);
    QCoreApplication::setOrganizationName(u"qel"_s);
    QCoreApplication::setApplicationVersion(u"" QEL_VERSION ""_s);

    QCommandLineParser parser;
    parser.setApplicationDescription(u"Shows the images of a graph file, and lets you change it."_s);
    parser.addPositionalArgument(u"GRAPH"_s, u"a graph file; without it, a choice of examples"_s,
                                 u"[GRAPH]"_s);
    parser.addOption({u"model"_s, u"replaces the graph's first model"_s, u"FILE"_s});
    parser.addHelpOption();
    parser.addVersionOption();
    parser.process(application);

    if (!hasOpenGL()) {
        QMessageBox::critical(
            nullptr, u"qel-viewer"_s,
            QCoreApplication::translate(
                "main", "There is no driver for OpenGL 3.2 or later. Install one: on Debian and Ubuntu the "
                        "package libgl1-mesa-dri, which also works without a graphics card."));
        return 1;
    }
    Morvane::Qel::Viewer::MainWindow window;
    const QStringList arguments = parser.positionalArguments();
    if (!arguments.isEmpty()) {
        window.open(arguments.first(), parser.value(u"model"_s));
    }
    window.show();
    return QApplication::exec();
}
