#include <QColor>
#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QMatrix4x4>
#include <QRect>
#include <QVector2D>

#include <gtest/gtest.h>

#include <Qel/graph/GraphFile.h>
#include <Qel/graph/GraphPlan.h>

#include "support/Folder.h"
#include "support/Paths.h"

using namespace Qt::StringLiterals;

namespace Morvane::Qel::Test {

namespace {

/// Types of which only the descriptions matter: these tests create no passes.
PassRegistry testRegistry()
{
    PassRegistry registry;
    const auto add = [&](const QString& type, const QStringList& inputs, const QStringList& outputs,
                         const std::vector<OptionDescription>& options = {}, bool hostDeclaresPorts = false) {
        PassDescription description{type, {}, {}, {}, options, hostDeclaresPorts};
        for (const QString& input : inputs) {
            description.inputs.push_back({u"Qel_"_s + input, {}, {}});
        }
        for (const QString& output : outputs) {
            description.outputs.push_back({u"Qel_"_s + output, {}});
        }
        registry.add(description, nullptr);
    };
    const QString frame = u"QelTexture*_Frame"_s;
    add("Source", {"QRect_Viewport", "QColor_Color", "QString_Path"}, {frame, "QMatrix4x4_ProjectionMatrix"});
    add("Filter",
        {frame, "QelTexture*_Mask", "float_Radius", "int_Count", "Bool_Fast", "QVector2D_Focus",
         "QMatrix4x4_ProjectionMatrix", "QVariant_Data", "int_Twin", "float_Twin"},
        {frame},
        {{"quality", {}, "low", {"low", "high"}},
         {"passes", {}, 1},
         {"table", {}, QString(), {}, true},
         {"shapes",
          {},
          QVariantList(),
          {},
          false,
          {{"kind", {}, "cube", {"cube", "quad"}}, {"size", {}, 1.0F}}}});
    add("Batches", {"QelDrawBuffers*_Geometry"}, {frame});
    add("Draw", {"QelGPUModel*_Geometry"}, {frame});
    add("Screen", {"QelTexture*_Texture"}, {});
    add("Custom", {}, {}, {{"inputs", {}, QStringList()}, {"outputs", {}, QStringList()}}, true);
    return registry;
}

class GraphCpuTest : public testing::Test
{
protected:
    GraphCpuTest()
    {
        m_folder.write("model.obj", "v 0 0 0\n");
        m_folder.write("image.png", "");
    }

    std::optional<GraphPlan> plan(const QByteArray& text)
    {
        m_errors.clear();
        m_folder.write("graph.json", text);
        const auto graph = loadGraph(m_folder.path("graph.json"), &m_errors);
        return graph ? planGraph(*graph, testRegistry(), &m_errors) : std::nullopt;
    }

    GraphPlan validPlan(const QByteArray& text)
    {
        const std::optional<GraphPlan> result = plan(text);
        EXPECT_TRUE(result) << qPrintable(m_errors.join(u'\n'));
        return result.value_or(GraphPlan());
    }

    void expectErrors(const QByteArray& text, const char* expected)
    {
        EXPECT_FALSE(plan(text));
        EXPECT_EQ(m_errors.join(u'\n').remove(m_folder.path({}) + u'/').toStdString(), expected)
            << text.constData();
    }

    Folder m_folder;
    QStringList m_errors;
};

} // namespace

TEST_F(GraphCpuTest, MalformedFilesAreRejectedWithLineAndColumn)
{
    expectErrors("{\"passes\": [\n  {\"name\": \"a\",}\n]}",
                 "graph.json:2:17: not valid JSON: object is missing after a comma");
    expectErrors("", "graph.json:1:1: not valid JSON: illegal value");
    expectErrors("[]", "graph.json:1:1: must be an object {...}, not []");
    expectErrors(R"({"pases": [], "viewport": [640, 480.5],
"camera": {"target": [0, 0]},
"models": {"a": 1}, "models": {},
"lights": [
{"type": "point", "direction": [0, 1, 0], "range": "far"},
{"type": "directional", "cascades": 1.5, "angle": 3}, {"type": "sun", "colour": [1, 1, 1]}, {}],
"passes": [{"name": "a", "typ": "Source"}], "output": "@a.b",
 "output": "@a.c"})",
                 R"(graph.json:1:2: pases: unknown key; did you mean "passes"?
graph.json:1:15: viewport: must be two integers [width, height], not [640,480.5]
graph.json:2:1: camera: "eye" is missing
graph.json:2:12: camera.target: must be three numbers [x, y, z], not [0,0]
graph.json:5:19: lights[0].direction: unknown key; there are "type", "color", "intensity", "position", "range"
graph.json:5:43: lights[0].range: must be a number, not "far"
graph.json:6:42: lights[1].angle: unknown key; there are "type", "color", "intensity", "direction", "cascades"
graph.json:6:25: lights[1].cascades: must be an integer, not 1.5
graph.json:6:71: lights[2].colour: unknown key; did you mean "color"?
graph.json:6:93: lights[3]: "type" is missing
graph.json:7:26: passes[0].typ: unknown key; did you mean "type"?
graph.json:7:12: passes[0]: "type" is missing
graph.json:3:21: models: duplicate key
graph.json:8:2: output: duplicate key)");
    expectErrors(R"({"passes": {}, "models": {"a": 1}})",
                 "graph.json:1:27: models.a: must be a string, not 1\n"
                 "graph.json:1:2: passes: must be an array [...], not {}");
    QStringList errors;
    EXPECT_FALSE(loadGraph(m_folder.path("none.json"), &errors));
    EXPECT_FALSE(loadGraph(m_folder.path({}), &errors));
    ASSERT_EQ(errors.size(), 2);
    EXPECT_TRUE(errors[0].startsWith(m_folder.path("none.json") + ": cannot be read: "));
    EXPECT_TRUE(errors[1].endsWith(": cannot be read: it is a folder"));
}

TEST_F(GraphCpuTest, SceneErrorsNameTheMember)
{
    expectErrors(
        R"({"viewport": [0, 720],
        "camera": {"eye": [0, 1, 0], "up": [0, 2, 0], "fovY": 180, "near": 0, "far": -1},
        "models": {"s": "gone.obj", "Viewport": "model.obj", "a b": "model.obj"},
        "lights": [{"type": "sport", "direction": [0, 0, 0]}, {"type": "directional", "cascades": 9},
                   {"type": "spot", "angle": 171, "range": -1}, {"type": "point", "color": [1, -1, 1]},
                   {"type": "point", "range": 1, "intensity": -0.5},
                   {"type": "spot", "direction": [0, 1, 0], "angle": 170}],
        "passes": [{"name": "b", "type": "Filter"}]})",
        R"(graph.json: viewport: 0x720 is out of range; width and height must be 1 to the driver's limit
graph.json: camera.up: must not be zero or parallel to the view direction
graph.json: camera.fovY: must be above 0 and below 180 degrees
graph.json: camera.near: must be above 0
graph.json: camera.far: must be above "near"
graph.json: models.s: no file "gone.obj"
graph.json: models.Viewport: "@Viewport" is a frame value; use another name
graph.json: models.a b: "a b" is not a valid name; use letters, digits, "_" and "-"
graph.json: lights[0].type: no light type "sport"; did you mean "spot"?
graph.json: lights[1].direction: must not be zero
graph.json: lights[1].cascades: must be 1 to 8
graph.json: lights[2].direction: must not be zero
graph.json: lights[2].angle: must be above 0 and at most 170 degrees
graph.json: lights[2].range: must be 0 or more
graph.json: lights[3].color: must be 0 or more
graph.json: lights[4].intensity: must be 0 or more
graph.json: output: the graph has no output and no pass that draws to the screen; write "output": "@pass.Port")");
    const auto withOutput = [](const QByteArray& output) {
        return R"({"camera": {"eye": [1, 1, 1], "target": [1, 1, 1]},
                   "passes": [{"name": "a", "type": "Source"}], "output": ")" +
               output + "\"}";
    };
    expectErrors(withOutput("a.Frame"), "graph.json: camera.eye: must differ from the target\n"
                                        "graph.json: output: must be \"@pass.Port\", not \"a.Frame\"");
    expectErrors(withOutput("@a.ProjectionMatrix"),
                 "graph.json: camera.eye: must differ from the target\n"
                 "graph.json: output: must be a texture, but \"@a.ProjectionMatrix\" is QMatrix4x4");
}

TEST_F(GraphCpuTest, PassErrorsNameThePortAndTheNearestValidNames)
{
    // Nothing is said about the ports of "typo" and "ports", which errors hide.
    expectErrors(R"({"models": {"scene": "model.obj", "q": "model.obj"}, "passes": [
        {"name": "a", "type": "Source", "inputs": {"Color": "#ff80", "Viewport": [0, 0, 1], "Path": "no.png"}},
        {"name": "a", "type": "Source", "inputs": {"Color": [256, 0, 0]}}, {"name": "a", "type": "Source"},
        {"name": "b.c", "type": "Source"},
        {"name": "typo", "type": "Sorce", "inputs": {"Frame": "@a.Any"}},
        {"name": "options", "type": "Filter", "inputs": {"Frame": "@typo.Any"}, "options": {
            "qualty": "low", "quality": "best", "table": "none.txt", "passes": null,
            "shapes": [{}, {"kind": "ball", "sise": 2}, 3, {"size": "big"}]}},
        {"name": "options2", "type": "Filter", "options": {"passes": 1.5, "shapes": {"kind": "cube"}}},
        {"name": "ports", "type": "Custom", "inputs": {"Nothing": 1}, "options": {
            "inputs": ["Radius", "Qel_flaot_X", "Qel_int_A", "Qel_int_A"], "outputs": "Qel_QelTexture*_Frame"}},
        {"name": "names", "type": "Filter", "inputs": {"Fram": "@a.Frame", "Qel_QelTexture*_Frames": "@a.Frame",
            "Frame": "@aa.Frame", "Mask": "@a.Picture", "Data": "@a", "ProjectionMatrix": "@CamraMatrix", "Twin": 1}},
        {"name": "types", "type": "Filter", "inputs": {"Frame": "@scene", "ProjectionMatrix": "@Viewport",
            "Radius": "@a.Frame", "Mask": 1}},
        {"name": "constants", "type": "Filter", "inputs": {"Radius": "wide", "Count": 1.5, "Fast": 1,
            "Focus": [1], "ProjectionMatrix": [1, 2]}},
        {"name": "limits", "type": "Filter", "inputs": {"Radius": 1e300, "Count": 3000000000}},
        {"name": "twice", "type": "Filter", "inputs": {"Frame": "@a.Frame", "Frame": "@a.Frame",
            "Mask": "@a.Frame", "Qel_QelTexture*_Mask": "@a.Frame"}},
        {"name": "draw", "type": "Draw"}, {"name": "draw2", "type": "Draw", "inputs": {"Geometry": "@scne"}},
        {"name": "draw3", "type": "Draw", "inputs": {"Geometry": "scene"}},
        {"name": "batches", "type": "Batches", "inputs": {"Geometry": "@scene"}},
        {"name": "batch", "type": "Custom", "inputs": {"Mesh": "@scene"}, "options": {"inputs": ["Qel_QelDrawBuffers*_Mesh"]}},
        {"name": "f", "type": "Filter", "inputs": {"Frame": "@g.Frame"}},
        {"name": "g", "type": "Filter", "inputs": {"Frame": "@i.Frame", "Mask": "@i.Frame"}},
        {"name": "h", "type": "Filter", "inputs": {"Frame": "@g.Frame"}},
        {"name": "i", "type": "Filter", "inputs": {"Frame": "@h.Frame"}},
        {"name": "j", "type": "Filter", "inputs": {"Mask": "@j.Frame"}}], "output": "@a.Frame"})",
                 R"(graph.json: a: more than one pass has this name
graph.json: passes[3]: "b.c" is not a valid name; use letters, digits, "_" and "-"
graph.json: typo: no pass type "Sorce"; did you mean "Source"?
graph.json: options.quality: must be one of "low", "high", not "best"
graph.json: options.passes: must not be null
graph.json: options.table: no file "none.txt"
graph.json: options.shapes[1].kind: must be one of "cube", "quad", not "ball"
graph.json: options.shapes[1].sise: unknown key; did you mean "size"?
graph.json: options.shapes[2]: must be an object {...}, not 3
graph.json: options.shapes[3].size: must be a number, not "big"
graph.json: options.qualty: Filter has no such option; did you mean "quality"?
graph.json: options2.passes: must be an integer, not 1.5
graph.json: options2.shapes: must be an array [...], not {"kind":"cube"}
graph.json: ports.outputs: must be an array of strings, not "Qel_QelTexture*_Frame"
graph.json: ports.inputs: "Radius" is not a port name; write Qel_TYPE_NAME, such as "Qel_float_Radius"
graph.json: ports.inputs: "Qel_flaot_X" has an unknown type "flaot"; did you mean "float"?
graph.json: ports.inputs: "Qel_int_A" is listed twice
graph.json: a.Color: must be a colour such as "#ff8000", "#ff800080" or [255, 128, 0, 128], not "#ff80"
graph.json: a.Viewport: must be four integers [x, y, width, height], not [0,0,1]
graph.json: a.Path: no file "no.png"
graph.json: a.Color: must be a colour such as "#ff8000", "#ff800080" or [255, 128, 0, 128], not [256,0,0]
graph.json: names.Fram: Filter has no such input; did you mean "Frame"?
graph.json: names.Qel_QelTexture*_Frames: Filter has no such input; did you mean "Qel_QelTexture*_Frame"?
graph.json: names.Frame: no pass "aa"; did you mean "a"?
graph.json: names.Mask: pass "a" has no output "Picture"; there are "Frame", "ProjectionMatrix"
graph.json: names.Data: "@a" is a pass; write "@a.Frame"
graph.json: names.ProjectionMatrix: no model or frame value "CamraMatrix"; did you mean "CameraMatrix"?
graph.json: names.Twin: "Twin" is ambiguous; write one of "Qel_int_Twin", "Qel_float_Twin"
graph.json: types.Frame: expects QelTexture*, but "@scene" is a model
graph.json: types.ProjectionMatrix: expects QMatrix4x4, but "@Viewport" is QRect
graph.json: types.Radius: expects float, but "@a.Frame" is QelTexture*
graph.json: types.Mask: expects a connection such as "@pass.Port", not 1
graph.json: constants.Radius: must be a number, not "wide"
graph.json: constants.Count: must be an integer, not 1.5
graph.json: constants.Fast: must be true or false, not 1
graph.json: constants.Focus: must be two numbers [x, y], not [1]
graph.json: constants.ProjectionMatrix: must be 16 numbers, row by row, not [1,2]
graph.json: limits.Radius: must be a number, not 1e+300
graph.json: limits.Count: must be an integer, not 3000000000
graph.json: twice.Frame: set more than once
graph.json: twice.Qel_QelTexture*_Mask: set more than once
graph.json: draw.Geometry: the graph has 2 models; choose one, such as "@scene"
graph.json: draw2.Geometry: no model or frame value "scne"; did you mean "scene"?
graph.json: draw3.Geometry: expects a model such as "@scene", not "scene"
graph.json: batch.Mesh: expects QelDrawBuffers*, but "@scene" is a model
graph.json: g: cyclic dependency: g -> h -> i -> g
graph.json: j: cyclic dependency: j -> j)");
}

TEST_F(GraphCpuTest, ConstantsHaveTheTypeOfTheirPort)
{
    const GraphPlan plan = validPlan(R"({"passes": [
        {"name": "a", "type": "Source", "inputs": {"Viewport": [1, 2, 30, 40], "Color": "#10203040", "Path": "image.png"}},
        {"name": "b", "type": "Filter", "inputs": {
            "Radius": 2, "Count": -3, "Fast": true, "Focus": [0.25, 0.75],
            "ProjectionMatrix": [1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16],
            "Data": [1, "x"], "Qel_float_Twin": 1, "Qel_int_Twin": null}},
        {"name": "c", "type": "Source", "inputs": {"Color": [1, 2, 3], "Path": ""}}],
        "output": "@a.Frame"})");
    const QList<QVariantList> expected{
        {QRect(1, 2, 30, 40), QColor(0x10, 0x20, 0x30, 0x40), m_folder.path("image.png")},
        {2.0F, -3, true, QVector2D(0.25F, 0.75F),
         QMatrix4x4(1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16), QVariantList{1, "x"}, QVariant(),
         1.0F},
        {QColor(1, 2, 3, 255), QString("")}};
    ASSERT_EQ(plan.passes.size(), 3U);
    for (size_t pass = 0; pass < 3; ++pass) {
        QVariantList constants;
        for (const PlannedInput& input : plan.passes[pass].inputs) {
            if (input.source == InputSource::Constant) {
                constants.append(input.constant);
            }
        }
        const QVariantList& values = expected[static_cast<qsizetype>(pass)];
        ASSERT_EQ(constants.size(), values.size());
        for (qsizetype i = 0; i < values.size(); ++i) {
            EXPECT_EQ(constants[i].metaType(), values[i].metaType()) << pass << " " << i;
            EXPECT_EQ(constants[i], values[i]) << pass << " " << i;
        }
    }
}

TEST_F(GraphCpuTest, InputsResolveToTheirSources)
{
    const GraphPlan plan = validPlan(R"({"models": {"scene": "model.obj"}, "passes": [
        {"name": "filter", "type": "Filter", "inputs": {
            "Frame": "@source.Frame", "Mask": "@source.Qel_QelTexture*_Frame", "Data": "@scene"},
         "options": {"quality": "high", "table": "image.png", "shapes": [{}, {"kind": "quad", "size": 2}]}},
        {"name": "source", "type": "Source"},
        {"name": "custom", "type": "Custom", "inputs": {"Strength": 0.5, "View": "@CameraMatrix", "Input": "@filter.Frame"},
         "options": {"inputs": ["Qel_QRect_Viewport", "Qel_QelTexture*_Input", "Qel_float_Strength", "Qel_QMatrix4x4_View"],
                     "outputs": ["Qel_QelTexture*_Frame"]}},
        {"name": "draw", "type": "Draw"}, {"name": "batches", "type": "Batches", "inputs": {"Geometry": "@scene"}}],
        "output": "@custom.Frame"})");
    // What each input refers to.
    QStringList sources;
    for (const PlannedPass& pass : plan.passes) {
        for (const PlannedInput& input : pass.inputs) {
            switch (input.source) {
            case InputSource::Default:
                sources.append("default");
                break;
            case InputSource::Constant:
                sources.append(input.constant.toString());
                break;
            case InputSource::Connection:
                sources.append(QString("%1.%2").arg(input.pass).arg(input.output));
                break;
            case InputSource::Model:
                sources.append(QString("model %1%2").arg(input.model).arg(input.takesBatches ? "*" : ""));
                break;
            case InputSource::FrameValue:
                sources.append(QString("value %1").arg(static_cast<int>(input.frameValue)));
                break;
            }
        }
    }
    EXPECT_EQ(sources.join(u", "_s).toStdString(),
              "1.0, 1.0, default, default, default, default, value 1, model 0, default, default, "
              "value 0, default, default, value 0, 0.0, 0.5, value 2, model 0, model 0*");
    ASSERT_EQ(plan.passes.size(), 5U);
    EXPECT_EQ(plan.passes[0].options,
              (PassOptions{{"quality", "high"},
                           {"passes", 1},
                           {"table", m_folder.path("image.png")},
                           {"shapes", QVariantList{QVariantMap{{"kind", "cube"}, {"size", 1.0F}},
                                                   QVariantMap{{"kind", "quad"}, {"size", 2.0F}}}}}));
    EXPECT_EQ(plan.passes[2].outputs, QStringList{"Qel_QelTexture*_Frame"});
    EXPECT_EQ(plan.outputPass, 2);
    EXPECT_EQ(plan.outputPort, 0);
}

TEST_F(GraphCpuTest, PassesRunAfterTheirSourcesAndUnusedOnesAreCulled)
{
    const GraphPlan plan = validPlan(R"({"passes": [
        {"name": "screen", "type": "Screen", "inputs": {"Texture": "@late.Frame"}},
        {"name": "unused", "type": "Filter", "inputs": {"Frame": "@onlyForUnused.Frame", "Mask": "@late.Frame"}},
        {"name": "onlyForUnused", "type": "Filter"},
        {"name": "second", "type": "Filter", "inputs": {"Frame": "@first.Frame"}},
        {"name": "first", "type": "Source"},
        {"name": "free", "type": "Screen"},
        {"name": "late", "type": "Source"}],
        "output": "@second.Frame"})");
    EXPECT_EQ(plan.order, (std::vector<int>{4, 3, 5, 6, 0}));
    QStringList reasons;
    for (const PlannedPass& pass : plan.passes) {
        reasons.append(pass.leftOut);
    }
    EXPECT_EQ(reasons.join(u'|'),
              "|nothing reads its outputs|only unused passes read its outputs: unused||||");
}

TEST_F(GraphCpuTest, SavedGraphsLoadUnchangedFromAnyFolder)
{
    const QByteArray text = R"({
  "viewport": [640, 360],
  "camera": {"eye": [3, 2.1, 4], "target": [0, 0.5, 0], "up": [0, 1, 0], "fovY": 33.3, "near": 0.1, "far": 1e+20},
  "models": {"zebra": "model.obj", "ant": "model.obj"},
  "lights": [{"type": "directional", "direction": [-1, -2, -1]}, {"type": "directional", "direction": [0, -1, 0], "cascades": 4}, {"type": "spot", "position": [1, 2.5, 3], "direction": [0, -1, 0], "color": [0.1, 2, 1], "intensity": 3.5, "angle": 33.3, "range": 7}, {"type": "point", "position": [0, 0, 0]}],
  "passes": [
    {"name": "b", "type": "Filter", "inputs": {"Radius": 0.1, "Frame": "@a.Frame", "Data": "model.obj"}, "options": {"table": "image.png"}},
    {"name": "a", "type": "Source", "inputs": {"Path": "image.png", "Color": "#102030"}},
    {"name": "umläut", "type": "Draw", "inputs": {"Geometry": "@ant"}}
  ],
  "output": "@b.Frame"
}
)";
    QStringList errors;
    m_folder.write("first.json", text);
    const auto graph = loadGraph(m_folder.path("first.json"), &errors);
    ASSERT_TRUE(graph) << qPrintable(errors.join(u'\n'));
    QString error;
    ASSERT_TRUE(saveGraph(*graph, m_folder.path("second.json"), testRegistry(), &error));
    EXPECT_EQ(m_folder.contents("second.json").toStdString(), text.toStdString());
    auto loaded = loadGraph(m_folder.path("second.json"), &errors);
    ASSERT_TRUE(loaded);
    loaded->file = graph->file;
    EXPECT_EQ(*loaded, *graph);

    // From another folder, the paths name the same files.
    ASSERT_TRUE(QDir(m_folder.path({})).mkpath("deeper/down"));
    const QString moved = m_folder.path("deeper/down/third.json");
    ASSERT_TRUE(saveGraph(*graph, moved, testRegistry(), &error)) << qPrintable(error);
    loaded = loadGraph(moved, &errors);
    ASSERT_TRUE(loaded);
    EXPECT_EQ(loaded->models[0].file, "../../model.obj");
    EXPECT_EQ(loaded->passes[0].options["table"], "../../image.png");
    EXPECT_EQ(loaded->passes[1].inputs[0].value, "../../image.png");
    // This one is not a path: its port has another type.
    EXPECT_EQ(loaded->passes[0].inputs[2].value, "model.obj");
    EXPECT_TRUE(planGraph(*loaded, testRegistry(), &errors)) << qPrintable(errors.join(u'\n'));

    EXPECT_FALSE(saveGraph(*graph, m_folder.path("nowhere/graph.json"), testRegistry(), &error));
    EXPECT_TRUE(error.startsWith(m_folder.path("nowhere/graph.json") + ": cannot be written: "));
}

TEST_F(GraphCpuTest, DescriptionsTakeAssignmentsAndAnotherModel)
{
    GraphDescription graph;
    graph.file = m_folder.path("deeper/graph.json");
    graph.passes = {{"blur", "Filter", {{"Qel_float_Radius", 1.0}, {"Frame", "@a.Frame"}}, {}}};
    QString error;
    const auto inputsAfter = [&](const QString& assignment) {
        EXPECT_TRUE(graph.set(assignment, &error)) << qPrintable(error);
        return graph.passes[0].inputs;
    };
    using Inputs = std::vector<InputSetting>;
    const InputSetting frame{"Frame", "@a.Frame"};
    EXPECT_EQ(inputsAfter("blur.Radius=0.5"), (Inputs{frame, {"Radius", 0.5}}));
    EXPECT_EQ(inputsAfter("blur.Qel_float_Radius=[1,2]"),
              (Inputs{frame, {"Qel_float_Radius", QJsonArray{1, 2}}}));
    EXPECT_EQ(inputsAfter("blur.Radius=#ff8000"), (Inputs{frame, {"Radius", "#ff8000"}}));
    EXPECT_EQ(inputsAfter("blur.Frame=@b.Frame=1"), (Inputs{{"Radius", "#ff8000"}, {"Frame", "@b.Frame=1"}}));
    EXPECT_EQ(inputsAfter("blur.Frame=")[1].value, "");
    const QString file = QDir::current().relativeFilePath(m_folder.path("image.png"));
    EXPECT_EQ(QFileInfo(inputsAfter("blur.Frame=" + file)[1].value.toString()),
              QFileInfo(m_folder.path("image.png")));
    for (const char* wrong : {"blur", "blur.Radius", "blur=1", ".Radius=1", "blur.=1", ""}) {
        EXPECT_FALSE(graph.set(wrong, &error)) << wrong;
        EXPECT_EQ(error, QString("\"%1\" is not an assignment; write PASS.PORT=VALUE").arg(wrong));
    }
    EXPECT_FALSE(graph.set("blurr.Radius=1", &error));
    EXPECT_TRUE(error.endsWith("/graph.json: blurr.Radius=1: no pass \"blurr\"; did you mean \"blur\"?"));

    graph.camera = CameraDescription{{1, 2, 3}, {}, {0, 1, 0}};
    graph.models = {{"first", "a.obj"}, {"second", "b.obj"}};
    graph.replaceModel("model.obj");
    EXPECT_FALSE(graph.camera);
    const ModelDescription expected{"first", QDir::current().absoluteFilePath("model.obj")};
    EXPECT_EQ(graph.models, (std::vector<ModelDescription>{expected, {"second", "b.obj"}}));
    EXPECT_EQ(graph.resolvePath(graph.models[0].file), expected.file);
    graph.models.clear();
    graph.replaceModel("model.obj");
    EXPECT_EQ(graph.models, (std::vector<ModelDescription>{{"model", expected.file}}));
}

TEST_F(GraphCpuTest, TheExampleInTheManualIsValid)
{
    QFile manual(sourcePath(u"docs/graph-files.md"_s));
    ASSERT_TRUE(manual.open(QIODevice::ReadOnly));
    const QByteArray text = manual.readAll();
    const qsizetype begin = text.indexOf("```json\n") + 8;
    QStringList errors;
    m_folder.write("graph.json", text.sliced(begin, text.indexOf("```", begin) - begin));
    auto graph = loadGraph(m_folder.path("graph.json"), &errors);
    ASSERT_TRUE(graph) << qPrintable(errors.join(u'\n'));
    graph->file = sourcePath(u"examples/graphs/manual.json"_s);
    const auto plan = planGraph(*graph, PassRegistry::builtin(), &errors);
    ASSERT_TRUE(plan) << qPrintable(errors.join(u'\n'));
    EXPECT_EQ(plan->order, (std::vector<int>{0, 1}));
}

} // namespace Morvane::Qel::Test
