// Shows a graph in a GLFW window:
//   qel-window-glfw GRAPH
//
// The left and right arrow keys turn the graph's first light. A model file that is dropped on the window
// replaces the first model.

// Without this, GLFW's header includes one for GL.
#define GLFW_INCLUDE_NONE
#include <GLFW/glfw3.h>

#include <QQuaternion>

#include <cstdio>

#include <Qel/gl/OpenGLDeviceContext.h>
#include <Qel/graph/GraphFile.h>
#include <Qel/graph/RenderGraph.h>

using namespace Morvane::Qel;

namespace {

int fail(const QString& message)
{
    std::fprintf(stderr, "qel-window-glfw: %s\n", qPrintable(message));
    return 1;
}

RenderGraph& graphOf(GLFWwindow* window)
{
    return *static_cast<RenderGraph*>(glfwGetWindowUserPointer(window));
}

void turnLight(GLFWwindow* window, int key, int /*scancode*/, int action, int /*modifiers*/)
{
    RenderGraph& graph = graphOf(window);
    std::vector<LightDescription> lights = graph.plan().graph.lights;
    if (lights.empty() || action == GLFW_RELEASE || (key != GLFW_KEY_LEFT && key != GLFW_KEY_RIGHT)) {
        return;
    }
    const float degrees = key == GLFW_KEY_LEFT ? -5.0F : 5.0F;
    lights[0].direction =
        QQuaternion::fromAxisAndAngle(0.0F, 1.0F, 0.0F, degrees).rotatedVector(lights[0].direction);
    QString error;
    if (!graph.setLights(lights, &error)) {
        fail(error);
    }
}

void loadModel(GLFWwindow* window, int /*count*/, const char** paths)
{
    RenderGraph& graph = graphOf(window);
    const std::vector<ModelDescription>& models = graph.plan().graph.models;
    QString error;
    const auto model = importModel(QString::fromUtf8(paths[0]), &error);
    if (models.empty()) {
        error = "the graph has no model to replace";
    }
    if (!model || models.empty() || !graph.replaceModel(models[0].name, *model, &error)) {
        fail(error);
    }
}

/// Renders until the window is closed.
int run(GLFWwindow* window, const GraphDescription& description)
{
    OpenGLDeviceContext context;
    context.makeCurrent();
    QStringList errors;
    const auto graph = RenderGraph::create(description, PassRegistry::builtin(), {}, &errors);
    if (!graph) {
        return fail(errors.join('\n'));
    }
    glfwSetWindowUserPointer(window, graph.get());
    glfwSetKeyCallback(window, turnLight);
    glfwSetDropCallback(window, loadModel);

    QString error;
    while (!glfwWindowShouldClose(window)) {
        glfwPollEvents();
        int width = 0;
        int height = 0;
        glfwGetFramebufferSize(window, &width, &height);
        if (width == 0 || height == 0) {
            glfwWaitEvents();
            continue;
        }
        if (!graph->setViewport({width, height}, &error) || !graph->renderFrame(&error) ||
            !graph->present(0, {0, 0, width, height}, &error)) {
            return fail(error);
        }
        glfwSwapBuffers(window);
    }
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 2) {
        return fail("usage: qel-window-glfw GRAPH");
    }
    QStringList errors;
    const auto description = loadGraph(QString::fromLocal8Bit(argv[1]), &errors);
    if (!description) {
        return fail(errors.join('\n'));
    }
    glfwSetErrorCallback([](int, const char* text) { fail(QString::fromUtf8(text)); });
    if (!glfwInit()) {
        return 1;
    }
    glfwWindowHint(GLFW_CONTEXT_VERSION_MAJOR, 3);
    glfwWindowHint(GLFW_CONTEXT_VERSION_MINOR, 2);
    glfwWindowHint(GLFW_OPENGL_PROFILE, GLFW_OPENGL_CORE_PROFILE);
    glfwWindowHint(GLFW_OPENGL_FORWARD_COMPAT, GLFW_TRUE);
    const QSize size = description->viewport;
    GLFWwindow* window = glfwCreateWindow(size.width(), size.height(), argv[1], nullptr, nullptr);
    int result = 1;
    if (window) {
        glfwMakeContextCurrent(window);
        result = run(window, *description);
    }
    glfwTerminate();
    return result;
}
