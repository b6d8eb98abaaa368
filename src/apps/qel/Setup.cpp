#include "Setup.h"

#include <QFile>

#include <cstdio>

#include <Qel/graph/GraphFile.h>

#include "Console.h"
#include "Failure.h"

using namespace Qt::StringLiterals;

namespace Morvane::Qel::App {

namespace {

QString withRemedy(const QString& error)
{
    return error.contains(QLatin1StringView("OUT_OF_MEMORY")) ? error + u"; choose a smaller size"_s : error;
}

} // namespace

void addDeviceOption(Arguments& options)
{
    options.addOption(u"device"_s, u"auto|gpu|software"_s,
                      u"device to render on; auto uses a GPU if there is one"_s);
    options.addExitCode(ExitCode::NoGL);
}

HeadlessContext::Device device(const Arguments& options)
{
    const QString name = options.value(u"device"_s);
    return name == QLatin1StringView("gpu")        ? HeadlessContext::Device::Gpu
           : name == QLatin1StringView("software") ? HeadlessContext::Device::Software
                                                   : HeadlessContext::Device::Auto;
}

std::unique_ptr<HeadlessContext> makeContext(HeadlessContext::Device device)
{
    HeadlessContext::Options options;
    options.device = device;
    QString error;
    std::unique_ptr<HeadlessContext> context = HeadlessContext::create(options, &error);
    if (!context) {
        throw Failure{ExitCode::NoGL, {error}};
    }
    return context;
}

std::unique_ptr<RenderGraph> makeGraph(const GraphPlan& plan, RenderGraph::Options options)
{
    options.modelImport.isolated = true;
    QStringList errors;
    std::unique_ptr<RenderGraph> graph = RenderGraph::create(plan, options, &errors);
    if (!graph) {
        throw Failure{ExitCode::WrongUse, errors};
    }
    return graph;
}

void renderFrame(RenderGraph& graph)
{
    QString error;
    finishFrame(graph.renderFrame(&error), error);
}

void finishFrame(bool isRendered, const QString& error)
{
    if (!isRendered) {
        const QString cause = takeReport();
        // The error of the graph itself has the driver's text.
        const bool adds = !cause.isEmpty() && !cause.startsWith(QLatin1StringView("OpenGL"));
        throw Failure{ExitCode::WrongUse, {withRemedy(adds ? u"%1: %2"_s.arg(error, cause) : error)}};
    }
    checkReports();
}

void checkReports()
{
    const QString cause = takeReport();
    if (!cause.isEmpty()) {
        throw Failure{ExitCode::WrongUse, {withRemedy(u"the image cannot be rendered: "_s + cause)}};
    }
}

void resizeScreen(HeadlessContext& context, const QSize& size)
{
    if (!context.resize(size)) {
        throw Failure{
            ExitCode::WrongUse,
            {u"the driver cannot create a screen of %1x%2; choose a smaller size"_s.arg(size.width())
                 .arg(size.height())}};
    }
}

GraphDescription loadGraphFile(const QString& path)
{
    QStringList errors;
    std::optional<GraphDescription> graph;
    if (path == QLatin1StringView("-")) {
        QFile input;
        if (!input.open(stdin, QIODevice::ReadOnly)) {
            fail(u"<stdin>: cannot be read: "_s + input.errorString());
        }
        graph = loadGraph(input, u"<stdin>"_s, &errors);
    } else {
        graph = loadGraph(path, &errors);
    }
    if (!graph) {
        throw Failure{ExitCode::WrongUse, errors};
    }
    return std::move(*graph);
}

GraphPlan planOf(const GraphDescription& graph)
{
    QStringList errors;
    std::optional<GraphPlan> plan = planGraph(graph, PassRegistry::builtin(), &errors);
    if (!plan) {
        throw Failure{ExitCode::WrongUse, errors};
    }
    return std::move(*plan);
}

} // namespace Morvane::Qel::App
