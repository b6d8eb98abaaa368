#include <QColor>
#include <QDebug>
#include <QDir>
#include <QJsonArray>
#include <QMatrix4x4>
#include <QRect>
#include <QVector2D>

#include <algorithm>
#include <ctime>
#include <limits>

#include <gtest/gtest.h>

#include <Qel/graph/GraphFile.h>
#include <Qel/graph/GraphPlan.h>

#include "support/Folder.h"

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
            description.inputs.push_back({"Qel_" + input, {}, {}});
        }
        for (const QString& output : outputs) {
            description.outputs.push_back({"Qel_" + output, {}});
        }
        registry.add(description, nullptr);
    };
    const QString frame = "QelTexture*_Frame";
    const std::vector<OptionDescription> shape{{"kind", {}, "cube", {"cube", "quad"}}, {"size", {}, 1.0F}};
    add("Source", {"QRect_Viewport", "QColor_Color", "QString_Path"}, {frame, "QMatrix4x4_ProjectionMatrix"});
    add("Filter",
        {frame, "QelTexture*_Mask", "float_Radius", "int_Count", "Bool_Fast", "QVector2D_Focus",
         "QMatrix4x4_ProjectionMatrix", "QVariant_Data", "int_Twin", "float_Twin"},
        {frame},
        {{"quality", {}, "low", {"low", "high"}},
         {"passes", {}, 1},
         {"table", {}, QString(), {}, true},
         {"shapes", {}, QVariantList(), {}, false, shape}});
    add("Batches", {"QelDrawBuffers*_Geometry"}, {frame});
    add("Draw", {"QelGPUModel*_Geometry"}, {frame});
    add("Shot", {"QMatrix4x4_ProjectionMatrix"}, {frame});
    PassDescription lens{
        "Lens", {}, {{"Qel_" + frame, {}, {}}, {"Qel_QelTexture*_Position", {}, {}}}, {{"Qel_" + frame, {}}}};
    lens.inputs[0].perspectiveReason = "it is a lens";
    lens.inputs[0].orthographicInput = "Qel_QelTexture*_Position";
    registry.add(lens, nullptr);
    add("Screen", {"QelTexture*_Texture"}, {});
    PassDescription draws{"Overlay", {}, {{"Qel_" + frame, {}, {}}}, {{"Qel_" + frame, {}}}};
    draws.inputs[0].isModified = true;
    registry.add(draws, nullptr);
    add("Custom", {}, {},
        {{"inputs", {}, QStringList()},
         {"outputs", {}, QStringList()},
         {"formats", {}, QVariantMap(), {"r8", "r32"}, false, {}, true}},
        true);
    return registry;
}

class GraphCpuTest : public testing::Test, protected Folder
{
protected:
    GraphCpuTest()
    {
        write("model.obj", "v 0 0 0\n");
        write("image.png", "");
    }

    std::optional<GraphDescription> load(const QString& name)
    {
        m_errors.clear();
        return loadGraph(path(name), &m_errors);
    }

    std::optional<GraphPlan> plan(const QByteArray& text)
    {
        write("graph.json", text);
        const auto graph = load("graph.json");
        return graph ? planGraph(*graph, testRegistry(), &m_errors) : std::nullopt;
    }

    GraphPlan validPlan(const QByteArray& text)
    {
        const std::optional<GraphPlan> result = plan(text);
        EXPECT_TRUE(result) << qPrintable(errors());
        return result.value_or(GraphPlan());
    }

    QString errors() const { return m_errors.join('\n').remove(path({}) + '/'); }

    void expectErrors(const QByteArray& text, const char* expected)
    {
        EXPECT_FALSE(plan(text));
        EXPECT_EQ(errors().toStdString(), expected) << text.constData();
    }

    QStringList m_errors;
};

} // namespace

TEST_F(GraphCpuTest, MalformedFilesAreRejectedWithLineAndColumn)
{
    expectErrors("{\"passes\": [\n  {\"name\": \"a\",}\n]}",
                 "graph.json:2:15: remove this comma: none may stand before \"}\"");
    expectErrors("[]", "graph.json:1:1: must be an object {...}, not []");
    expectErrors(R"({"pases": [], "viewport": [640, 480.5],
"camera": {"target": [0, 0]},
"models": {"a": 1}, "models": {"b": 1},
"lights": [{"type": "point", "direction": [0, 1, 0], "range": "far"},
{"type": "directional", "cascades": 1.5, "angle": 3}, {"colour": 1}],
"passes": {}, "output": "@a.b", "output": "@a.c"})",
                 R"(graph.json:1:2: pases: unknown key; did you mean "passes"?
graph.json:1:15: viewport: must be two integers [width, height], not [640,480.5]
graph.json:2:1: camera: "eye" is missing
graph.json:2:12: camera.target: must be three numbers [x, y, z], not [0,0]
graph.json:3:32: models.b: must be a file name or an object {...}, not 1
graph.json:4:30: lights[0].direction: unknown key; there are "type", "color", "intensity", "position", "range"
graph.json:4:54: lights[0].range: must be a number, not "far"
graph.json:5:42: lights[1].angle: unknown key; there are "type", "color", "intensity", "direction", "cascades"
graph.json:5:25: lights[1].cascades: must be an integer, not 1.5
graph.json:5:56: lights[2].colour: unknown key; did you mean "color"?
graph.json:5:55: lights[2]: "type" is missing
graph.json:6:1: passes: must be an array [...], not {}
graph.json:3:21: models: duplicate key
graph.json:6:33: output: duplicate key)");
    expectErrors(
        R"({"camera": {"orbit": {"turn": 1}, "eye": [0, 0, 1]}, "animation": {"frame": 9}, "settle": 1.5})",
        R"(graph.json:1:23: camera.orbit.turn: unknown key; did you mean "turns"?
graph.json:1:35: camera.eye: cannot be combined with "orbit", which sets it; remove one of them
graph.json:1:68: animation.frame: unknown key; did you mean "frames"?
graph.json:1:54: animation: "frames" is missing
graph.json:1:81: settle: must be an integer, not 1.5)");
    EXPECT_FALSE(load("none.json"));
    EXPECT_TRUE(errors().startsWith("none.json: cannot be read: "));
    EXPECT_FALSE(load({}));
    EXPECT_TRUE(errors().endsWith(": cannot be read: it is a folder"));
}

TEST_F(GraphCpuTest, SceneErrorsNameTheMember)
{
    expectErrors(
        R"({"viewport": [0, 720], "output": "a.Frame",
        "camera": {"eye": [0, 1, 0], "up": [0, 2, 0], "fovY": 180, "near": 0, "far": -1},
        "models": {"s": "gone.obj", "Viewport": "model.obj", "a b": "model.obj"},
        "lights": [{"type": "sport", "direction": [0, 0, 0]}, {"type": "directional", "cascades": 9},
                   {"type": "spot", "angle": 171, "range": -1},
                   {"type": "point", "color": [1, -1, 1], "intensity": -0.5},
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
graph.json: lights[3].intensity: must be 0 or more
graph.json: output: must be "@pass.Port", not "a.Frame")");
    expectErrors(R"({"camera": {"eye": [1, 1, 1], "target": [1, 1, 1]}, "output": "@a.ProjectionMatrix",
                     "passes": [{"name": "a", "type": "Source"}]})",
                 "graph.json: camera.eye: must differ from the target\n"
                 "graph.json: output: must be a texture, but \"@a.ProjectionMatrix\" is QMatrix4x4");
    expectErrors(R"({"camera": {"orbit": {"elevation": -90, "distance": -1}, "near": 2, "far": 1},
                     "animation": {"frames": 0, "fps": -25}, "settle": 0, "output": "@a.Frame",
                     "passes": [{"name": "a", "type": "Source"}]})",
                 "graph.json: camera.orbit.elevation: must be above -90 and below 90 degrees\n"
                 "graph.json: camera.orbit.distance: must be above 0, or 0 to fit it to the models\n"
                 "graph.json: camera.far: must be above \"near\"\n"
                 "graph.json: animation.frames: must be 1 to 1000000\n"
                 "graph.json: animation.fps: must be above 0 and at most 1000 frames per second\n"
                 "graph.json: settle: must be 1 to 10000");
    expectErrors(R"({"passes": [{"name": "a", "type": "Source"}]})",
                 "graph.json: output: the graph has no output and no pass that draws to the screen; "
                 "write \"output\": \"@pass.Port\"");
}

TEST_F(GraphCpuTest, ModelErrorsNameTheMember)
{
    expectErrors(R"({"camera": {"eye": [0, 0, 1], "fovY": 40, "height": "2"}, "models": {
"a": 1, "b": {}, "c": {"file": "model.obj", "merge": []},
"d": {"file": "model.obj", "scale": "big", "fit": 0, "rotate": 90, "postion": [0, 0, 0]},
"e": {"merge": ["d", 3], "scale": [1, 2], "upAxis": 2}}})",
                 R"(graph.json:1:43: camera.height: must be a number, not "2"
graph.json:1:43: camera.height: excludes "fovY"; a height makes the camera orthographic
graph.json:2:1: models.a: must be a file name or an object {...}, not 1
graph.json:2:9: models.b: must have either "file" or "merge"
graph.json:2:18: models.c: must have either "file" or "merge"
graph.json:2:45: models.c.merge: must name at least one model
graph.json:3:68: models.d.postion: unknown key; there are "file", "merge", "upAxis", "scale", "fit", "rotate", "translate"
graph.json:3:28: models.d.scale: must be a number or three numbers [x, y, z], not "big"
graph.json:3:44: models.d.fit: must be above 0
graph.json:3:54: models.d.rotate: must be three numbers [x, y, z], not 90
graph.json:4:22: models.e.merge[1]: must be a string, not 3
graph.json:4:43: models.e.upAxis: must be a string, not 2
graph.json:4:26: models.e.scale: must be three numbers [x, y, z], not [1,2])");
    expectErrors(R"({"camera": {"eye": [0, 0, 1], "height": 0, "near": 2, "far": 1}, "models": {
        "a": {"file": "model.obj", "upAxis": "w", "scale": [1, 0, 1]}, "b": {"merge": ["a", "a", "bb"]},
        "c": {"merge": ["d", "a"]}, "d": {"merge": ["e"]}, "e": {"merge": ["b", "d"]}},
        "passes": [{"name": "x", "type": "Draw"}], "output": "@x.Frame"})",
                 R"(graph.json: camera.height: must be above 0
graph.json: camera.far: must be above "near"
graph.json: models.a.upAxis: must be "x", "y" or "z"
graph.json: models.a.scale: must not be 0
graph.json: models.b.merge: "a" is named twice; a second model with the same file can stand elsewhere
graph.json: models.b.merge: no model "bb"; did you mean "b"?
graph.json: models.d.merge: a model cannot be a part of itself: d needs e needs d)");

    // The model that is no part of another is the one that passes get.
    const GraphPlan merged = validPlan(R"({"models": {"a": "model.obj", "all": {"merge": ["a", "b"]},
        "b": {"file": "model.obj", "translate": [1, 0, 0]}},
        "passes": [{"name": "x", "type": "Draw"}], "output": "@x.Frame"})");
    EXPECT_EQ(merged.passes.at(0).inputs.at(0).model, 1);
}

TEST_F(GraphCpuTest, OrthographicCamerasAreErrorsWhereADepthMustBeOfAPerspectiveOne)
{
    const auto graph = [](const QByteArray& camera, const QByteArray& lens) {
        return R"({"camera": {"eye": [0, 0, 1], )" + camera +
               R"(}, "models": {"m": "model.obj"}, "passes": [
            {"name": "draw", "type": "Shot"}, {"name": "source", "type": "Source"},
            {"name": "blur", "type": "Filter", "inputs": {"Frame": "@draw.Frame"}},
            {"name": "convert", "type": "Custom", "inputs": {"In": "@draw.Frame"},
             "options": {"inputs": ["Qel_QelTexture*_In"], "outputs": ["Qel_QelTexture*_Frame"]}},
            {"name": "lens", "type": "Lens", "inputs": {)" +
               lens + R"(}}], "output": "@lens.Frame"})";
    };
    const char* message = "graph.json: lens.Frame: needs a perspective camera, with \"fovY\" and not "
                          "\"height\": it is a lens";
    expectErrors(graph(R"("height": 2, "near": 1)", R"("Frame": "@blur.Frame")"), message);
    EXPECT_EQ(validPlan(graph(R"("fovY": 40)", R"("Frame": "@draw.Frame")")).perspectiveNeeds.size(), 1);
    validPlan(graph(R"("height": 2)", R"("Frame": "@source.Frame")"));
    validPlan(graph(R"("height": 2)", R"("Frame": "@convert.Frame")"));
    validPlan(graph(R"("height": 2)", R"("Frame": "@draw.Frame", "Position": "@draw.Frame")"));
}

TEST_F(GraphCpuTest, PassErrorsNameThePortAndTheNearestValidNames)
{
    // Nothing is said about the ports of "typo" and "ports", which errors hide.
    expectErrors(R"({"models": {"scene": "model.obj", "q": "model.obj"}, "passes": [
        {"name": "a", "type": "Source", "inputs": {"Color": "#ff80", "Viewport": [0, 0, 1], "Path": "no.png"}},
        {"name": "a", "type": "Source", "inputs": {"Color": [256, 0, 0], "Viewport": [2147483647, 0, 2, 2]}}, {"name": "b.c", "type": "Source"},
        {"name": "typo", "type": "Sorce", "inputs": {"Frame": "@a.Any"}},
        {"name": "options", "type": "Filter", "inputs": {"Frame": "@typo.Any"}, "options": {
            "qualty": "low", "quality": "best", "table": "none.txt", "passes": null,
            "shapes": [{}, {"kind": "ball", "sise": 2}, 3, {"size": "big"}]}},
        {"name": "options2", "type": "Filter", "options": {"passes": 1.5, "shapes": {"kind": "cube"}}},
        {"name": "ports", "type": "Custom", "inputs": {"Nothing": 1}, "options": {
            "inputs": ["Radius", "Qel_flaot_X", "Qel_int_A", "Qel_int_A"], "outputs": "Qel_QelTexture*_Frame"}},
        {"name": "formats", "type": "Custom", "options": {"outputs": ["Qel_QelTexture*_A", "Qel_QelTexture*_B", "Qel_float_C"],
            "formats": {"A": "r16", "Qel_QelTexture*_B": "r32", "C": "r8", "D": "r8"}}},
        {"name": "formats2", "type": "Custom", "options": {"formats": ["r8"]}},
        {"name": "names", "type": "Filter", "inputs": {"Fram": "@a.Frame", "Qel_QelTexture*_Frames": "@a.Frame",
            "Frame": "@aa.Frame", "Mask": "@a.Picture", "Data": "@a", "ProjectionMatrix": "@CamraMatrix", "Twin": 1}},
        {"name": "types", "type": "Filter", "inputs": {"Frame": "@scene", "ProjectionMatrix": "@Viewport",
            "Radius": "@a.Frame", "Mask": 1, "Count": 3000000000, "Fast": 1, "Focus": [1]}},
        {"name": "limits", "type": "Filter", "inputs": {"Radius": 1e300, "Count": 1.5, "ProjectionMatrix": [1]}},
        {"name": "twice", "type": "Filter", "inputs": {"Frame": "@a.Frame", "Frame": "@a.Frame",
            "Mask": "@a.Frame", "Qel_QelTexture*_Mask": "@a.Frame"}},
        {"name": "draw", "type": "Draw"}, {"name": "draw2", "type": "Draw", "inputs": {"Geometry": "scene"}},
        {"name": "batch", "type": "Custom", "inputs": {"Mesh": "@scene"}, "options": {"inputs": ["Qel_QelDrawBuffers*_Mesh"]}},
        {"name": "f", "type": "Filter", "inputs": {"Frame": "@g.Frame"}}, {"name": "g", "type": "Filter", "inputs": {"Frame": "@i.Frame", "Mask": "@i.Frame"}},
        {"name": "h", "type": "Filter", "inputs": {"Frame": "@g.Frame"}}, {"name": "i", "type": "Filter", "inputs": {"Frame": "@h.Frame"}},
        {"name": "j", "type": "Filter", "inputs": {"Mask": "@j.Frame"}}], "output": "@a.Frame"})",
                 R"(graph.json: a: more than one pass has this name
graph.json: passes[2]: "b.c" is not a valid name; use letters, digits, "_" and "-"
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
graph.json: ports.inputs: "Qel_flaot_X" has an unknown type "flaot"; the types are QelTexture*, QelDrawBuffers*, QelGPUModel*, float, double, int, bool, QString, QColor, QMatrix4x4, QVector2D, QVector3D, QVector4D, QRect, QSize, QVariant
graph.json: ports.inputs: "Qel_int_A" is listed twice
graph.json: formats.formats.A: must be one of "r8", "r32", not "r16"
graph.json: formats.formats.C: is no texture, so it has no format
graph.json: formats.formats.D: the pass has no such output; did you mean "A"?
graph.json: formats2.formats: must be an object such as {"Frame": "r8"}, not ["r8"]
graph.json: a.Color: must be a colour such as "#ff8000", "#ff800080" or [255, 128, 0, 128], not "#ff80"
graph.json: a.Viewport: must be four integers [x, y, width, height], not [0,0,1]
graph.json: a.Path: no file "no.png"
graph.json: a.Color: must be a colour such as "#ff8000", "#ff800080" or [255, 128, 0, 128], not [256,0,0]
graph.json: a.Viewport: must be four integers [x, y, width, height], not [2147483647,0,2,2]
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
graph.json: types.Count: must be an integer, not 3000000000
graph.json: types.Fast: must be true or false, not 1
graph.json: types.Focus: must be two numbers [x, y], not [1]
graph.json: limits.Radius: must be a number, not 1e+300
graph.json: limits.Count: must be an integer, not 1.5
graph.json: limits.ProjectionMatrix: must be 16 numbers, row by row, not [1]
graph.json: twice.Frame: set more than once
graph.json: twice.Qel_QelTexture*_Mask: set more than once
graph.json: draw.Geometry: the graph has 2 models; choose one, such as "@scene"
graph.json: draw2.Geometry: expects a model such as "@scene", not "scene"
graph.json: batch.Mesh: expects QelDrawBuffers*, but "@scene" is a model; give the port the type QelGPUModel*
graph.json: g: cyclic dependency: g -> h -> i -> g
graph.json: j: cyclic dependency: j -> j)");
}

TEST_F(GraphCpuTest, CreatingAPassCompletesAndChecksItsOptions)
{
    PassRegistry registry = testRegistry();
    PassOptions received;
    registry.add(*registry.description("Filter"), [&](const PassOptions& options, QString* error) {
        received = options;
        *error = "complete";
        return nullptr;
    });
    const auto create = [&](const PassOptions& options) {
        QString error;
        EXPECT_EQ(registry.create("Filter", options, &error), nullptr);
        return error.toStdString();
    };
    EXPECT_EQ(create({{"passes", "3"}, {"shapes", QVariantList{QVariantMap()}}}), "complete");
    const QVariantMap shape{{"kind", "cube"}, {"size", 1.0F}};
    EXPECT_EQ(
        received,
        (PassOptions{{"passes", 3}, {"quality", "low"}, {"table", ""}, {"shapes", QVariantList{shape}}}));
    EXPECT_EQ(create({{"qualty", "low"}}), "Filter: no option \"qualty\"; did you mean \"quality\"?");
    EXPECT_EQ(create({{"quality", ""}}), R"(Filter: option quality must be one of "low", "high", not "")");
    EXPECT_EQ(create({{"passes", "many"}}), "Filter: option passes must be of type int, not QString");
}

TEST_F(GraphCpuTest, InputsResolveToTheirSources)
{
    const GraphPlan plan = validPlan(R"({"models": {"scene": "model.obj"}, "passes": [
        {"name": "filter", "type": "Filter", "inputs": {
            "Frame": "@source.Frame", "Mask": "@source.Qel_QelTexture*_Frame", "Radius": 2, "Count": -3, "Fast": true,
            "Focus": [0.25, 0.75], "Data": "@scene", "Qel_float_Twin": 1, "Qel_int_Twin": null},
         "options": {"quality": "high", "table": "image.png", "shapes": [{}, {"kind": "quad", "size": 2}]}},
        {"name": "source", "type": "Source",
         "inputs": {"Viewport": [1, 2, 30, 40], "Color": "#10203040", "Path": "image.png"}},
        {"name": "plain", "type": "Source", "inputs": {"Color": [1, 2, 3], "Path": ""}},
        {"name": "custom", "type": "Custom", "inputs": {"Data": [true, "x"], "View": "@CameraMatrix", "Input": "@filter.Frame",
            "Matrix": [1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16]},
         "options": {"inputs": ["Qel_QVariant_Data", "Qel_QelTexture*_Input", "Qel_QMatrix4x4_View", "Qel_QMatrix4x4_Matrix"],
                     "outputs": ["Qel_QelTexture*_Frame"]}},
        {"name": "draw", "type": "Draw"}, {"name": "batches", "type": "Batches", "inputs": {"Geometry": "@scene"}}],
        "output": "@custom.Frame"})");
    const auto source = [](const PlannedInput& input) -> QVariant {
        switch (input.source) {
        case InputSource::Constant:
            return input.constant;
        case InputSource::Connection:
            return QString("%1.%2").arg(input.pass).arg(input.output);
        case InputSource::Model:
            return QString("model %1%2").arg(input.model).arg(input.takesBatches ? "*" : "");
        case InputSource::FrameValue:
            return QString("value %1").arg(static_cast<int>(input.frameValue));
        default:
            return "default";
        }
    };
    QList<QVariantList> sources;
    for (const PlannedPass& pass : plan.passes) {
        std::transform(pass.inputs.begin(), pass.inputs.end(), std::back_inserter(sources.emplaceBack()),
                       source);
    }
    const QMatrix4x4 matrix(1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16);
    const QList<QVariantList> expected{
        {"1.0", "1.0", 2.0F, -3, true, QVector2D(0.25F, 0.75F), "value 1", "model 0", QVariant(), 1.0F},
        {QRect(1, 2, 30, 40), QColor(0x10, 0x20, 0x30, 0x40), path("image.png")},
        {"value 0", QColor(1, 2, 3, 255), QString("")},
        {QVariantList{true, "x"}, "0.0", "value 2", matrix},
        {"model 0"},
        {"model 0*"}};
    // As text, which holds the types too.
    EXPECT_EQ(QDebug::toString(sources).toStdString(), QDebug::toString(expected).toStdString());
    ASSERT_EQ(plan.passes.size(), 6U);
    EXPECT_EQ(plan.passes[0].options,
              (PassOptions{{"quality", "high"},
                           {"passes", 1},
                           {"table", path("image.png")},
                           {"shapes", QVariantList{QVariantMap{{"kind", "cube"}, {"size", 1.0F}},
                                                   QVariantMap{{"kind", "quad"}, {"size", 2.0F}}}}}));
    EXPECT_EQ(plan.passes[3].outputs, QStringList{"Qel_QelTexture*_Frame"});
    EXPECT_EQ(plan.outputPass, 3);
}

TEST_F(GraphCpuTest, PassesRunAfterTheirSourcesAndUnusedOnesAreCulled)
{
    const GraphPlan plan = validPlan(R"({"passes": [
        {"name": "screen", "type": "Screen", "inputs": {"Texture": "@late.Frame"}},
        {"name": "unused", "type": "Filter", "inputs": {"Frame": "@onlyForUnused.Frame", "Mask": "@late.Frame"}},
        {"name": "onlyForUnused", "type": "Filter"},
        {"name": "second", "type": "Filter", "inputs": {"Frame": "@first.Frame"}},
        {"name": "first", "type": "Source"}, {"name": "free", "type": "Screen"}, {"name": "late", "type": "Source"}],
        "output": "@second.Frame"})");
    EXPECT_EQ(plan.order, (std::vector<int>{4, 3, 5, 6, 0}));
    EXPECT_EQ(plan.passes.at(0).cullReason, "");
    EXPECT_EQ(plan.passes.at(1).cullReason, "nothing reads its outputs");
    EXPECT_EQ(plan.passes.at(2).cullReason, "only culled passes read its outputs: unused");
}

TEST_F(GraphCpuTest, HistoryAddsUpUnlessItRestartsWithEachFrame)
{
    PassRegistry registry;
    const auto add = [&](const QString& type, int frames) {
        PassDescription description{type,
                                    {},
                                    {{"Qel_QelTexture*_Frame", {}, {}}, {"Qel_bool_Dirty", {}, {}}},
                                    {{"Qel_QelTexture*_Frame", {}}}};
        description.historyFrames = frames;
        description.restartInput = "Qel_bool_Dirty";
        registry.add(description, nullptr);
    };
    add("Two", 2);
    add("All", PassDescription::unlimitedHistory);
    const auto runUp = [&](const QJsonValue& first, const QString& type, const QJsonValue& second) {
        GraphDescription graph;
        graph.passes = {{"a", "Two", {{"Dirty", first}}, {}},
                        {"b", type, {{"Frame", "@a.Frame"}, {"Dirty", second}}, {}},
                        {"culled", "All", {{"Dirty", false}}, {}}};
        graph.output = "@b.Frame";
        return planGraph(graph, registry, &m_errors).value_or(GraphPlan()).runUpFrames;
    };
    EXPECT_EQ(runUp(false, "Two", false), 4);
    EXPECT_EQ(runUp(false, "All", false), PassDescription::unlimitedHistory);
    EXPECT_EQ(runUp(false, "All", "@NewFrame"), 2);
    EXPECT_EQ(runUp(true, "All", QJsonValue::Null), 0);
}

TEST_F(GraphCpuTest, PassesThatModifyATextureRunAfterItsOtherReaders)
{
    const QByteArray text = R"({"passes": [
        {"name": "a", "type": "Source"}, {"name": "over", "type": "Overlay", "inputs": {"Frame": "@a.Frame"}},
        {"name": "top", "type": "Overlay", "inputs": {"Frame": "@over.Frame"}},
        {"name": "read", "type": "Filter", "inputs": {"Frame": "@a.Frame", "Mask": "@%1.Frame"}},
        {"name": "between", "type": "Screen", "inputs": {"Texture": "@over.Frame"}},
        {"name": "unused", "type": "Overlay", "inputs": {"Frame": "@a.Frame"}},
        {"name": "s1", "type": "Screen", "inputs": {"Texture": "@top.Frame"}},
        {"name": "s2", "type": "Screen", "inputs": {"Texture": "@%2.Frame"}}], "output": "@read.Frame"})";
    const auto with = [&](const char* mask, const char* last) {
        return QByteArray(text).replace("%1", mask).replace("%2", last);
    };
    EXPECT_EQ(validPlan(with("a", "read")).order, (std::vector<int>{0, 3, 1, 4, 2, 6, 7}));
    expectErrors(with("top", "read"),
                 "graph.json: over: cyclic dependency: over -> top -> read -> over; \"over\" "
                 "modifies \"@a.Frame\" in place, so \"read\", which reads it, must run before");
    expectErrors(with("a", "unused"),
                 "graph.json: unused.Frame: \"@a.Frame\" is already modified in place by "
                 "\"over\"; connect the output of that pass instead");
}

TEST_F(GraphCpuTest, CostGrowsInProportionToTheFile)
{
    // Processor time of the fastest of three readings of a file with this many parts in place of "$".
    const auto cost = [&](const QString& frame, const QString& part, int size) {
        QStringList parts;
        for (int i = size; i > 0; --i) {
            parts.append(part.arg(i).replace("~", QString::number(i - 1)));
        }
        const QByteArray file = QString(frame).replace("$", parts.join(", ")).toUtf8();
        clock_t least = std::numeric_limits<clock_t>::max();
        for (int run = 0; run < 3; ++run) {
            const clock_t begin = clock();
            plan(file);
            least = std::min(least, clock() - begin);
        }
        return least;
    };
    const std::pair<const char*, const char*> files[] = {
        {R"({"passes": [$, {"name": "p0", "type": "Source"}], "output": "@p2000.Frame"})",
         R"({"name": "p%1", "type": "Filter", "inputs": {"Frame": "@p~.Frame"}})"},
        {R"({"passes": [{"name": "a", "type": "Source"}, $]})",
         R"({"name": "s%1", "type": "Screen", "inputs": {"Texture": "@a.Frame"}})"},
        {R"({"passes": [$]})", R"({"name": "s%1", "type": "Screen", "inputs": {"Texture": "@b%1.Frame"}})"},
        {R"({"passes": [{"name": "a", "type": "Source", "inputs": {$}}]})", R"("k%1": 1)"},
        {R"({"passes": [{"name": "a", "type": "Custom", "options": {"inputs": [$]}, "inputs": {"P1": 1}}]})",
         R"("Qel_int_P%1")"},
        {"{$}", R"("output": %1)"},
        {R"({"camera": {$}})", R"("key%1": {"a": [1]})"}};
    for (const auto& [frame, part] : files) {
        // A quadratic cost would grow 64-fold.
        EXPECT_LT(cost(frame, part, 16000), 24 * cost(frame, part, 2000)) << part;
    }
}

TEST_F(GraphCpuTest, MessagesAreBoundedAndPrintable)
{
    QStringList passes;
    const QString ring =
        R"({"name": "p%1", "type": "Filter", "inputs": {"Frame": "@p%2.Frame", "Mask": "@p0.Frame"}})";
    for (int i = 0; i < 3000; ++i) {
        passes.append(ring.arg(i).arg((i + 1) % 3000));
    }
    const QString large = QString("x").repeated(100000);
    const QStringList files{"{\"passes\": [" + passes.join(", ") + "], \"output\": \"@p0.Frame\"}",
                            "{\"\\u001b[31m" + large + "\": 1, \"" + large + "\\u202e\": 1, \"output\": 1}",
                            QString("[").repeated(2000)};
    for (const QString& file : files) {
        EXPECT_FALSE(plan(file.toUtf8()));
        EXPECT_LE(m_errors.size(), 51);
        for (const QString& line : std::as_const(m_errors)) {
            EXPECT_LE(line.size(), 450) << qPrintable(line);
            EXPECT_TRUE(std::all_of(line.begin(), line.end(), [](QChar c) { return c.isPrint(); }))
                << qPrintable(line);
        }
    }
    EXPECT_TRUE(errors().contains("nested")) << qPrintable(errors());
    plan(files[0].toUtf8());
    EXPECT_EQ(errors().section('\n', -1).toStdString(), "graph.json: and 2,950 more");
    plan(files[1].toUtf8());
    EXPECT_TRUE(m_errors[0].contains("\\x1b[31mxxx") && m_errors[0].contains("unknown key"))
        << qPrintable(m_errors[0]);
}

TEST_F(GraphCpuTest, SavedGraphsLoadUnchangedFromAnyFolder)
{
    const QByteArray text = R"({
  "viewport": [640, 360],
  "camera": {"eye": [3, 2.1, 4], "target": [0, 0.5, 0], "up": [0, 1, 0], "fovY": 33.3, "near": 0.1, "far": 1e+20},
  "models": {"zebra": {"file": "model.obj", "upAxis": "z", "scale": 0.5, "fit": 2, "rotate": [0, 90, 0], "translate": [1, 2, 3.5]}, "ant": "model.obj", "both": {"merge": ["zebra", "ant"], "scale": [1, 2, 1]}},
  "lights": [{"type": "directional", "direction": [-1, -2, -1]}, {"type": "directional", "direction": [0, -1, 0], "cascades": 4}, {"type": "spot", "position": [1, 2.5, 3], "direction": [0, -1, 0], "color": [0.1, 2, 1], "intensity": 3.5, "angle": 33.3, "range": 7}, {"type": "point", "position": [0, 0, 0]}],
  "passes": [
    {"name": "b", "type": "Filter", "inputs": {"Radius": 0.1, "Frame": "@a.Frame", "Data": "model.obj"}, "options": {"table": "image.png"}},
    {"name": "a", "type": "Source", "inputs": {"Path": "image.png", "Color": "#102030"}},
    {"name": "umläut", "type": "Draw", "inputs": {"Geometry": "@ant"}}
  ],
  "output": "@b.Frame"
}
)";
    write("first.json", text);
    const auto graph = load("first.json");
    ASSERT_TRUE(graph) << qPrintable(errors());
    QString error;
    ASSERT_TRUE(saveGraph(*graph, path("second.json"), testRegistry(), &error));
    EXPECT_EQ(contents("second.json").toStdString(), text.toStdString());
    GraphDescription orthographic = *graph;
    orthographic.camera->height = 2.5F;
    ASSERT_TRUE(saveGraph(orthographic, path("second.json"), testRegistry(), &error));
    EXPECT_EQ(load("second.json")->camera->height, 2.5F);

    const QByteArray orbit = R"({
  "viewport": [640, 360],
  "camera": {"orbit": {"target": [1, 2, 3], "turns": -2, "startAngle": 10, "elevation": 5, "distance": 7}, "fovY": 30, "far": 9},
  "animation": {"frames": 120, "fps": 23.976},
  "settle": 31,
  "passes": [
  ]
}
)";
    write("orbit.json", orbit);
    EXPECT_TRUE(saveGraph(load("orbit.json").value_or(GraphDescription()), path("saved.json"), testRegistry(),
                          &error));
    EXPECT_EQ(contents("saved.json").toStdString(), orbit.toStdString());

    // From another folder, the paths name the same files.
    ASSERT_TRUE(QDir(path({})).mkpath("deeper/down"));
    ASSERT_TRUE(saveGraph(*graph, path("deeper/down/third.json"), testRegistry(), &error));
    const auto moved = load("deeper/down/third.json");
    ASSERT_TRUE(moved);
    EXPECT_EQ(moved->models[0].file, "../../model.obj");
    EXPECT_EQ(moved->passes[0].options["table"], "../../image.png");
    EXPECT_EQ(moved->passes[1].inputs[0].value, "../../image.png");
    // This one is not a path: its port has another type.
    EXPECT_EQ(moved->passes[0].inputs[2].value, "model.obj");
    EXPECT_TRUE(planGraph(*moved, testRegistry(), &m_errors)) << qPrintable(errors());

    EXPECT_FALSE(saveGraph(*graph, path("nowhere/graph.json"), testRegistry(), &error));
    EXPECT_TRUE(error.startsWith(path("nowhere/graph.json") + ": cannot be written: "));
}

TEST_F(GraphCpuTest, DescriptionsTakeAssignmentsAndAnotherModel)
{
    GraphDescription graph;
    graph.file = path("deeper/graph.json");
    graph.passes = {{"blur", "Filter", {{"Qel_float_Radius", 1.0}, {"Frame", "@a.Frame"}}, {}}};
    QString error;
    using Inputs = std::vector<InputSetting>;
    // An assignment replaces the earlier value, under either name of the port.
    const InputSetting frame{"Frame", "@a.Frame"};
    const auto expectInputs = [&](const QString& assignment, const Inputs& inputs) {
        EXPECT_TRUE(graph.set(assignment, &error)) << qPrintable(error);
        EXPECT_EQ(graph.passes[0].inputs, inputs) << qPrintable(assignment);
    };
    expectInputs("blur.Radius=0.5", {frame, {"Radius", 0.5}});
    expectInputs("blur.Qel_float_Radius=[1,2]", {frame, {"Qel_float_Radius", QJsonArray{1, 2}}});
    expectInputs("blur.Radius=#ff8000", {frame, {"Radius", "#ff8000"}});
    expectInputs("blur.Frame=@b.Frame=1", {{"Radius", "#ff8000"}, {"Frame", "@b.Frame=1"}});
    expectInputs("blur.Frame=", {{"Radius", "#ff8000"}, {"Frame", ""}});
    // Files count from the current folder.
    const QString file = path("image.png");
    EXPECT_TRUE(graph.set("blur.Frame=" + QDir::current().relativeFilePath(file), &error));
    EXPECT_EQ(QFileInfo(graph.passes[0].inputs[1].value.toString()), QFileInfo(file));
    for (const char* wrong : {"blur", "blur.Radius", "=1", ".Radius=1", "blur.=1"}) {
        EXPECT_FALSE(graph.set(wrong, &error)) << wrong;
        EXPECT_TRUE(error.endsWith(": is not an assignment; write PARAMETER=VALUE or PASS.PORT=VALUE"));
    }
    EXPECT_FALSE(graph.set("blurr.Radius=1", &error));
    EXPECT_EQ(error, "--set blurr.Radius=1: no pass \"blurr\"; did you mean \"blur\"?");

    graph.camera = CameraDescription{{1, 2, 3}, {}, {0, 1, 0}};
    graph.models = {{"first", "a.obj"}, {"second", "b.obj"}};
    graph.replaceModel("model.obj");
    EXPECT_FALSE(graph.camera);
    const QString model = QDir::current().absoluteFilePath("model.obj");
    EXPECT_EQ(graph.models, (std::vector<ModelDescription>{{"first", model}, {"second", "b.obj"}}));
    // A merged model is no file; a placement stays.
    graph.models = {{"all", {}, {}, {"part"}}, {"part", "a.obj", {.fit = 2.0F}}};
    graph.replaceModel("model.obj");
    EXPECT_EQ(graph.models,
              (std::vector<ModelDescription>{{"all", {}, {}, {"part"}}, {"part", model, {.fit = 2.0F}}}));
    graph.models.clear();
    graph.replaceModel("model.obj");
    EXPECT_EQ(graph.models, (std::vector<ModelDescription>{{"model", model}}));
}

} // namespace Morvane::Qel::Test
