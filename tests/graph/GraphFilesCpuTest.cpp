// What graph files share: parameters, other files, graphs as passes, keyed values, assignments.

#include <QColor>
#include <QDir>
#include <QJsonArray>

#include <algorithm>
#include <ctime>
#include <functional>

#include <gtest/gtest.h>

#include <Qel/graph/GraphFile.h>
#include <Qel/graph/GraphPlan.h>
#include <Qel/graph/support/Keys.h>

#include "support/Folder.h"

namespace Morvane::Qel::Test {

namespace {

class GraphFilesCpuTest : public testing::Test, protected Folder
{
protected:
    GraphFilesCpuTest()
    {
        QDir(path({})).mkpath("parts");
        write("image.png", "");
        write("parts/image.png", "");
        write("parts/model.obj", "v 0 0 0\n");
        // A scene for other graphs to include: its paths start from its own folder.
        write("parts/scene.json", R"({
  // The colours of the sky.
  "parameters": {"top": "#102030", "gain": 2, "picture": "image.png"},
  "camera": {"eye": [0, 0, 5], "fovY": "$fov"},
  "models": {"scene": "model.obj"},
  "lights": [{"type": "point", "intensity": "$gain"}],
  "passes": [
    {"name": "sky", "type": "GradientRenderPass", "inputs": {"ColorTop": "$top", "ColorBottom": "#ffffff"}},
    {"name": "loaded", "type": "TextureLoaderRenderPass", "inputs": {"TexturePath": "image.png"}},
    {"name": "chosen", "type": "TextureLoaderRenderPass", "inputs": {"TexturePath": "$picture"}}
  ]
})");
        // A graph to run as a pass.
        write("parts/glow.json", R"({
  "parameters": {"Frame": "@empty.Frame", "radius": 3, "mode": "multiply", "model": "@scene"},
  "models": {"scene": "model.obj", "mine": "model.obj"},
  "passes": [
    {"name": "empty", "type": "GradientRenderPass"},
    {"name": "blur", "type": "GaussianBlurRenderPass", "inputs": {"Input": "$Frame", "BlurRadius": "$radius"}},
    {"name": "draw", "type": "ForwardRenderPass", "inputs": {"Geometry": "$model"}},
    {"name": "draw2", "type": "ForwardRenderPass", "inputs": {"Geometry": "@mine"}},
    {"name": "both", "type": "BlendRenderPass", "inputs": {"FrameA": "@blur.Output", "FrameB": "@draw.Frame"},
     "options": {"mode": "$mode"}},
    {"name": "all", "type": "BlendRenderPass", "inputs": {"FrameA": "@both.Frame", "FrameB": "@draw2.Frame"}}
  ],
  "output": "@all.Frame"
})");
        write("graph.json", R"({
  "include": ["parts/scene.json", "parts/scene.json"],
  "parameters": {"top": "#405060", "fov": 30, "wide": "$radius", "radius": 7},
  "passes": [
    {"name": "glow", "type": "graph", "file": "parts/glow.json",
     "inputs": {"Frame": "@sky.Frame", "radius": "$wide", "model": "@scene"}},
    {"name": "shown", "type": "TextureToScreenRenderPass", "inputs": {"Texture": "@glow.Frame"}},
    {"name": "a", "type": "BlendRenderPass", "inputs": {"FrameA": "@loaded.Texture", "FrameB": "@chosen.Texture"}}
  ],
  "output": "@glow.Frame"
})");
    }

    std::optional<GraphPlan> plan(const QString& name)
    {
        m_errors.clear();
        m_graph = loadGraph(path(name), &m_errors);
        return m_graph ? planGraph(*m_graph, PassRegistry::builtin(), &m_errors) : std::nullopt;
    }
    QString errors() const { return m_errors.join('\n').remove(path({}) + '/'); }

    /// The value or the source of an input.
    static QString input(const GraphPlan& plan, const QString& pass, const QString& port)
    {
        for (const PlannedPass& candidate : plan.passes) {
            for (const PlannedInput& input : candidate.inputs) {
                if (candidate.name != pass || !input.port.endsWith('_' + port)) {
                    continue;
                }
                if (input.source == InputSource::Connection) {
                    return "@" + plan.passes.at(static_cast<size_t>(input.pass)).name;
                }
                return input.source == InputSource::Model
                           ? "@" + plan.graph.models.at(static_cast<size_t>(input.model)).name
                           : input.constant.toString();
            }
        }
        return "none";
    }

    /// Adds the members to a graph with one pass, "sky"; the members begin in line 2.
    QString errorOf(const QString& members)
    {
        write("wrong.json", "{" + QString(members.startsWith('{') ? "" : "\n") + members + R"(,
"passes": [{"name": "sky", "type": "GradientRenderPass"}], "output": "@sky.Frame"})");
        plan("wrong.json");
        return errors();
    }

    std::optional<GraphDescription> m_graph;
    QStringList m_errors;
};

} // namespace

TEST_F(GraphFilesCpuTest, FilesBecomeOneGraphThatSavesAndLoadsUnchanged)
{
    const auto check = [&](const GraphPlan& plan, const char* file) {
        SCOPED_TRACE(file);
        const auto expectInput = [&](const char* pass, const char* port, const QString& expected) {
            EXPECT_EQ(input(plan, pass, port).toStdString(), expected.toStdString()) << pass << '.' << port;
        };
        // The including file's parameters count, for its own passes and those of the scene.
        expectInput("sky", "ColorTop", "#405060");
        EXPECT_EQ(plan.graph.camera->fovY, 30.0F);
        EXPECT_EQ(plan.graph.lights.at(0).intensity, 2.0F);
        expectInput("loaded", "TexturePath", path("parts/image.png"));
        expectInput("chosen", "TexturePath", path("parts/image.png"));
        EXPECT_EQ(plan.graph.resolvePath(plan.graph.models.at(0).file), path("parts/model.obj"));
        expectInput("glow-blur", "Input", "@sky");
        expectInput("glow-blur", "BlurRadius", "7");
        expectInput("glow-draw", "Geometry", "@scene");
        expectInput("glow-draw2", "Geometry", "@glow-mine");
        expectInput("shown", "Texture", "@glow-all");
        // The model that an input replaced is not read.
        EXPECT_EQ(plan.graph.models.size(), 2U);
        EXPECT_EQ(plan.passes.at(static_cast<size_t>(plan.outputPass)).name, "glow-all");
        const auto both = std::find_if(plan.passes.begin(), plan.passes.end(),
                                       [](const PlannedPass& pass) { return pass.name == "glow-both"; });
        EXPECT_EQ(both->options.value("mode"), "multiply");
        QStringList places;
        for (const ValueUse& use : plan.usesOf("radius")) {
            places.append(use.place);
        }
        EXPECT_EQ(places, QStringList("glow-blur.BlurRadius"));
    };
    const auto first = plan("graph.json");
    ASSERT_TRUE(first) << qPrintable(errors());
    check(*first, "graph.json");
    QString error;
    QDir(path({})).mkpath("deeper");
    ASSERT_TRUE(saveGraph(*m_graph, path("deeper/saved.json"), PassRegistry::builtin(), &error));
    const auto second = plan("deeper/saved.json");
    ASSERT_TRUE(second) << qPrintable(errors());
    check(*second, "saved.json");
    EXPECT_TRUE(contents("deeper/saved.json").contains(R"("ColorTop":"$top")") ||
                contents("deeper/saved.json").contains(R"("ColorTop": "$top")"));
}

TEST_F(GraphFilesCpuTest, AssignmentsSetParametersPortsOptionsAndTheScene)
{
    ASSERT_TRUE(plan("graph.json")) << qPrintable(errors());
    QString error;
    for (const char* assignment :
         {"top=#010203", "fov=50", "radius=9", "glow.mode=screen", "camera.eye=[1,2,3]", "viewport=[64,48]",
          "lights.0.range=4", "lights.0.intensity=0.5", "a.mode=add", "a.FrameB=@sky.Frame"}) {
        EXPECT_TRUE(m_graph->set(assignment, &error)) << qPrintable(error);
    }
    QStringList messages;
    const auto plan = planGraph(*m_graph, PassRegistry::builtin(), &messages);
    ASSERT_TRUE(plan) << qPrintable(messages.join('\n'));
    EXPECT_EQ(input(*plan, "sky", "ColorTop"), "#010203");
    EXPECT_EQ(input(*plan, "glow-blur", "BlurRadius"), "9");
    EXPECT_EQ(input(*plan, "a", "FrameB"), "@sky");
    EXPECT_EQ(plan->passes.back().options.value("mode"), "add");
    EXPECT_EQ(plan->graph.camera->eye, QVector3D(1, 2, 3));
    EXPECT_EQ(plan->graph.camera->fovY, 50.0F);
    EXPECT_EQ(plan->graph.viewport, QSize(64, 48));
    EXPECT_EQ(plan->graph.lights.at(0).range, 4.0F);
    EXPECT_EQ(plan->graph.lights.at(0).intensity, 0.5F);

    // Mistakes are those of the assignment, not of the file, wherever they are found.
    const std::pair<const char*, const char*> wrong[] = {
        {"fog=1", R"(no parameter "fog"; did you mean "fov"?)"},
        {"camera.eye=[1,2]", "must be three numbers [x, y, z], not [1,2]"},
        {"camera.eyes=1", R"(unknown key; did you mean "eye"?)"},
        {"lights.1.range=2", "the graph has 1 lights, counted from 0"},
        {"fov=x", R"(camera.fovY: must be a number, not "x")"},
        {"viewport=3", "must be two integers [width, height], not 3"},
        {"glow.raduis=1", R"(the graph "glow" has no parameter "raduis"; did you mean "radius"?)"},
        {"skyy.ColorTop=1", R"(no pass "skyy"; did you mean "sky"?)"},
        {"fov=200", "parameters.fov, used in camera.fovY: must be above 0 and below 180 degrees"},
        {"top=red", R"(parameters.top, used in sky.ColorTop: must be a colour)"},
        {"camera.near=-1", "camera.near: must be above 0"},
        {"glow.mode=sideways", "parameters.glow-mode, used in glow-both.mode: must be one of"},
        {"a.mode=7", "a.mode: must be a string"}};
    for (const auto& [assignment, message] : wrong) {
        GraphDescription graph = *m_graph;
        messages.clear();
        if (!graph.set(assignment, &error)) {
            messages = {error};
        } else {
            EXPECT_FALSE(planGraph(graph, PassRegistry::builtin(), &messages)) << assignment;
        }
        ASSERT_EQ(messages.size(), 1) << assignment << ": " << qPrintable(messages.join('\n'));
        EXPECT_TRUE(messages[0].startsWith("--set " + QString(assignment) + ": ")) << qPrintable(messages[0]);
        EXPECT_TRUE(messages[0].contains(message)) << qPrintable(messages[0]);
    }
}

TEST_F(GraphFilesCpuTest, MistakesNameFileLineCauseAndRemedy)
{
    write("parts/loop.json", R"({"include": ["loop2.json"]})");
    write("parts/loop2.json", "{\n\"include\": [\"loop.json\"]}");
    write("parts/broken.json", "{\"viewport\": [1, 2],\n 'passes': []}");
    write("parts/twice.json", "{\"passes\": [\n{\"name\": \"sky\", \"type\": \"GradientRenderPass\"}]}");
    write("parts/far.json", "{\"passes\": [\n{\"name\": \"x\", \"type\": \"GradientRenderPas\"}]}");
    write("parts/silent.json", R"({"passes": [{"name": "a", "type": "GradientRenderPass"}]})");
    const auto graphPass = [](const QString& members) {
        return QString(R"("passes": [{"name": "g", "type": "graph", %1}], "output": "@g.Frame"})")
            .arg(members);
    };
    const std::pair<QString, const char*> mistakes[] = {
        {R"("viewport": [8, 8], /* no */)", "wrong.json:2:21: comments begin with // and end with the line"},
        {R"("viewport": [8, 8,])", R"(wrong.json:2:18: remove this comma: none may stand before "]")"},
        {R"("parameters": {"a": 1,})", R"(wrong.json:2:22: remove this comma: none may stand before "}")"},
        {R"('viewport': [8, 8])",
         R"(wrong.json:2:1: strings and keys stand in double quotes ("), not in single ones ('))"},
        {R"("include": "parts/scene.json")",
         R"(wrong.json:2:1: include: must be an array [...], not "parts/scene.json")"},
        {R"("include": [3])", "wrong.json:2:13: include[0]: must be a string, not 3"},
        {R"("include": ["parts/none.json"])", R"(wrong.json:2:13: include[0]: no file "parts/none.json")"},
        {R"("include": ["parts"])", R"(wrong.json:2:13: include[0]: "parts" cannot be read: it is a folder)"},
        {R"("include": ["wrong.json"])",
         R"(wrong.json:2:13: include[0]: "wrong.json" is being read already: a file cannot be part of itself)"},
        {R"("include": ["parts/loop.json"])",
         R"(parts/loop2.json:2:13: include[0]: "parts/loop.json" is being read already: a file cannot be part of itself)"},
        {R"("include": ["parts/broken.json"])",
         R"(parts/broken.json:2:2: strings and keys stand in double quotes ("), not in single ones ('))"},
        {R"("include": ["parts/twice.json"])",
         R"(wrong.json:3:13: passes[0].name: parts/twice.json:2 has a pass "sky" too; rename one of them)"},
        {R"("include": ["parts/far.json"])",
         R"(parts/far.json:2: x: no pass type "GradientRenderPas"; did you mean "GradientRenderPass"?)"},
        {R"({"include": ["parts/scene.json"]})",
         R"(parts/scene.json:4:32: camera.fovY: no parameter "fov"; there are "top", "gain", "picture")"},
        {R"("parameters": [1])", "wrong.json:2:1: parameters: must be an object {...}, not [1]"},
        {R"("parameters": {"a b": 1})",
         R"(wrong.json:2:16: parameters.a b: "a b" is not a valid name; use letters, digits, "_" and "-")"},
        {R"("parameters": {"a": 1, "a": 2})", "wrong.json:2:24: parameters.a: duplicate key"},
        {R"("parameters": {"a": "$b"})",
         R"(wrong.json:2:16: parameters.a: no parameter "b"; did you mean "a"?)"},
        {R"("parameters": {"a": "$a"})",
         R"(wrong.json:2:16: parameters.a: the parameter "a" stands for itself, or for a chain of more than 64 others)"},
        {R"("viewport": "$size")",
         R"(wrong.json:2:1: viewport: no parameter "size"; the graph has no "parameters")"},
        {R"("parameters": {"size": 3}, "viewport": "$size")",
         R"(wrong.json:2:28: viewport: must be two integers [width, height], not 3, the value of the parameter "size")"},
        {R"("parameters": {"e": 3}, "camera": {"eye": "$e"})",
         R"(wrong.json:2:36: camera.eye: must be three numbers [x, y, z], not 3, the value of the parameter "e")"},
        {R"("parameters": {"e": 300}, "camera": {"eye": [1, 2, 3], "fovY": "$e"})",
         "wrong.json:2: parameters.e, used in camera.fovY: must be above 0 and below 180 degrees"},
        {R"("parameters": {"e": -1}, "lights": [{"type": "point", "range": "$e"}])",
         "wrong.json:2: parameters.e, used in lights[0].range: must be 0 or more"},
        {R"("parameters": {"e": "none.obj"}, "models": {"m": "$e"})",
         R"(wrong.json:2: parameters.e, used in models.m: no file "none.obj")"},
        {R"("parameters": {"e": {"keys": []}})",
         "wrong.json:2:22: parameters.e.keys: must be an array of keys [[FRAME, VALUE], ...], not []"},
        {R"("parameters": {"e": {"keys": [[0, 1], [0, 2]]}})",
         "wrong.json:2:39: parameters.e.keys[1]: must be at a later frame than the key before it, which is "
         "at 0"},
        {R"("parameters": {"e": {"keys": [[-1, 1]]}})",
         "wrong.json:2:31: parameters.e.keys[0]: must be [FRAME, VALUE] with a frame number of 0 or more, "
         "not [-1,1]"},
        {R"("parameters": {"e": {"keys": [[0.5, 1]]}})",
         "wrong.json:2:31: parameters.e.keys[0]: must be [FRAME, VALUE] with a frame number of 0 or more, "
         "not [0.5,1]"},
        {R"("parameters": {"e": {"keys": [[0, 1, 2]]}})",
         "wrong.json:2:31: parameters.e.keys[0]: must be [FRAME, VALUE] with a frame number of 0 or more, "
         "not [0,1,2]"},
        {R"("parameters": {"e": {"keys": [[0, true]]}})",
         R"(wrong.json:2:31: parameters.e.keys[0]: true cannot be interpolated; write "ease": "step")"},
        {R"("parameters": {"e": {"keys": [[0, 1], [5, [1, 2]]]}})",
         "wrong.json:2:39: parameters.e.keys[1]: [1,2] cannot be interpolated with 1, the value of the first "
         "key"},
        {R"("parameters": {"e": {"keys": [[0, 1]], "ease": "smoth"}})",
         R"(wrong.json:2:40: parameters.e.ease: must be one of "linear", "smooth", "step", not "smoth")"},
        {R"("parameters": {"e": {"keys": [[0, 1]], "easy": "step"}})",
         R"(wrong.json:2:40: parameters.e.easy: unknown key; did you mean "ease"?)"},
        {R"("camera": {"eye": {"keys": [[5, [0, 0, 1]], [2, [0, 0, 2]]]}})",
         "wrong.json:2:45: camera.eye.keys[1]: must be at a later frame than the key before it, which is at "
         "5"},
        {R"("camera": {"eye": {"keys": [[0, [0, 0, 1]], [20, [0, 0, 0]]]}})",
         "wrong.json: camera.eye: must differ from the target, in frame 20"},
        {R"("camera": {"eye": [1, 2, 3], "fovY": {"keys": [[0, 40], [9, 180]]}})",
         "wrong.json: camera.fovY: must be above 0 and below 180 degrees, in frame 9"},
        {R"("viewport": {"keys": [[0, [8, 8]]], "ease": "step"})",
         "wrong.json: viewport: is fixed once the graph is created and cannot follow keys; give it one "
         "value"},
        {R"({"passes": [{"name": "a", "type": "GradientRenderPass", "inputs": {"ColorTop": "$t"}}], "output": "@a.Frame"})",
         R"(wrong.json:1:68: passes[0].inputs.ColorTop: no parameter "t"; the graph has no "parameters")"},
        {R"({"parameters": {"t": {"keys": [[0, 1], [1, 2]]}}, "passes": [{"name": "a", "type": "BlendRenderPass", "inputs": {"BlendMode": "$t"}}], "output": "@a.Frame"})",
         R"(wrong.json:1: parameters.t, used in a.BlendMode: is of type int, which has no values between two keys; write "ease": "step")"},
        {R"({"parameters": {"t": {"keys": [[0, 1], [1, 2]]}}, "passes": [{"name": "a", "type": "GradientRenderPass", "inputs": {"ColorTop": "$t"}}], "output": "@a.Frame"})",
         R"(wrong.json:1: parameters.t, used in a.ColorTop: must be a colour such as "#ff8000", "#ff800080" or [255, 128, 0, 128], not 1)"},
        {R"({"parameters": {"t": {"keys": [[0, "add"]], "ease": "step"}}, "passes": [{"name": "a", "type": "BlendRenderPass", "options": {"mode": "$t"}}], "output": "@a.Frame"})",
         "wrong.json:1: parameters.t, used in a.mode: is fixed once the graph is created and cannot follow "
         "keys; give it one value"},
        {"{" + graphPass(R"("file": "parts/none.json")"),
         R"(wrong.json:1:44: passes[0].file: no file "parts/none.json")"},
        {"{" + graphPass(R"("inputs": {})"), R"(wrong.json:1:13: passes[0]: "file" is missing)"},
        {"{" + graphPass(R"("file": "wrong.json")"),
         R"(wrong.json:1:44: passes[0].file: "wrong.json" is being read already: a file cannot be part of itself)"},
        {"{" + graphPass(R"("file": "parts/silent.json")"),
         R"(wrong.json:1:44: passes[0].file: the graph has no "output" for the pass to publish)"},
        {"{" + graphPass(R"("file": "parts/glow.json", "options": {})"),
         R"(wrong.json:1:71: passes[0].options: unknown key)"},
        {"{" + graphPass(R"("file": "parts/glow.json", "inputs": {"raduis": 3})"),
         R"(the inputs of a graph are its parameters; no parameter "raduis"; did you mean "radius"?)"},
        {"{" + graphPass(R"("file": "parts/glow.json", "inputs": {"radius": "wide"})"),
         R"(wrong.json:1: parameters.g-radius, used in g-blur.BlurRadius: must be a number, not "wide")"},
        {QString("{" + graphPass(R"("file": "parts/glow.json")")).replace("@g.Frame", "@g.Image"),
         R"(wrong.json: output: the graph "g" has one output: write "@g.Frame", not "@g.Image")"},
        {QString("{" + graphPass(R"("file": "parts/glow.json", "inputs": {"Frame": "@none.Frame"})")),
         R"(wrong.json:1: parameters.g-Frame, used in g-blur.Input: no pass "none")"}};
    for (const auto& mistake : mistakes) {
        const QString& text = mistake.first;
        const char* message = mistake.second;
        const QString found = text.startsWith('{') ? [&] {
            write("wrong.json", text);
            plan("wrong.json");
            return errors();
        }()
                                                   : errorOf(text);
        EXPECT_TRUE(found.contains(message))
            << qPrintable(text) << "\n  expected " << message << "\n  not      " << qPrintable(found);
        EXPECT_EQ(found.count('\n'), 0) << qPrintable(found);
    }
}

TEST_F(GraphFilesCpuTest, KeysEaseBetweenTheirFrames)
{
    const auto value = [](const QString& ease, const QJsonArray& keys, double frame) {
        const QJsonObject keyed{{"keys", keys}, {"ease", ease}};
        EXPECT_FALSE(keysError(keyed));
        return valueAt(keyed, frame);
    };
    const QJsonArray numbers{QJsonArray{10, 6.5}, QJsonArray{60, 2.0}, QJsonArray{80, 4.0}};
    for (const QString ease : {"linear", "smooth", "step"}) {
        EXPECT_EQ(value(ease, numbers, 0), 6.5);
        EXPECT_EQ(value(ease, numbers, 60), 2.0);
        EXPECT_EQ(value(ease, numbers, 500), 4.0);
    }
    EXPECT_DOUBLE_EQ(value("linear", numbers, 20).toDouble(), 6.5 - 4.5 * 0.2);
    EXPECT_DOUBLE_EQ(value("smooth", numbers, 20).toDouble(), 6.5 - 4.5 * 0.104); // 3 t^2 - 2 t^3 at 0.2
    EXPECT_EQ(value("step", numbers, 59), 6.5);
    const QJsonArray colors{QJsonArray{0, "#000000"}, QJsonArray{10, "#ff640080"}};
    EXPECT_EQ(value("linear", colors, 5), (QJsonArray{128, 50, 0, 192}));
    const QJsonArray vectors{QJsonArray{0, QJsonArray{0, 10}}, QJsonArray{4, QJsonArray{8, 2}}};
    EXPECT_EQ(value("linear", vectors, 1), (QJsonArray{2, 8}));
    EXPECT_EQ(value("step", {QJsonArray{0, "a"}, QJsonArray{3, true}}, 3), true);
}

TEST_F(GraphFilesCpuTest, CostGrowsInProportionToTheFiles)
{
    const auto cost = [&](const QString& part, int size) {
        QStringList parts;
        for (int i = size; i > 0; --i) {
            parts.append(
                QString(part).replace("%1", QString::number(i)).replace("%2", QString::number(i - 1)));
        }
        const QString frame =
            R"({"parameters": {"p0": 1, %1}, "passes": [{"name": "a", "type": "GradientRenderPass"}, %2]})";
        const bool isPass = part.startsWith('{');
        write("large.json",
              frame.arg(isPass ? "\"p\": 2" : parts.join(", "),
                        isPass ? parts.join(", ") : R"({"name": "b", "type": "GradientRenderPass"})"));
        const clock_t begin = clock();
        plan("large.json");
        return clock() - begin;
    };
    for (
        const char* part :
        {R"("p%1": "$p%2")",
         R"({"name": "n%1", "type": "GaussianBlurRenderPass", "inputs": {"BlurRadius": "$p%2"}})",
         R"({"name": "n%1", "type": "GaussianBlurRenderPass", "inputs": {"BlurRadius": "$p0", "Input": "@a.Frame"}})"}) {
        // A quadratic cost would grow 64-fold.
        EXPECT_LT(cost(part, 16000), 24 * cost(part, 2000)) << part;
    }
    // Each of these runs the one before it.
    write("g0.json", R"({"passes": [{"name": "a", "type": "GradientRenderPass"}], "output": "@a.Frame"})");
    for (int i = 1; i < 40; ++i) {
        write(QString("g%1.json").arg(i),
              QString(
                  R"({"passes": [{"name": "a", "type": "graph", "file": "g%1.json"}], "output": "@a.Frame"})")
                  .arg(i - 1));
    }
    EXPECT_FALSE(plan("g39.json"));
    EXPECT_TRUE(errors().contains("is nested too deep; at most 32 files may include one another"))
        << qPrintable(errors());
    EXPECT_TRUE(plan("g20.json")) << qPrintable(errors());
}

TEST_F(GraphFilesCpuTest, ChangedValuesAreWrittenInTheirPlace)
{
    const QString before = QString::fromUtf8(R"({
  // Shared with the other graphs.
  "include": ["parts/scene.json"],
  "parameters": {
    "fov": 30, // degrees
    "wide": 2.50 // a comment
  },
  "viewport": [ 640,360 ],
  "passes": [
    {"name": "glow", "type": "graph", "file": "parts/glow.json", "inputs": { "Frame": "@sky.Frame" }},
    {"name": "a", "type": "GaussianBlurRenderPass",
      "inputs": {
        "Input": "@glow.Frame",
        "BlurRadius": 3, // texels
        "Sigma": 1e0
      }}
  ],
  "output": "@a.Output"
}
)");
    // What the user does, and what it does to the text.
    const auto expectUpdate = [&](const std::function<void(GraphDescription&)>& change,
                                  const QString& expected) {
        write("own.json", before.toUtf8());
        QStringList errors;
        std::optional<GraphDescription> graph = loadGraph(path("own.json"), &errors);
        ASSERT_TRUE(graph) << qPrintable(errors.join('\n'));
        change(*graph);
        QString error;
        EXPECT_EQ(updateGraph(*graph, path("own.json"), &error),
                  expected.isNull() ? GraphUpdate::NeedsRewrite : GraphUpdate::Written);
        EXPECT_EQ(contents("own.json"), (expected.isNull() ? before : expected).toUtf8());
    };
    const auto with = [&](const char* from, const char* to) {
        EXPECT_TRUE(before.contains(from)) << from;
        return QString(before).replace(from, to);
    };
    const auto setParameter = [](const char* name, const QJsonValue& value) {
        return [=](GraphDescription& graph) {
            QString error;
            EXPECT_TRUE(graph.setParameter(name, value, &error)) << qPrintable(error);
        };
    };
    const auto blur = [](GraphDescription& graph) -> std::vector<InputSetting>& {
        return graph.passes.back().inputs;
    };
    expectUpdate([](GraphDescription&) {}, before);
    expectUpdate([&](GraphDescription& graph) { blur(graph)[1].value = 4.5; },
                 with("\"BlurRadius\": 3,", "\"BlurRadius\": 4.5,"));
    expectUpdate([&](GraphDescription& graph) { blur(graph).erase(blur(graph).begin() + 1); },
                 with("        \"BlurRadius\": 3, // texels\n", ""));
    expectUpdate([&](GraphDescription& graph) { blur(graph).pop_back(); },
                 with("3, // texels\n        \"Sigma\": 1e0\n", "3 // texels\n"));
    expectUpdate(
        [&](GraphDescription& graph) {
            blur(graph).push_back({"X\"", "a"});
        },
        with("1e0\n", "1e0,\n        \"X\\\"\": \"a\"\n"));
    expectUpdate([](GraphDescription& graph) { graph.passes.back().options["format"] = "RGBA8"; },
                 with("      }}", "      },\n      \"options\": {\"format\":\"RGBA8\"}}"));
    // A comment stays behind its value.
    expectUpdate(setParameter("wide", 3), with("2.50", "3"));
    expectUpdate(setParameter("top", "#405060"),
                 with("2.50 // a comment", "2.50, // a comment\n    \"top\": \"#405060\""));
    expectUpdate(setParameter("glow-radius", 9),
                 with("{ \"Frame\": \"@sky.Frame\" }", "{ \"Frame\": \"@sky.Frame\", \"radius\": 9 }"));
    expectUpdate(
        [](GraphDescription& graph) {
            graph.viewport = {800, 600};
            graph.output = "@sky.Frame";
        },
        with("[ 640,360 ]", "[800,600]").replace("@a.Output\"", "@sky.Frame\""));
    expectUpdate(
        [](GraphDescription& graph) {
            graph.animation = AnimationDescription{12, 24.0F};
        },
        with("\"@a.Output\"", "\"@a.Output\",\n  \"animation\": {\"fps\":24,\"frames\":12}"));
    // What the file alone cannot hold: passes and lights of the included file, other passes.
    expectUpdate([](GraphDescription& graph) { graph.passes.front().inputs.back().value = "#000000"; }, {});
    expectUpdate([](GraphDescription& graph) { graph.lights.front().range = 4.0F; }, {});
    expectUpdate([](GraphDescription& graph) { graph.passes.pop_back(); }, {});
    expectUpdate(setParameter("picture", "other.png"), {});

    const GraphFileExtras extras = graphFileExtras(path("own.json"));
    EXPECT_EQ(extras.includes, QStringList({path("parts/scene.json"), path("parts/glow.json")}));
    EXPECT_TRUE(extras.hasComments);
    EXPECT_FALSE(graphFileExtras(path("parts/glow.json")).hasComments);
}

} // namespace Morvane::Qel::Test
