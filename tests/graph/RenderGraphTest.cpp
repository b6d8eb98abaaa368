#include "support/Folder.h"
#include "support/GLTest.h"
#include "support/Pixels.h"

#include <QColor>
#include <QMatrix4x4>

#include <array>
#include <cmath>

#include <epoxy/gl.h>

#include <Qel/core/RenderPassHelper.h>
#include <Qel/gl/Texture.h>
#include <Qel/gl/TextureManager.h>
#include <Qel/graph/GraphFile.h>
#include <Qel/graph/RenderGraph.h>
#include <Qel/model/GPUModel.h>
#include <Qel/model/ShadowMapManager.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel::Test {

namespace {

/// Log of the calls to protocol passes.
QStringList calls;

/// Follows the reference protocol: takes a pooled texture, publishes it for its users, and drops one
/// reference of each input. Logs every call, and misbehaves as its option "fault" demands.
class ProtocolPass : public RenderPassHelper
{
public:
    static const PassDescription& description()
    {
        static const PassDescription description{u"ProtocolPass"_s,
                                                 {},
                                                 {{u"Qel_QelTexture*_Input"_s, {}, {}},
                                                  {u"Qel_QelTexture*_Other"_s, {}, {}},
                                                  {u"Qel_float_Amount"_s, {}, {}, 1.0F},
                                                  {u"Qel_QRect_Viewport"_s, {}, {}}},
                                                 {{u"Qel_QelTexture*_Output"_s, {}}},
                                                 {{u"label"_s, {}, QString()}, {u"fault"_s, {}, QString()}}};
        return description;
    }

    explicit ProtocolPass(const PassOptions& options)
        : m_label(options[u"label"_s].toString())
        , m_fault(options[u"fault"_s].toString())
    {
        declarePorts(description());
        note("made");
    }
    ~ProtocolPass() override { note("destroyed"); }

    void setup(RenderCallbacks*) override { note("setup"); }
    void beginFrame(RenderCallbacks*) override { note("beginFrame"); }
    void endFrame(RenderCallbacks*) override { note("endFrame"); }
    void teardown(RenderCallbacks*) override { note("teardown"); }
    void start(RenderCallbacks*) override
    {
        const bool isClean =
            !glIsEnabled(GL_DEPTH_TEST) && !glIsEnabled(GL_BLEND) && !glIsEnabled(GL_SCISSOR_TEST);
        note(u"start %1 users, amount %2%3"_s.arg(m_outputs[0].users)
                 .arg(m_inputs[2].value.toFloat())
                 .arg(isClean ? QString() : u", GL state is dirty"_s));
        TextureManager* pool = TextureManager::Instance();
        if (m_fault == u"empty") {
            m_outputs[0].value = {};
        } else if (m_fault != u"stale") {
            const QRect viewport = m_inputs[3].value.toRect();
            Texture* texture = pool->tempTexture(TextureFormat::RGBA8, viewport.width(), viewport.height());
            pool->addTempTextureRef(texture, m_outputs[0].users);
            pool->releaseTempTextureRef(texture, 1);
            m_outputs[0].value = QVariant::fromValue(texture);
        }
        pool->releaseTempTextureRef(getInputPointer<Texture>(0), 1);
        pool->releaseTempTextureRef(getInputPointer<Texture>(1), 1);
        if (m_fault == u"error" || m_fault == u"stale") {
            setErrorCode(0xFFFFFFFFU);
        } else if (m_fault == u"errorOnce") {
            setErrorCode(1);
            m_fault.clear();
        } else if (m_fault == u"staleLater") {
            m_fault = u"stale"_s;
        }
        // The graph must reset the state that passes leave behind.
        glEnable(GL_DEPTH_TEST);
        glEnable(GL_BLEND);
        glEnable(GL_SCISSOR_TEST);
    }

private:
    void note(const QString& what) const { calls.append(m_label + u' ' + what); }

    QString m_label;
    QString m_fault;
};

/// Makes the values of its inputs readable.
class ProbePass : public RenderPassHelper
{
public:
    static const PassDescription& description()
    {
        static const PassDescription description = [] {
            PassDescription probe{u"ProbePass"_s, {}, {}, {}};
            for (const QString& port :
                 {u"QRect_Viewport"_s, u"QMatrix4x4_ProjectionMatrix"_s, u"QMatrix4x4_CameraMatrix"_s,
                  u"float_NearPlane"_s, u"float_FarPlane"_s, u"QVector3D_SceneBoundsMin"_s,
                  u"QVector3D_SceneBoundsMax"_s, u"QelGPUModel*_Geometry"_s,
                  u"QList_QelShadowMapManagerLight*_Lights"_s}) {
                probe.inputs.push_back({u"Qel_"_s + port, {}, {}});
            }
            return probe;
        }();
        return description;
    }

    ProbePass() { declarePorts(description()); }
    void start(RenderCallbacks*) override
    {
        values.clear();
        for (const Input& input : m_inputs) {
            values.append(input.value);
        }
    }
    static inline QVariantList values;
};

PassRegistry testRegistry()
{
    PassRegistry registry = PassRegistry::builtin();
    registry.add(ProtocolPass::description(), [](const PassOptions& options, QString*) {
        return std::make_unique<ProtocolPass>(options);
    });
    registry.add<ProbePass>();
    return registry;
}

class RenderGraphTest : public GLTest
{
protected:
    std::unique_ptr<RenderGraph> make(const QByteArray& text, const RenderGraph::Options& options = {})
    {
        calls.clear();
        m_errors.clear();
        m_folder.write("graph.json", text);
        const auto graph = loadGraph(m_folder.path("graph.json"), &m_errors);
        return graph ? RenderGraph::create(*graph, testRegistry(), options, &m_errors) : nullptr;
    }

    std::unique_ptr<RenderGraph> makeValid(const QByteArray& text, const RenderGraph::Options& options = {})
    {
        std::unique_ptr<RenderGraph> graph = make(text, options);
        EXPECT_TRUE(graph) << qPrintable(m_errors.join(u'\n'));
        return graph;
    }

    static testing::AssertionResult renders(RenderGraph& graph)
    {
        QString error;
        return graph.renderFrame(&error) ? testing::AssertionSuccess()
                                         : testing::AssertionFailure() << qPrintable(error);
    }

    QString failureOf(RenderGraph& graph) const
    {
        QString error;
        EXPECT_FALSE(graph.renderFrame(&error));
        EXPECT_EQ(graph.picture(), nullptr);
        EXPECT_EQ(TextureManager::Instance()->numReferences(), 0);
        return withoutPath(error);
    }

    QString withoutPath(QString text) const { return text.remove(m_folder.path({}) + u'/'); }

    Folder m_folder;
    QStringList m_errors;
};

/// All GL objects of the context, by kind and name.
QList<QPair<int, unsigned int>> liveObjects()
{
    QList<QPair<int, unsigned int>> objects;
    GLboolean (*const kinds[])(GLuint) = {
        [](GLuint name) { return glIsTexture(name); },     [](GLuint name) { return glIsFramebuffer(name); },
        [](GLuint name) { return glIsProgram(name); },     [](GLuint name) { return glIsBuffer(name); },
        [](GLuint name) { return glIsVertexArray(name); }, [](GLuint name) { return glIsQuery(name); }};
    for (int kind = 0; kind < static_cast<int>(std::size(kinds)); ++kind) {
        for (unsigned int name = 1; name < 1000; ++name) {
            if (kinds[kind](name)) {
                objects.append({kind, name});
            }
        }
    }
    return objects;
}

const QByteArray cubeObj =
    "v -1 -2 -3\nv 1 -2 -3\nv -1 2 -3\nv 1 2 -3\nv -1 -2 3\nv 1 -2 3\nv -1 2 3\nv 1 2 3\n"
    "f 1 3 4 2\nf 5 6 8 7\nf 1 2 6 5\nf 3 7 8 4\nf 1 5 7 3\nf 2 4 8 6\n";

} // namespace

TEST_F(RenderGraphTest, CallsPassesAsTheirContractDemands)
{
    auto graph = makeValid(R"({"passes": [
        {"name": "b", "type": "ProtocolPass", "inputs": {"Input": "@a.Output", "Other": "@a.Output", "Amount": 2}, "options": {"label": "b"}},
        {"name": "a", "type": "ProtocolPass", "options": {"label": "a"}},
        {"name": "unused", "type": "ProtocolPass", "inputs": {"Input": "@a.Output"}, "options": {"label": "unused"}}],
        "output": "@b.Output"})");
    ASSERT_TRUE(graph);
    EXPECT_EQ(calls, (QStringList{"a made", "b made"}));
    calls.clear();
    const QStringList frame{
        "a beginFrame", "b beginFrame", "a start 2 users, amount 1", "b start 1 users, amount 2",
        "a endFrame",   "b endFrame"};
    ASSERT_TRUE(renders(*graph));
    EXPECT_EQ(calls, (QStringList{"a setup", "b setup"} + frame));
    EXPECT_EQ(TextureManager::Instance()->numReferences(), 1);
    calls.clear();
    ASSERT_TRUE(renders(*graph));
    EXPECT_EQ(calls, frame);
    graph->releaseOutputs();
    EXPECT_EQ(graph->picture(), nullptr);
    EXPECT_EQ(TextureManager::Instance()->numReferences(), 0);
    EXPECT_EQ(TextureManager::Instance()->numTextures(), 2);
    calls.clear();
    graph.reset();
    EXPECT_EQ(calls, (QStringList{"a teardown", "b teardown", "a destroyed", "b destroyed"}));
}

TEST_F(RenderGraphTest, KeptOutputsAndTimesAreReadableAfterAFrame)
{
    const auto graph = makeValid(R"({"passes": [
        {"name": "a", "type": "ProtocolPass"},
        {"name": "b", "type": "ProtocolPass", "inputs": {"Input": "@a.Output"}}],
        "output": "@b.Output"})",
                                 {.profile = true, .keepOutputs = true});
    ASSERT_TRUE(graph);
    for (int frame = 0; frame < 6; ++frame) {
        ASSERT_TRUE(renders(*graph));
        const std::vector<RenderGraph::Output> outputs = graph->outputs();
        ASSERT_EQ(outputs.size(), 2U);
        EXPECT_EQ(outputs[0].pass, "a");
        EXPECT_EQ(outputs[1].port, "Qel_QelTexture*_Output");
        EXPECT_NE(outputs[0].value.value<Texture*>(), outputs[1].value.value<Texture*>());
        EXPECT_EQ(outputs[1].value.value<Texture*>(), graph->picture());
        EXPECT_EQ(TextureManager::Instance()->numReferences(), 2);
    }
    const std::vector<Profiler::Row> rows = graph->profile();
    ASSERT_EQ(rows.size(), 2U);
    EXPECT_EQ(rows[1].section, "b");
    for (const Profiler::Row& row : rows) {
        EXPECT_EQ(row.numFrames, 6);
        EXPECT_GT(row.medianCpu, 0.0);
        EXPECT_GE(row.medianGpu, 0.0);
    }
    EXPECT_EQ(Profiler::table(rows).count(u'\n'), 4);
}

TEST_F(RenderGraphTest, FailedFramesNameThePassAndReturnAllTextures)
{
    const auto chain = [](const QByteArray& a, const QByteArray& b, const QByteArray& output) {
        return R"({"passes": [
            {"name": "a", "type": "ProtocolPass", "options": {"fault": ")" +
               a +
               R"("}}, {"name": "b", "type": "ProtocolPass", "inputs": {"Input": "@a.Output"}, "options": {"fault": ")" +
               b +
               R"("}}, {"name": "c", "type": "ProtocolPass", "inputs": {"Input": "@b.Output", "Other": "@a.Output"}}],
            "output": "@)" +
               output + R"(.Output"})";
    };
    const RenderGraph::Options keep{.keepOutputs = true};
    for (const RenderGraph::Options& options : {RenderGraph::Options(), keep}) {
        auto graph = makeValid(chain("", "error", "c"), options);
        ASSERT_TRUE(graph);
        for (int frame = 0; frame < 2; ++frame) {
            EXPECT_EQ(failureOf(*graph), "graph.json: b: the pass reports error 0xffffffff");
        }
        // The next frame starts without the error.
        graph = makeValid(chain("", "errorOnce", "c"), options);
        ASSERT_TRUE(graph);
        EXPECT_EQ(failureOf(*graph), "graph.json: b: the pass reports error 0x1");
        EXPECT_TRUE(renders(*graph));
        // Publishes in the first frame, then fails while its output still holds the texture of that frame,
        // which the pool deletes after some frames.
        graph = makeValid(chain("", "staleLater", "c"), options);
        ASSERT_TRUE(graph);
        ASSERT_TRUE(renders(*graph));
        for (int frame = 0; frame < 20; ++frame) {
            EXPECT_EQ(failureOf(*graph), "graph.json: b: the pass reports error 0xffffffff");
        }
    }
    // Empty outputs are only an error if the graph's output is one; the first empty output is to blame.
    auto graph = makeValid(chain("empty", "empty", "c"));
    ASSERT_TRUE(graph);
    ASSERT_TRUE(renders(*graph));
    graph = makeValid(chain("empty", "empty", "b"));
    ASSERT_TRUE(graph);
    EXPECT_EQ(failureOf(*graph),
              "graph.json: a.Output: the pass published nothing, so the frame has no output");

    m_folder.write("broken.frag",
                   "#version 150\n#include \"broken.glslh\"\nvoid main() { o_Output = value(); }\n");
    m_folder.write("broken.glslh", "out vec4 o_Output;\nvec4 value() { return nonsense; }\n");
    graph = makeValid(R"({"viewport": [4, 4], "passes": [
        {"name": "before", "type": "ProtocolPass"},
        {"name": "mine", "type": "ShaderRenderPass", "inputs": {"Input": "@before.Output"},
         "options": {"inputs": ["Qel_QelTexture*_Input"], "outputs": ["Qel_QelTexture*_Output"], "fragmentShader": "broken.frag"}},
        {"name": "after", "type": "ProtocolPass", "inputs": {"Input": "@mine.Output"}}],
        "output": "@after.Output"})",
                      keep);
    ASSERT_TRUE(graph);
    for (int frame = 0; frame < 2; ++frame) {
        EXPECT_EQ(failureOf(*graph), "graph.json: mine: its shader program failed to build");
    }
    expectMessage(QRegularExpression::escape(m_folder.path("broken.glslh")) + ":2.*nonsense");
}

TEST_F(RenderGraphTest, FrameValuesDescribeTheCameraTheModelsAndTheLights)
{
    m_folder.write("cube.obj", cubeObj);
    const auto graph = makeValid(R"({"viewport": [200, 100], "models": {"scene": "cube.obj"},
        "camera": {"eye": [0, 0, 10], "target": [0, 0, 0], "fovY": 90, "near": 2, "far": 20},
        "lights": [{"type": "directional", "direction": [0, -1, 0], "cascades": 3},
                   {"type": "spot", "position": [1, 2, 3], "direction": [1, 0, 0], "angle": 30, "range": 7,
                    "color": [0.5, 1, 2], "intensity": 3},
                   {"type": "point", "position": [4, 5, 6]}],
        "passes": [{"name": "probe", "type": "ProbePass"}]})");
    ASSERT_TRUE(graph);
    ASSERT_TRUE(renders(*graph));
    const QVariantList& values = ProbePass::values;
    const auto clip = [&](const QVector3D& point) {
        return (values[1].value<QMatrix4x4>() * values[2].value<QMatrix4x4>()).map(point);
    };
    EXPECT_EQ(values[0], QVariant(QRect(0, 0, 200, 100)));
    // A point at the upper edge of a field of view of 90 degrees, one halfway to the right edge, and one on
    // each of the near and far planes.
    EXPECT_NEAR(clip({0, 8, 2}).x(), 0.0F, 1e-6F);
    EXPECT_NEAR(clip({0, 8, 2}).y(), 1.0F, 1e-6F);
    EXPECT_NEAR(clip({8, 0, 2}).x(), 0.5F, 1e-6F);
    EXPECT_NEAR(clip({0, 0, 8}).z(), -1.0F, 1e-6F);
    EXPECT_NEAR(clip({0, 0, -10}).z(), 1.0F, 1e-6F);
    EXPECT_EQ(values.mid(3, 4), (QVariantList{2.0F, 20.0F, QVector3D(-1, -2, -3), QVector3D(1, 2, 3)}));
    EXPECT_NE(graph->model("scene"), nullptr);
    EXPECT_EQ(values[7].value<GPUModel*>(), graph->model("scene"));
    EXPECT_EQ(graph->model("other"), nullptr);
    using Light = ShadowMapManager::Light;
    std::vector<Light> expected(3);
    expected[0].cascades = 3;
    expected[1] = {ShadowMapManager::LightType::Spot, {1, 2, 3}, {1, 0, 0}, {1.5F, 3.0F, 6.0F}, 30.0F, 7.0F};
    expected[2].type = ShadowMapManager::LightType::Point;
    expected[2].position = {4, 5, 6};
    expected[2].direction = {};
    const QVariantList lights = values[8].toList();
    ASSERT_EQ(lights.size(), 3);
    for (qsizetype i = 0; i < 3; ++i) {
        const Light* light = lights[i].value<Light*>();
        ASSERT_NE(light, nullptr);
        EXPECT_EQ(*light, expected[static_cast<size_t>(i)]) << "light " << i;
    }

    QString error;
    ASSERT_TRUE(graph->setViewport({50, 100}, &error));
    graph->setCamera({{0, 0, 5}, {0, 0, 0}, {0, 1, 0}, 90.0F, 1.0F, 10.0F});
    ASSERT_TRUE(graph->setConstant("probe", "FarPlane", 3, &error)) << qPrintable(error);
    ASSERT_TRUE(renders(*graph));
    EXPECT_EQ(values[0], QVariant(QRect(0, 0, 50, 100)));
    EXPECT_NEAR(clip({1, 0, 3}).x(), 1.0F, 1e-6F);
    EXPECT_EQ(values.mid(3, 2), (QVariantList{1.0F, 3.0F}));
}

TEST_F(RenderGraphTest, WithoutACameraTheWholeModelIsVisible)
{
    const QList<QPair<QByteArray, QSize>> cases{
        {cubeObj, {64, 64}},
        {cubeObj, {300, 20}},
        {cubeObj, {20, 300}},
        // Flat, tiny, far away, huge.
        {"v 0 0 0\nv 9 0 0\nv 9 0 9\nf 1 2 3\n", {64, 32}},
        {"v 0 0 0\nv 0.01 0 0\nv 0 0.01 0\nf 1 2 3\n", {64, 32}},
        {"v 100000 0 0\nv 100001 0 0\nv 100000 1 0\nf 1 2 3\n", {64, 32}},
        {"v 0 0 0\nv 1e9 0 0\nv 0 1e9 1e9\nf 1 2 3\n", {64, 32}},
    };
    for (const auto& [obj, size] : cases) {
        m_folder.write("model.obj", obj);
        const auto graph = makeValid(
            R"({"models": {"scene": "model.obj"}, "passes": [{"name": "probe", "type": "ProbePass"}]})");
        ASSERT_TRUE(graph);
        QString error;
        ASSERT_TRUE(graph->setViewport(size, &error));
        ASSERT_TRUE(renders(*graph));
        const QVariantList& values = ProbePass::values;
        const QMatrix4x4 toClip = values[1].value<QMatrix4x4>() * values[2].value<QMatrix4x4>();
        const std::array<QVector3D, 2> box{values[5].value<QVector3D>(), values[6].value<QVector3D>()};
        float reach = 0.0F;
        for (size_t corner = 0; corner < 8; ++corner) {
            const QVector4D clip =
                toClip * QVector4D(box[corner & 1].x(), box[corner >> 1 & 1].y(), box[corner >> 2].z(), 1.0F);
            ASSERT_GT(clip.w(), 0.0F) << obj.constData();
            reach = std::max({reach, std::abs(clip.x() / clip.w()), std::abs(clip.y() / clip.w())});
            EXPECT_LT(std::abs(clip.z() / clip.w()), 1.0F) << obj.constData();
        }
        // The whole model is in the image, and a cube is not small in it.
        EXPECT_LT(reach, 1.0F) << obj.constData();
        EXPECT_GT(reach, obj == cubeObj ? 0.9F : 0.0F);
        EXPECT_GT(values[4].toFloat(), values[3].toFloat());
        EXPECT_GT(values[3].toFloat(), 0.0F);
    }
}

TEST_F(RenderGraphTest, InvalidChangesAreRefused)
{
    const auto graph = makeValid(R"({"passes": [
        {"name": "a", "type": "ProtocolPass"},
        {"name": "b", "type": "ProtocolPass", "inputs": {"Input": "@a.Output"}}], "output": "@b.Output"})");
    ASSERT_TRUE(graph);
    const auto refusal = [&](const QString& pass, const QString& port, const QJsonValue& value) {
        QString error;
        EXPECT_FALSE(graph->setConstant(pass, port, value, &error));
        return withoutPath(error);
    };
    EXPECT_EQ(refusal("aa", "Amount", 1), "graph.json: aa.Amount: no pass \"aa\"; did you mean \"a\"?");
    EXPECT_EQ(refusal("a", "Amuont", 1),
              "graph.json: a.Amuont: ProtocolPass has no such input; did you mean \"Amount\"?");
    EXPECT_EQ(refusal("a", "Amount", "much"), "graph.json: a.Amount: must be a number, not \"much\"");
    EXPECT_EQ(refusal("b", "Input", QJsonValue()), "graph.json: b.Input: is connected");
    QString error;
    EXPECT_FALSE(graph->setViewport({0, 4}, &error));
    EXPECT_TRUE(error.contains("viewport: 0x4 is out of range")) << qPrintable(error);
    EXPECT_FALSE(graph->setViewport({context().maxTextureSize() + 1, 4}, &error));
    EXPECT_EQ(graph->viewport(), QSize(1280, 720));

    // Both a model that cannot be read and a viewport above the driver's limit are reported.
    m_folder.write("broken.obj", "f 1 2 3\n");
    EXPECT_FALSE(make(R"({"viewport": [4, 10000000], "models": {"scene": "broken.obj"},
                          "passes": [{"name": "p", "type": "ProbePass"}]})"));
    ASSERT_EQ(m_errors.size(), 2);
    EXPECT_TRUE(m_errors[0].contains(": viewport: 4x10000000 is out of range"));
    EXPECT_TRUE(withoutPath(m_errors[1]).startsWith("graph.json: models.scene: broken.obj: "))
        << qPrintable(m_errors[1]);
    EXPECT_EQ(calls, QStringList());
}

TEST_F(RenderGraphTest, DestroyingAGraphDeletesAllItsObjects)
{
    m_folder.write("cube.obj", cubeObj);
    const QByteArray text = R"({"viewport": [16, 16], "models": {"scene": "cube.obj"}, "passes": [
        {"name": "sky", "type": "GradientRenderPass"},
        {"name": "forward", "type": "ForwardRenderPass"},
        {"name": "mix", "type": "ShaderRenderPass", "inputs": {"Input": "@forward.Frame", "Sky": "@sky.Frame"},
         "options": {"inputs": ["Qel_QelTexture*_Input", "Qel_QelTexture*_Sky"], "outputs": ["Qel_QelTexture*_Output"]}},
        {"name": "screen", "type": "TextureToScreenRenderPass", "inputs": {"Texture": "@mix.Output", "EnableSuperSampling": true}}],
        "output": "@mix.Output"})";
    QList<QPair<int, unsigned int>> after;
    for (int round = 0; round < 3; ++round) {
        auto graph = makeValid(text, {.profile = true});
        ASSERT_TRUE(graph);
        ASSERT_TRUE(renders(*graph));
        // The mix shows the cube in the centre.
        const Pixels picture = readTexture(graph->picture());
        EXPECT_GT(picture.at(8, 8).w(), 0.9F);
        EXPECT_EQ(picture.at(0, 0), QVector4D(0, 0, 0, 0));
        QString error;
        ASSERT_TRUE(graph->setViewport({8, 8}, &error));
        ASSERT_TRUE(renders(*graph));
        graph.reset();
        TextureManager::Instance()->releaseFreeTextures();
        // The objects that the context keeps are created in the first round.
        if (round > 0) {
            EXPECT_EQ(liveObjects(), after);
        }
        after = liveObjects();
    }
}

} // namespace Morvane::Qel::Test
