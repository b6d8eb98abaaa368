// Shows a graph in a QOpenGLWidget:
//   qel-window-qt GRAPH

#include <QApplication>
#include <QOpenGLWidget>
#include <QSurfaceFormat>

#include <cstdio>
#include <optional>

#include <Qel/gl/OpenGLDeviceContext.h>
#include <Qel/graph/GraphFile.h>
#include <Qel/graph/RenderGraph.h>

using namespace Morvane::Qel;

namespace {

int fail(const QString& message)
{
    std::fprintf(stderr, "qel-window-qt: %s\n", qPrintable(message));
    return 1;
}

/// Ends the application from its event loop, which does not run yet when the first frame is drawn.
void endApplication(int code)
{
    QMetaObject::invokeMethod(
        QCoreApplication::instance(), [code] { QCoreApplication::exit(code); }, Qt::QueuedConnection);
}

/// A widget that shows the image of a graph. Ends the application when the graph fails.
class GraphView : public QOpenGLWidget
{
public:
    explicit GraphView(GraphDescription description)
        : m_description(std::move(description))
    {
    }

    ~GraphView() override
    {
        makeCurrent();
        m_graph.reset();
        m_context.reset();
        doneCurrent();
    }

    void initializeGL() override
    {
        m_context.emplace();
        m_context->makeCurrent();
        QStringList errors;
        m_graph = RenderGraph::create(m_description, PassRegistry::builtin(), {}, &errors);
        if (!m_graph) {
            endApplication(fail(errors.join('\n')));
        }
    }

    void paintGL() override
    {
        if (!m_graph) {
            return;
        }
        // Qt has changed GL state since the last frame.
        m_context->makeCurrent();
        const QSize pixels = size() * devicePixelRatio();
        QString error;
        if (!m_graph->setViewport(pixels, &error) || !m_graph->renderFrame(&error) ||
            !m_graph->present(defaultFramebufferObject(), {{0, 0}, pixels}, &error)) {
            endApplication(fail(error));
        }
    }

private:
    GraphDescription m_description;
    std::optional<OpenGLDeviceContext> m_context;
    std::unique_ptr<RenderGraph> m_graph;
};

} // namespace

int main(int argc, char** argv)
{
    QSurfaceFormat format;
    format.setVersion(3, 2);
    format.setProfile(QSurfaceFormat::CoreProfile);
    QSurfaceFormat::setDefaultFormat(format);
    const QApplication application(argc, argv);
    const QStringList arguments = QCoreApplication::arguments();
    if (arguments.size() != 2) {
        return fail("usage: qel-window-qt GRAPH");
    }
    QStringList errors;
    const auto description = loadGraph(arguments[1], &errors);
    if (!description) {
        return fail(errors.join('\n'));
    }

    GraphView view(*description);
    view.resize(description->viewport);
    view.show();
    return QApplication::exec();
}
