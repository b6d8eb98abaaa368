#include <QColor>
#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QMatrix4x4>
#include <QRect>
#include <QTemporaryDir>
#include <QVector2D>

#include <gtest/gtest.h>

#include <Qel/core/RenderPassHelper.h>
#include <Qel/graph/GraphFile.h>
#include <Qel/graph/GraphPlan.h>
#include <Qel/graph/PassRegistry.h>

#include "support/Paths.h"

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

/// Types that nobody runs here: only their descriptions count.
PassRegistry testRegistry()
{
    const PassRegistry::Factory none = [](const PassOptions&, QString*) {
        return std::unique_ptr<RenderPass>();
    };
    const auto input = [](const char* name) { return InputDescription{QString::fromLatin1(name), {}, {}}; };
    const auto output = [](const char* name) { return OutputDescription{QString::fromLatin1(name), {}}; };
    PassRegistry registry;
    registry.add({u"Source"_s,
                  {},
                  {input("Qel_QRect_Viewport"), input("Qel_QColor_Color"), input("Qel_QString_Path")},
                  {output("Qel_QelTexture*_Frame"), output("Qel_QMatrix4x4_ProjectionMatrix")}},
                 none);
    registry.add({u"Filter"_s,
                  {},
                  {input("Qel_QelTexture*_Frame"), input("Qel_QelTexture*_Mask"), input("Qel_float_Radius"),
                   input("Qel_int_Count"), input("Qel_Bool_Fast"), input("Qel_QVector2D_Focus"),
                   input("Qel_QMatrix4x4_ProjectionMatrix"), input("Qel_QVariant_Data"),
                   input("Qel_int_Twin"), input("Qel_float_Twin")},
                  {output("Qel_QelTexture*_Frame")},
                  {{u"quality"_s, {}, u"low"_s, {u"low"_s, u"high"_s}},
                   {u"passes"_s, {}, 1},
                   {u"table"_s, {}, QString(), {}, true},
                   {u"shapes"_s,
                    {},
                    QVariantList(),
                    {},
                    false,
                    {{u"kind"_s, {}, u"cube"_s, {u"cube"_s, u"quad"_s}}, {u"size"_s, {}, 1.0F}}}}},
                 none);
    registry.add(
        {u"Batches"_s, {}, {input("Qel_QelDrawBuffers*_Geometry")}, {output("Qel_QelTexture*_Frame")}}, none);
    registry.add({u"Draw"_s, {}, {input("Qel_QelGPUModel*_Geometry")}, {output("Qel_QelTexture*_Frame")}},
                 none);
    registry.add({u"Screen"_s, {}, {input("Qel_QelTexture*_Texture")}, {}}, none);
    PassDescription custom{
        u"Custom"_s, {}, {}, {}, {{u"inputs"_s, {}, QStringList()}, {u"outputs"_s, {}, QStringList()}}};
    custom.hostDeclaresPorts = true;
    registry.add(custom, none);
    return registry;
}

class GraphCpuTest : public testing::Test
{
protected:
    GraphCpuTest()
    {
        write("model.obj", "v 0 0 0\n");
        write("image.png", "");
    }

    QString path(const QString& name) const { return m_folder.filePath(name); }

    QString write(const QString& name, const QByteArray& text) const
    {
        QFile file(path(name));
        EXPECT_TRUE(QDir(m_folder.path()).mkpath(QFileInfo(path(name)).absolutePath()));
        EXPECT_TRUE(file.open(QIODevice::WriteOnly));
        EXPECT_EQ(file.write(text), text.size());
        return path(name);
    }

    /// Loads and checks a graph; its faults with the folder's path taken out of them.
    QStringList faultsOf(const QByteArray& text, int maxTextureSize = 0) const
    {
        const QString file = write("graph.json", text);
        QStringList faults;
        const std::optional<GraphDescription> graph = loadGraph(file, &faults);
        if (graph) {
            const bool isPlanned = planGraph(*graph, testRegistry(), maxTextureSize, &faults).has_value();
            EXPECT_EQ(isPlanned, faults.isEmpty());
        }
        faults.replaceInStrings(m_folder.path() + u'/', QString());
        return faults;
    }

    GraphPlan planOf(const QByteArray& text) const
    {
        QStringList faults;
        const std::optional<GraphDescription> graph = loadGraph(write("graph.json", text), &faults);
        std::optional<GraphPlan> plan;
        if (graph) {
            plan = planGraph(*graph, testRegistry(), 0, &faults);
        }
        EXPECT_TRUE(plan) << qPrintable(faults.join(u'\n'));
        return plan.value_or(GraphPlan());
    }

    QTemporaryDir m_folder;
};

/// A graph whose only fault can be in these passes.
QByteArray withPasses(const QByteArray& passes, const QByteArray& output = "@a.Frame")
{
    return "{\"models\": {\"scene\": \"model.obj\"}, \"passes\": [" + passes + "], \"output\": \"" + output +
           "\"}";
}

/// A source "a" and a filter "b" with these inputs.
QByteArray withInputs(const QByteArray& inputs)
{
    return withPasses(R"({"name": "a", "type": "Source"}, {"name": "b", "type": "Filter", "inputs": {)" +
                      inputs + "}}");
}

QByteArray withOptions(const QByteArray& options)
{
    return withPasses(R"({"name": "a", "type": "Filter", "options": {)" + options + "}}");
}

} // namespace

TEST_F(GraphCpuTest, EveryFaultIsOneLineThatNamesPlaceAndRemedy)
{
    const struct
    {
        QByteArray graph;
        QStringList faults;
    } cases[] = {
        // The text and its form.
        {"{\"passes\": [\n  {\"name\": \"a\",}\n]}",
         {"graph.json:2:17: is not JSON: object is missing after a comma"}},
        {"", {"graph.json:1:1: is not JSON: illegal value"}},
        {"[]", {"graph.json:1:1: must be an object {...}, not []"}},
        {"{\n \"pases\": [],\n \"viewport\": [640, 480.5]}",
         {"graph.json:2:2: pases: no such key; did you mean \"passes\"?",
          "graph.json:3:2: viewport: must be two whole numbers [width, height], not [640,480.5]"}},
        {R"({"passes": [{"name": "a", "typ": "Source"}]})",
         {"graph.json:1:27: passes[0].typ: no such key; did you mean \"type\"?",
          "graph.json:1:13: passes[0]: needs a \"type\""}},
        {R"({"camera": {"target": [0, 0]}})",
         {"graph.json:1:2: camera: needs an \"eye\"",
          "graph.json:1:13: camera.target: must be three numbers [x, y, z], not [0,0]"}},
        {"{\"output\": \"@a.b\",\n \"output\": \"@a.c\"}", {"graph.json:2:2: output: written twice"}},
        {R"({"lights": [{"type": "point", "direction": [0, 1, 0], "range": "far"},
             {"type": "directional", "cascades": 1.5, "angle": 3}, {"type": "lamp", "colour": [1, 1, 1]}]})",
         {R"(graph.json:1:31: lights[0].direction: no such key; there are "type", "color", "intensity", "position", "range")",
          "graph.json:1:55: lights[0].range: must be a number, not \"far\"",
          R"(graph.json:2:55: lights[1].angle: no such key; there are "type", "color", "intensity", "direction", "cascades")",
          "graph.json:2:38: lights[1].cascades: must be a whole number, not 1.5",
          "graph.json:2:85: lights[2].colour: no such key; did you mean \"color\"?"}},
        {R"({"passes": {}, "lights": [{"direction": 1}], "models": {"a": 1}})",
         {"graph.json:1:57: models.a: must be a text, not 1", "graph.json:1:27: lights[0]: needs a \"type\"",
          "graph.json:1:28: lights[0].direction: must be three numbers [x, y, z], not 1",
          "graph.json:1:2: passes: must be a list [...], not {}"}},
        // The frame.
        {R"({"viewport": [0, 720], "passes": [{"name": "a", "type": "Source"}], "output": "@a.Frame"})",
         {"graph.json: viewport: 0x720 is out of range; width and height must be 1 to 4096"}},
        {R"({"viewport": [1, 4097], "passes": [{"name": "a", "type": "Source"}], "output": "@a.Frame"})",
         {"graph.json: viewport: 1x4097 is out of range; width and height must be 1 to 4096"}},
        {R"({"camera": {"eye": [0, 1, 0], "up": [0, 2, 0], "fovY": 180, "near": 0, "far": -1},
             "passes": [{"name": "a", "type": "Source"}], "output": "@a.Frame"})",
         {"graph.json: camera.up: must not be zero or lie along the line of sight",
          "graph.json: camera.fovY: must be above 0 and below 180 degrees",
          "graph.json: camera.near: must be above 0", "graph.json: camera.far: must be above \"near\""}},
        {R"({"camera": {"eye": [1, 1, 1], "target": [1, 1, 1]},
             "lights": [{"type": "sport", "direction": [0, 0, 0]}, {"type": "directional", "cascades": 9},
                        {"type": "spot", "angle": 171, "range": -1}, {"type": "point", "color": [1, -1, 1]},
                        {"type": "point", "range": 1, "intensity": -0.5},
                        {"type": "spot", "direction": [0, 1, 0], "angle": 170}],
             "models": {"s": "gone.obj", "Viewport": "model.obj"},
             "passes": [{"name": "a", "type": "Source"}], "output": "@a.Frame"})",
         {"graph.json: camera.eye: must differ from the target", "graph.json: models.s: no file \"gone.obj\"",
          "graph.json: models.Viewport: \"@Viewport\" is a frame value; use another name",
          "graph.json: lights[0].type: no type of light \"sport\"; did you mean \"spot\"?",
          "graph.json: lights[1].direction: must not be zero",
          "graph.json: lights[1].cascades: must be 1 to 8",
          "graph.json: lights[2].direction: must not be zero",
          "graph.json: lights[2].angle: must be above 0 and at most 170 degrees",
          "graph.json: lights[2].range: must be 0 or more", "graph.json: lights[3].color: must be 0 or more",
          "graph.json: lights[4].intensity: must be 0 or more"}},
        {R"({"passes": [{"name": "b", "type": "Filter"}]})",
         {"graph.json: output: the graph has no output and no pass that draws to the screen; write "
          "\"output\": "
          "\"@pass.Port\""}},
        {withPasses(R"({"name": "a", "type": "Source"})", "a.Frame"),
         {"graph.json: output: must be \"@pass.Port\", not \"a.Frame\""}},
        {withPasses(R"({"name": "a", "type": "Source"})", "@a.ProjectionMatrix"),
         {"graph.json: output: must be a texture, but \"@a.ProjectionMatrix\" is QMatrix4x4"}},
        // Passes.
        {withPasses(
             R"({"name": "a", "type": "Sorce"}, {"name": "b", "type": "Filter", "inputs": {"Frame": "@a.Any"}})"),
         {"graph.json: a: no pass type \"Sorce\"; did you mean \"Source\"?"}},
        {withPasses(
             R"({"name": "a", "type": "Source"}, {"name": "a", "type": "Source"}, {"name": "a", "type": "Source"},
                       {"name": "b.c", "type": "Source"})"),
         {"graph.json: a: more than one pass has this name",
          "graph.json: passes[3]: \"b.c\" is no name; use letters, digits, \"_\" and \"-\""}},
        // Connections.
        {withInputs(R"("Fram": "@a.Frame")"),
         {"graph.json: b.Fram: Filter has no such input; did you mean \"Frame\"?"}},
        {withInputs(R"("Qel_QelTexture*_Frames": "@a.Frame")"),
         {"graph.json: b.Qel_QelTexture*_Frames: Filter has no such input; did you mean "
          "\"Qel_QelTexture*_Frame\"?"}},
        {withInputs(R"("Frame": "@aa.Frame")"), {"graph.json: b.Frame: no pass \"aa\"; did you mean \"a\"?"}},
        {withInputs(R"("Frame": "@a.Picture")"),
         {"graph.json: b.Frame: pass \"a\" has no output \"Picture\"; there are \"Frame\", "
          "\"ProjectionMatrix\""}},
        {withInputs(R"("Frame": "@a")"), {"graph.json: b.Frame: \"@a\" is a pass; write \"@a.Frame\""}},
        {withInputs(R"("Frame": "@scene")"),
         {"graph.json: b.Frame: takes QelTexture*, but \"@scene\" is a model"}},
        {withInputs(R"("ProjectionMatrix": "@CamraMatrix")"),
         {"graph.json: b.ProjectionMatrix: no model or frame value \"CamraMatrix\"; did you mean "
          "\"CameraMatrix\"?"}},
        {withInputs(R"("ProjectionMatrix": "@Viewport")"),
         {"graph.json: b.ProjectionMatrix: takes QMatrix4x4, but \"@Viewport\" is QRect"}},
        {withInputs(R"("Radius": "@a.Frame")"),
         {"graph.json: b.Radius: takes float, but \"@a.Frame\" is QelTexture*"}},
        {withInputs(R"("Frame": "@a.Frame", "Frame": "@a.Frame")"),
         {"graph.json: b.Frame: set more than once"}},
        {withInputs(R"("Frame": "@a.Frame", "Qel_QelTexture*_Frame": "@a.Frame")"),
         {"graph.json: b.Qel_QelTexture*_Frame: set more than once"}},
        {withInputs(R"("Twin": 1)"),
         {"graph.json: b.Twin: \"Twin\" is ambiguous; write one of \"Qel_int_Twin\", \"Qel_float_Twin\""}},
        {R"({"models": {"p": "model.obj", "q": "model.obj"}, "passes": [{"name": "a", "type": "Draw"}], "output": "@a.Frame"})",
         {"graph.json: a.Geometry: the graph has 2 models; say which, such as \"@p\""}},
        {withPasses(R"({"name": "a", "type": "Draw", "inputs": {"Geometry": "@scne"}})"),
         {"graph.json: a.Geometry: no model or frame value \"scne\"; did you mean \"scene\"?"}},
        {withPasses(R"({"name": "d", "type": "Filter", "inputs": {"Frame": "@a.Frame"}},
                       {"name": "a", "type": "Filter", "inputs": {"Frame": "@c.Frame", "Mask": "@c.Frame"}},
                       {"name": "b", "type": "Filter", "inputs": {"Frame": "@a.Frame"}},
                       {"name": "c", "type": "Filter", "inputs": {"Frame": "@b.Frame"}},
                       {"name": "e", "type": "Filter", "inputs": {"Mask": "@e.Frame"}})"),
         {"graph.json: a: waits for its own output: a -> b -> c -> a",
          "graph.json: e: waits for its own output: e -> e"}},
        // Constants.
        {withInputs(R"("Radius": "wide", "Count": 1.5, "Fast": 1, "Focus": [1], "ProjectionMatrix": [1, 2])"),
         {"graph.json: b.Radius: must be a number, not \"wide\"",
          "graph.json: b.Count: must be a whole number, not 1.5",
          "graph.json: b.Fast: must be true or false, not 1",
          "graph.json: b.Focus: must be two numbers [x, y], not [1]",
          "graph.json: b.ProjectionMatrix: must be 16 numbers, row by row, not [1,2]"}},
        {withInputs(R"("Radius": 1e300, "Count": 3000000000, "Frame": 1)"),
         {"graph.json: b.Radius: must be a number, not 1e+300",
          "graph.json: b.Count: must be a whole number, not 3000000000",
          "graph.json: b.Frame: takes a connection such as \"@pass.Port\", not 1"}},
        {withPasses(
             R"({"name": "a", "type": "Source", "inputs": {"Color": "#ff80", "Viewport": [0, 0, 1], "Path": "no.png"}})"),
         {"graph.json: a.Color: must be a colour such as \"#ff8000\", \"#ff800080\" or [255, 128, 0, 128], "
          "not \"#ff80\"",
          "graph.json: a.Viewport: must be four whole numbers [x, y, width, height], not [0,0,1]",
          "graph.json: a.Path: no file \"no.png\""}},
        {withPasses(R"({"name": "a", "type": "Source", "inputs": {"Color": [256, 0, 0]}},
                       {"name": "b", "type": "Draw", "inputs": {"Geometry": "scene"}})"),
         {"graph.json: a.Color: must be a colour such as \"#ff8000\", \"#ff800080\" or [255, 128, 0, 128], "
          "not [256,0,0]",
          "graph.json: b.Geometry: takes a model such as \"@scene\", not \"scene\""}},
        // A port of a pass's own takes a model's batches, one that the graph adds a single batch.
        {R"({"models": {"scene": "model.obj"}, "passes": [
            {"name": "a", "type": "Batches", "inputs": {"Geometry": "@scene"}},
            {"name": "b", "type": "Custom", "inputs": {"Mesh": "@scene"},
             "options": {"inputs": ["Qel_QelDrawBuffers*_Mesh"], "outputs": ["Qel_QelTexture*_Frame"]}}],
            "output": "@a.Frame"})",
         {"graph.json: b.Mesh: takes QelDrawBuffers*, but \"@scene\" is a model"}},
        // Options.
        {withOptions(R"("qualty": "low", "passes": 1.5)"),
         {"graph.json: a.passes: must be a whole number, not 1.5",
          "graph.json: a.qualty: Filter has no such option; did you mean \"quality\"?"}},
        {withOptions(R"("quality": "best", "table": "none.txt", "passes": null)"),
         {"graph.json: a.quality: must be one of \"low\", \"high\", not \"best\"",
          "graph.json: a.passes: must not be null", "graph.json: a.table: no file \"none.txt\""}},
        {withOptions(R"("shapes": {"kind": "cube"})"),
         {"graph.json: a.shapes: must be a list [...], not {\"kind\":\"cube\"}"}},
        {withOptions(R"("shapes": [{}, {"kind": "ball", "sise": 2}, 3, {"size": "big"}])"),
         {"graph.json: a.shapes[1].kind: must be one of \"cube\", \"quad\", not \"ball\"",
          "graph.json: a.shapes[1].sise: no such key; did you mean \"size\"?",
          "graph.json: a.shapes[2]: must be an object {...}, not 3",
          "graph.json: a.shapes[3].size: must be a number, not \"big\""}},
        {withPasses(
             R"({"name": "a", "type": "Custom", "options": {"inputs": ["Radius", "Qel_flaot_X", "Qel_int_A", "Qel_int_A"],
                         "outputs": "Qel_QelTexture*_Frame"}, "inputs": {"Nothing": 1}})"),
         {"graph.json: a.outputs: must be a list of texts, not \"Qel_QelTexture*_Frame\"",
          "graph.json: a.inputs: \"Radius\" is no port name; write Qel_TYPE_NAME such as "
          "\"Qel_float_Radius\"",
          "graph.json: a.inputs: \"Qel_flaot_X\" has an unknown type \"flaot\"; did you mean \"float\"?",
          "graph.json: a.inputs: \"Qel_int_A\" is listed twice"}},
    };
    for (const auto& test : cases) {
        EXPECT_EQ(faultsOf(test.graph, 4096).join(u'\n').toStdString(), test.faults.join(u'\n').toStdString())
            << test.graph.constData();
    }
    QStringList faults;
    EXPECT_FALSE(loadGraph(path("none.json"), &faults));
    EXPECT_FALSE(loadGraph(m_folder.path(), &faults));
    ASSERT_EQ(faults.size(), 2);
    EXPECT_TRUE(faults[0].startsWith(path("none.json") + ": cannot be read: ")) << qPrintable(faults[0]);
    EXPECT_EQ(faults[1], m_folder.path() + ": cannot be read: it is a folder");
}

TEST_F(GraphCpuTest, ConstantsHaveTheTypeOfTheirPort)
{
    const GraphPlan plan = planOf(R"({"passes": [
        {"name": "a", "type": "Source", "inputs": {"Viewport": [1, 2, 30, 40], "Color": "#10203040", "Path": "image.png"}},
        {"name": "b", "type": "Filter", "inputs": {
            "Radius": 2, "Count": -3, "Fast": true, "Focus": [0.25, 0.75],
            "ProjectionMatrix": [1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16],
            "Data": [1, "x"], "Qel_float_Twin": 1, "Qel_int_Twin": null}},
        {"name": "c", "type": "Source", "inputs": {"Color": [1, 2, 3], "Path": ""}}],
        "output": "@a.Frame"})");
    ASSERT_EQ(plan.passes.size(), 3U);
    const auto constant = [&](size_t pass, size_t port) {
        const PlannedInput& input = plan.passes[pass].inputs[port];
        EXPECT_EQ(input.source, InputSource::Constant) << qPrintable(input.port);
        return input.constant;
    };
    EXPECT_EQ(constant(0, 0), QVariant(QRect(1, 2, 30, 40)));
    EXPECT_EQ(constant(0, 1), QVariant(QColor(0x10, 0x20, 0x30, 0x40)));
    EXPECT_EQ(constant(0, 2), QVariant(path("image.png")));
    EXPECT_EQ(constant(1, 2), QVariant(2.0F));
    EXPECT_EQ(constant(1, 2).metaType(), QMetaType::fromType<float>());
    EXPECT_EQ(constant(1, 3), QVariant(-3));
    EXPECT_EQ(constant(1, 3).metaType(), QMetaType::fromType<int>());
    EXPECT_EQ(constant(1, 4), QVariant(true));
    EXPECT_EQ(constant(1, 5), QVariant(QVector2D(0.25F, 0.75F)));
    EXPECT_EQ(constant(1, 6), QVariant(QMatrix4x4(1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16)));
    EXPECT_EQ(constant(1, 7), QVariant(QVariantList{1, "x"}));
    EXPECT_EQ(constant(1, 9), QVariant(1.0F));
    EXPECT_FALSE(constant(1, 8).isValid());
    EXPECT_EQ(constant(2, 1), QVariant(QColor(1, 2, 3, 255)));
    EXPECT_EQ(constant(2, 2), QVariant(QString("")));
}

TEST_F(GraphCpuTest, InputsFindTheirSources)
{
    const GraphPlan plan = planOf(R"({"models": {"scene": "model.obj"}, "passes": [
        {"name": "filter", "type": "Filter", "inputs": {
            "Frame": "@source.Frame", "Mask": "@source.Qel_QelTexture*_Frame", "Data": "@scene"},
         "options": {"quality": "high", "table": "image.png", "shapes": [{}, {"kind": "quad", "size": 2}]}},
        {"name": "source", "type": "Source"},
        {"name": "custom", "type": "Custom", "inputs": {"Strength": 0.5, "View": "@CameraMatrix", "Input": "@filter.Frame"},
         "options": {"inputs": ["Qel_QRect_Viewport", "Qel_QelTexture*_Input", "Qel_float_Strength", "Qel_QMatrix4x4_View"],
                     "outputs": ["Qel_QelTexture*_Frame"]}},
        {"name": "draw", "type": "Draw"}],
        "output": "@custom.Frame"})");
    ASSERT_EQ(plan.passes.size(), 4U);
    const PlannedPass& filter = plan.passes[0];
    for (const size_t port : {0U, 1U}) {
        EXPECT_EQ(filter.inputs[port].source, InputSource::Connection);
        EXPECT_EQ(filter.inputs[port].pass, 1);
        EXPECT_EQ(filter.inputs[port].output, 0);
    }
    EXPECT_EQ(filter.inputs[2].source, InputSource::Default);
    // The name and the type of a frame value, but on an input, not on the output of that name.
    EXPECT_EQ(filter.inputs[6].source, InputSource::FrameValue);
    EXPECT_EQ(filter.inputs[6].frameValue, "ProjectionMatrix");
    EXPECT_EQ(filter.inputs[7].source, InputSource::Model);
    EXPECT_EQ(filter.options,
              (PassOptions{{"quality", "high"},
                           {"passes", 1},
                           {"table", path("image.png")},
                           {"shapes", QVariantList{QVariantMap{{"kind", "cube"}, {"size", 1.0F}},
                                                   QVariantMap{{"kind", "quad"}, {"size", 2.0F}}}}}));
    const PlannedPass& custom = plan.passes[2];
    EXPECT_EQ(custom.outputs, QStringList{"Qel_QelTexture*_Frame"});
    ASSERT_EQ(custom.inputs.size(), 4U);
    EXPECT_EQ(custom.inputs[0].frameValue, "Viewport");
    EXPECT_EQ(custom.inputs[1].pass, 0);
    EXPECT_EQ(custom.inputs[2].constant, QVariant(0.5F));
    EXPECT_EQ(custom.inputs[3].frameValue, "CameraMatrix");
    EXPECT_EQ(plan.passes[3].inputs[0].source, InputSource::Model);
    EXPECT_EQ(plan.passes[3].inputs[0].model, 0);
    EXPECT_EQ(plan.outputPass, 2);
    EXPECT_EQ(plan.outputPort, 0);
}

TEST_F(GraphCpuTest, PassesRunAfterTheirSourcesInTheOrderOfTheFileUnlessNobodyNeedsThem)
{
    const GraphPlan plan = planOf(R"({"passes": [
        {"name": "screen", "type": "Screen", "inputs": {"Texture": "@late.Frame"}},
        {"name": "dead", "type": "Filter", "inputs": {"Frame": "@onlyForDead.Frame", "Mask": "@late.Frame"}},
        {"name": "onlyForDead", "type": "Filter"},
        {"name": "second", "type": "Filter", "inputs": {"Frame": "@first.Frame"}},
        {"name": "first", "type": "Source"},
        {"name": "free", "type": "Screen"},
        {"name": "late", "type": "Source"}],
        "output": "@second.Frame"})");
    EXPECT_EQ(plan.order, (std::vector<int>{4, 3, 5, 6, 0}));
    EXPECT_EQ(plan.passes[1].leftOut, "nothing reads its outputs");
    EXPECT_EQ(plan.passes[2].leftOut, "only passes that are left out read its outputs: dead");
    for (const int index : plan.order) {
        EXPECT_EQ(plan.passes[static_cast<size_t>(index)].leftOut, QString());
    }
}

TEST_F(GraphCpuTest, WhatIsSavedLoadsAsTheSameGraphFromAnywhere)
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
    QStringList faults;
    const std::optional<GraphDescription> graph = loadGraph(write("first.json", text), &faults);
    ASSERT_TRUE(graph) << qPrintable(faults.join(u'\n'));
    QString error;
    ASSERT_TRUE(saveGraph(*graph, path("second.json"), testRegistry(), &error)) << qPrintable(error);
    QFile saved(path("second.json"));
    ASSERT_TRUE(saved.open(QIODevice::ReadOnly));
    EXPECT_EQ(saved.readAll().toStdString(), text.toStdString());
    std::optional<GraphDescription> loaded = loadGraph(path("second.json"), &faults);
    ASSERT_TRUE(loaded);
    loaded->file = graph->file;
    EXPECT_EQ(*loaded, *graph);

    // In another folder the same files are meant.
    ASSERT_TRUE(QDir(m_folder.path()).mkpath("deeper/down"));
    const QString moved = path("deeper/down/third.json");
    ASSERT_TRUE(saveGraph(*graph, moved, testRegistry(), &error)) << qPrintable(error);
    loaded = loadGraph(moved, &faults);
    ASSERT_TRUE(loaded);
    EXPECT_EQ(loaded->models[0].file, "../../model.obj");
    EXPECT_EQ(loaded->passes[0].options["table"], "../../image.png");
    EXPECT_EQ(loaded->passes[1].inputs[0].value, "../../image.png");
    // What only looks like a path stays.
    EXPECT_EQ(loaded->passes[0].inputs[2].value, "model.obj");
    EXPECT_TRUE(planGraph(*loaded, testRegistry(), 0, &faults)) << qPrintable(faults.join(u'\n'));

    EXPECT_FALSE(saveGraph(*graph, path("nowhere/graph.json"), testRegistry(), &error));
    EXPECT_TRUE(error.startsWith(path("nowhere/graph.json") + ": cannot be written: ")) << qPrintable(error);
}

TEST_F(GraphCpuTest, AssignmentsReplaceInputs)
{
    GraphDescription graph;
    graph.file = "some/graph.json";
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
    EXPECT_EQ(inputsAfter("blur.Frame="), (Inputs{{"Radius", "#ff8000"}, {"Frame", ""}}));
    const QString file = QDir::current().relativeFilePath(path("image.png"));
    EXPECT_EQ(QFileInfo(inputsAfter("blur.Frame=" + file)[1].value.toString()), QFileInfo(path("image.png")));

    for (const char* wrong : {"blur", "blur.Radius", "blur=1", ".Radius=1", "blur.=1", ""}) {
        EXPECT_FALSE(graph.set(wrong, &error)) << wrong;
        EXPECT_EQ(error, QString("\"%1\" is no assignment; write PASS.PORT=VALUE").arg(wrong));
    }
    EXPECT_FALSE(graph.set("blurr.Radius=1", &error));
    EXPECT_EQ(error, "some/graph.json: blurr.Radius=1: no pass \"blurr\"; did you mean \"blur\"?");
}

TEST_F(GraphCpuTest, AnotherModelTakesTheFirstOnesPlaceAndIsSeenWhole)
{
    GraphDescription graph;
    graph.file = path("deeper/graph.json");
    graph.camera = CameraDescription{{1, 2, 3}, {}, {0, 1, 0}};
    graph.models = {{"first", "a.obj"}, {"second", "b.obj"}};
    graph.replaceModel("model.obj");
    EXPECT_FALSE(graph.camera);
    const ModelDescription expected{"first", QDir::current().absoluteFilePath("model.obj")};
    EXPECT_EQ(graph.models, (std::vector<ModelDescription>{expected, {"second", "b.obj"}}));
    EXPECT_EQ(graph.resolvePath(graph.models[0].file), QDir::current().absoluteFilePath("model.obj"));
    graph.models.clear();
    graph.replaceModel("model.obj");
    EXPECT_EQ(graph.models, (std::vector<ModelDescription>{{"model", expected.file}}));
}

TEST_F(GraphCpuTest, TheExampleOfTheManualIsAGraph)
{
    QFile manual(Test::sourcePath(u"docs/graph-files.md"_s));
    ASSERT_TRUE(manual.open(QIODevice::ReadOnly));
    const QByteArray text = manual.readAll();
    const qsizetype begin = text.indexOf("```json\n") + 8;
    QStringList faults;
    std::optional<GraphDescription> graph =
        loadGraph(write("graph.json", text.sliced(begin, text.indexOf("```", begin) - begin)), &faults);
    ASSERT_TRUE(graph) << qPrintable(faults.join(u'\n'));
    graph->file = Test::sourcePath(u"examples/graphs/manual.json"_s);
    const std::optional<GraphPlan> plan = planGraph(*graph, PassRegistry::builtin(), 0, &faults);
    ASSERT_TRUE(plan) << qPrintable(faults.join(u'\n'));
    EXPECT_EQ(plan->order, (std::vector<int>{0, 1}));
}

} // namespace Morvane::Qel
