#include <QMap>
#include <QMatrix4x4>

#include <algorithm>
#include <array>
#include <cmath>

#include <epoxy/gl.h>

#include <Qel/core/MetaTypes.h>
#include <Qel/core/RenderCallbacks.h>
#include <Qel/core/RenderPassHelper.h>
#include <Qel/gl/FramebufferObject.h>
#include <Qel/gl/Guards.h>
#include <Qel/gl/MemoryAccount.h>
#include <Qel/gl/Texture.h>
#include <Qel/gl/TextureManager.h>
#include <Qel/graph/GraphFile.h>
#include <Qel/graph/RenderGraph.h>
#include <Qel/model/GPUModel.h>
#include <Qel/model/ShadowMapManager.h>

#include "DimRenderPass.h"

#include "support/Folder.h"
#include "support/GLState.h"
#include "support/GLTest.h"
#include "support/Pixels.h"
#include "support/Scene.h"

namespace Morvane::Qel::Test {

namespace {

/// Makes a texture of the application in the middle of a frame.
struct Cache : RenderCallbacks
{
    QSharedPointer<Texture> texture;
};

/// Log of the calls to test passes.
QStringList calls;
/// Inputs of the test pass that ran last, from the viewport on.
QVariantList frameValues;

/// Follows the reference protocol: takes a pooled texture, publishes it for its users, and drops one
/// reference of each input. Logs every call, and misbehaves as its option "fault" demands.
class TestPass : public RenderPassHelper
{
public:
    static const PassDescription& description()
    {
        static const PassDescription description = [] {
            PassDescription pass{"TestPass", {}, {}, {{"Qel_QelTexture*_Output", {}}}};
            pass.options = {{"label", {}, QString()}, {"fault", {}, QString()}};
            for (const char* port :
                 {"QelTexture*_Input", "QelTexture*_Other", "float_Amount", "QRect_Viewport",
                  "QMatrix4x4_ProjectionMatrix", "QMatrix4x4_CameraMatrix", "float_NearPlane",
                  "float_FarPlane", "QVector3D_SceneBoundsMin", "QVector3D_SceneBoundsMax",
                  "QelGPUModel*_Geometry", "QList_QelShadowMapManagerLight*_Lights", "float_Time",
                  "int_FrameNumber", "float_DeltaTime", "bool_NewFrame", "int_Time"}) {
                pass.inputs.push_back({QString("Qel_") + port, {}, {}});
            }
            pass.inputs[2].defaultValue = 1.0F;
            return pass;
        }();
        return description;
    }

    explicit TestPass(const PassOptions& options)
        : m_label(options["label"].toString())
        , m_fault(options["fault"].toString())
    {
        declarePorts(description());
        note("made");
    }
    ~TestPass() override { note("destroyed"); }

    void setup(RenderCallbacks*) override { note("setup"); }
    void beginFrame(RenderCallbacks*) override { note("beginFrame"); }
    void endFrame(RenderCallbacks*) override { note("endFrame"); }
    void teardown(RenderCallbacks*) override { note("teardown"); }
    void start(RenderCallbacks* callbacks) override
    {
        if (auto* cache = dynamic_cast<Cache*>(callbacks)) {
            cache->texture = QSharedPointer<Texture>::create();
        }
        ++m_frame;
        note(QString("start %1 users, amount %2").arg(m_outputs[0].users).arg(m_inputs[2].value.toFloat()));
        // The graph must reset the state that passes leave behind.
        for (const GLenum capability : {GL_DEPTH_TEST, GL_BLEND, GL_SCISSOR_TEST}) {
            EXPECT_FALSE(glIsEnabled(capability));
            glEnable(capability);
        }
        frameValues.clear();
        for (size_t i = 3; i < m_inputs.size(); ++i) {
            frameValues.append(m_inputs[i].value);
        }
        TextureManager* pool = TextureManager::Instance();
        if (m_fault == "gl") {
            glEnable(GL_TEXTURE_WIDTH);
        }
        if (m_fault == "empty") {
            m_outputs[0].value = {};
        } else if (m_fault == "stale" && m_frame > 1) {
            setErrorCode(0xFFFFFFFFU);
        } else {
            const QSize size = m_inputs[3].value.toRect().size();
            Texture* texture = pool->tempTexture(TextureFormat::RGBA8, size.width(), size.height());
            pool->addTempTextureRef(texture, m_outputs[0].users);
            pool->releaseTempTextureRef(texture, 1);
            m_outputs[0].value = QVariant::fromValue(texture);
        }
        if (m_fault == "first" && m_frame == 1) {
            setErrorCode(1);
        }
        pool->releaseTempTextureRef(getInputPointer<Texture>(0), 1);
        pool->releaseTempTextureRef(getInputPointer<Texture>(1), 1);
    }

private:
    void note(const QString& what) const { calls.append(m_label + ' ' + what); }

    QString m_label;
    QString m_fault;
    int m_frame = 0;
};

class RenderGraphTest : public GLTest, protected Folder
{
protected:
    void TearDown() override
    {
        graph.reset();
        GLTest::TearDown();
    }

    void make(const QByteArray& text, const RenderGraph::Options& options = {})
    {
        PassRegistry registry = PassRegistry::builtin();
        registry.add<DimRenderPass>();
        registry.add(TestPass::description(),
                     [](const PassOptions& values, QString*) { return std::make_unique<TestPass>(values); });
        graph.reset();
        calls.clear();
        m_errors.clear();
        write("graph.json", text);
        const auto description = loadGraph(path("graph.json"), &m_errors);
        ASSERT_TRUE(description) << qPrintable(m_errors.join('\n'));
        graph = RenderGraph::create(*description, registry, options, &m_errors);
    }

    void render()
    {
        ASSERT_TRUE(graph) << qPrintable(m_errors.join('\n'));
        QString error;
        ASSERT_TRUE(graph->renderFrame(&error)) << qPrintable(error);
    }

    void expectFailure(const QString& message)
    {
        ASSERT_TRUE(graph) << qPrintable(m_errors.join('\n'));
        QString error;
        EXPECT_FALSE(graph->renderFrame(&error));
        EXPECT_EQ(error, path("graph.json: " + message));
        EXPECT_EQ(graph->image(), nullptr);
        EXPECT_EQ(TextureManager::Instance()->numReferences(), 0);
    }

    std::unique_ptr<RenderGraph> graph;
    QStringList m_errors;
};

const QByteArray cubeObj =
    "v -1 -2 -3\nv 1 -2 -3\nv -1 2 -3\nv 1 2 -3\nv -1 -2 3\nv 1 -2 3\nv -1 2 3\nv 1 2 3\n"
    "f 1 3 4 2\nf 5 6 8 7\nf 1 2 6 5\nf 3 7 8 4\nf 1 5 7 3\nf 2 4 8 6\n";

} // namespace

TEST_F(RenderGraphTest, CallsPassesAsTheirContractDemands)
{
    Cache cache;
    make(R"({"passes": [
        {"name": "b", "type": "TestPass", "inputs": {"Input": "@a.Output", "Other": "@a.Output", "Amount": 2}, "options": {"label": "b"}},
        {"name": "a", "type": "TestPass", "options": {"label": "a"}},
        {"name": "unused", "type": "TestPass", "inputs": {"Input": "@a.Output"}, "options": {"label": "unused"}}],
        "output": "@b.Output"})",
         {.callbacks = &cache});
    const QStringList frame{
        "a beginFrame", "b beginFrame", "a start 2 users, amount 1", "b start 1 users, amount 2",
        "a endFrame",   "b endFrame"};
    render();
    EXPECT_EQ(calls, (QStringList{"a made", "b made", "a setup", "b setup"} + frame));
    EXPECT_EQ(TextureManager::Instance()->numReferences(), 1);
    calls.clear();
    render();
    EXPECT_EQ(calls, frame);
    graph->releaseOutputs();
    EXPECT_EQ(graph->image(), nullptr);
    EXPECT_EQ(TextureManager::Instance()->numReferences(), 0);
    EXPECT_EQ(TextureManager::Instance()->numTextures(), 2);
    calls.clear();
    const QPointer<Texture> ofTheApplication(cache.texture.get());
    graph.reset();
    EXPECT_EQ(calls, (QStringList{"a teardown", "b teardown", "a destroyed", "b destroyed"}));
    EXPECT_FALSE(ofTheApplication.isNull());
}

TEST_F(RenderGraphTest, FailedFramesNameThePassAndReturnAllTextures)
{
    const auto makeChain = [&](const QString& fault, const QString& output, bool keepOutputs) {
        make(QString(R"({"passes": [
            {"name": "a", "type": "TestPass"},
            {"name": "b", "type": "TestPass", "inputs": {"Input": "@a.Output"}, "options": {"fault": "%1"}},
            {"name": "c", "type": "TestPass", "inputs": {"Input": "@b.Output", "Other": "@a.Output"}}],
            "output": "@%2.Output"})")
                 .arg(fault, output)
                 .toUtf8(),
             {.keepOutputs = keepOutputs});
    };
    for (const bool keepOutputs : {false, true}) {
        // The next frame starts without the error.
        makeChain("first", "c", keepOutputs);
        expectFailure("b: the pass reports error 0x1");
        render();
        // The output still holds the texture of the first frame, which the pool deletes after some frames.
        makeChain("stale", "c", keepOutputs);
        render();
        for (int frame = 0; frame < 20; ++frame) {
            expectFailure("b: the pass reports error 0xffffffff");
        }
    }
    // The call of a GL error is known in a debug context.
    makeChain("gl", "c", false);
    expectFailure("b: OpenGL error: GL_INVALID_ENUM in glEnable(GL_TEXTURE_WIDTH)");
    expectMessage("OpenGL: GL_INVALID_ENUM");
    expectMessage("OpenGL error GL_INVALID_ENUM");
    // An empty output is only an error if it is the graph's.
    makeChain("empty", "c", false);
    render();
    makeChain("empty", "b", false);
    expectFailure("b.Output: the pass published nothing, so the frame has no output");
}

TEST_F(RenderGraphTest, OtherReadersGetATextureAsItWasBeforeAPassModifiedIt)
{
    write("white.ppm", "P3 1 1 255 255 255 255");
    const QByteArray text = R"({"viewport": [8, 6], "passes": [
        {"name": "base", "type": "GradientRenderPass", "inputs": {"ColorTop": "#ff0000", "ColorBottom": "#ff0000"}},
        {"name": "map", "type": "TextureLoaderRenderPass", "inputs": {"TexturePath": "white.ppm"}},
        {"name": "sky", "type": "SkyboxRenderPass", "inputs": {"Frame": "@base.Frame", "LatLongMap": "@map.Texture"}},
        {"name": "dim", "type": "DimRenderPass", "inputs": {"Frame": "@base.Frame", "Factor": 1}},
        {"name": "show", "type": "TextureToScreenRenderPass", "inputs": {"Texture": "@sky.Frame"}},
        {"name": "dimmed", "type": "TextureToScreenRenderPass", "inputs": {"Texture": "@dim.Frame"}}],
        "output": "@base.Frame"})";
    const Pixels red = Pixels::filled(8, 6, {1, 0, 0, 1});
    const QMap<QString, Pixels> expected{{"base", red},
                                         {"sky", red.mapped([](auto) { return QVector4D(1, 1, 1, 1); })}};
    for (const bool keepOutputs : {false, true}) {
        make(text, {.keepOutputs = keepOutputs});
        render();
        render();
        EXPECT_TRUE(equal(readTexture(graph->image()), red));
        for (const RenderGraph::Output& output : graph->outputs()) {
            if (auto* texture = pointerFromVariant<Texture>(output.value); output.pass != "map") {
                EXPECT_TRUE(equal(readTexture(texture), expected.value(output.pass, red)))
                    << qPrintable(output.pass);
            }
        }
        EXPECT_EQ(graph->outputs().size(), keepOutputs ? 4U : 0U);
    }
}

TEST_F(RenderGraphTest, WhatTheDriverCannotDoIsRefusedBeforehand)
{
    make(R"({"passes": [{"name": "base", "type": "GradientRenderPass"},
        {"name": "ao", "type": "ScalableAmbientObscuranceRenderPass", "inputs": {"Depth": "@base.Frame"}}],
        "output": "@ao.Frame"})");
    expectFailure("ao.Depth: \"@base.Frame\" is a colour texture, GL_RGBA32F; connect a depth texture");
    QStringList ports;
    for (int i = 0; i < 200; ++i) {
        ports.append(QString("\"Qel_QelTexture*_P%1\"").arg(i));
    }
    const QString many =
        R"({"passes": [{"name": "a", "type": "ShaderRenderPass", "options": {"outputs": [%1]}}],
        "output": "@a.P0"})";
    make(many.arg(ports.join(", ")).toUtf8());
    EXPECT_FALSE(graph);
    EXPECT_TRUE(m_errors.value(0).startsWith(path("graph.json: a: outputs: there are 200 textures")));
}

TEST_F(RenderGraphTest, FrameValuesDescribeTheCameraTheModelsAndTheLights)
{
    write("cube.obj", cubeObj);
    make(R"({"viewport": [200, 100], "models": {"scene": "cube.obj"}, "output": "@probe.Output",
        "camera": {"eye": [0, 0, 10], "target": [0, 0, 0], "fovY": 90, "near": 2, "far": 20},
        "lights": [{"type": "directional", "direction": [0, -1, 0], "cascades": 3},
                   {"type": "spot", "position": [1, 2, 3], "direction": [1, 0, 0], "angle": 30, "range": 7,
                    "color": [0.5, 1, 2], "intensity": 3},
                   {"type": "point", "position": [4, 5, 6]}],
        "passes": [{"name": "probe", "type": "TestPass"}]})");
    render();
    const auto clip = [](const QVector3D& point) {
        return (frameValues[1].value<QMatrix4x4>() * frameValues[2].value<QMatrix4x4>()).map(point);
    };
    EXPECT_EQ(frameValues[0], QVariant(QRect(0, 0, 200, 100)));
    // A point at the upper edge of a field of view of 90 degrees and halfway to the right edge, and one on
    // each of the near and far planes.
    EXPECT_NEAR(clip({8, 8, 2}).x(), 0.5F, 1e-6F);
    EXPECT_NEAR(clip({8, 8, 2}).y(), 1.0F, 1e-6F);
    EXPECT_NEAR(clip({0, 0, 8}).z(), -1.0F, 1e-6F);
    EXPECT_NEAR(clip({0, 0, -10}).z(), 1.0F, 1e-6F);
    EXPECT_EQ(frameValues.mid(3, 4), (QVariantList{2.0F, 20.0F, QVector3D(-1, -2, -3), QVector3D(1, 2, 3)}));
    EXPECT_NE(graph->model("scene"), nullptr);
    EXPECT_EQ(frameValues[7].value<GPUModel*>(), graph->model("scene"));
    using Light = ShadowMapManager::Light;
    std::vector<Light> expected(3);
    expected[0].cascades = 3;
    expected[1] = {ShadowMapManager::LightType::Spot, {1, 2, 3}, {1, 0, 0}, {1.5F, 3.0F, 6.0F}, 30.0F, 7.0F};
    expected[2] = {ShadowMapManager::LightType::Point, {4, 5, 6}, {}};
    const QVariantList lights = frameValues[8].toList();
    ASSERT_EQ(lights.size(), 3);
    for (qsizetype i = 0; i < 3; ++i) {
        EXPECT_EQ(*lights[i].value<Light*>(), expected[static_cast<size_t>(i)]) << "light " << i;
    }

    QString error;
    ASSERT_TRUE(graph->setViewport({50, 100}, &error));
    graph->setCamera({{0, 0, 5}, {0, 0, 0}, {0, 1, 0}, 90.0F, 1.0F, 10.0F});
    ASSERT_TRUE(graph->setConstant("probe", "FarPlane", 3, &error)) << qPrintable(error);
    render();
    EXPECT_EQ(frameValues[0], QVariant(QRect(0, 0, 50, 100)));
    EXPECT_NEAR(clip({1, 0, 3}).x(), 1.0F, 1e-6F);
    EXPECT_EQ(frameValues.mid(3, 2), (QVariantList{1.0F, 3.0F}));

    // A graph that takes another's place shares the models that were read from its files.
    RenderGraph::Options options;
    options.modelSource = graph.get();
    QStringList errors;
    auto successor = RenderGraph::create(graph->plan(), options, &errors);
    ASSERT_TRUE(successor) << qPrintable(errors.join("\n"));
    EXPECT_EQ(successor->model("scene"), graph->model("scene"));
    EXPECT_EQ(successor->fittedCamera(), graph->fittedCamera());
    successor.reset();
    render();

    QMatrix4x4 matrix;
    matrix.rotate(30.0F, {0, 1, 0});
    graph->setInput("probe", "CameraMatrix", matrix, &error);
    const LightDescription sun{.type = "directional", .direction = {1, -2, 1}, .intensity = 3.0F};
    ASSERT_TRUE(graph->setLights({sun}, &error)) << qPrintable(error);
    write("flat.obj", "v 0 0 7\nv 1 0 7\nv 0 1 7\nf 1 2 3\n");
    ASSERT_TRUE(graph->replaceModel("scene", *importModel(path("flat.obj"), &error), &error));
    render();
    EXPECT_EQ(frameValues[2], QVariant(matrix));
    EXPECT_EQ(frameValues.mid(5, 3), (QVariantList{QVector3D(0, 0, 7), QVector3D(1, 1, 7),
                                                   QVariant::fromValue(graph->model("scene"))}));
    EXPECT_EQ(frameValues[8].toList().value(0).value<Light*>()->color, QVector3D(3, 3, 3));
    // The file does not hold this model.
    successor = RenderGraph::create(graph->plan(), options, &errors);
    ASSERT_TRUE(successor);
    EXPECT_NE(successor->model("scene"), graph->model("scene"));
}

TEST_F(RenderGraphTest, TheClockStandsUntilItIsSet)
{
    const QByteArray rest =
        R"("passes": [{"name": "probe", "type": "TestPass"}], "output": "@probe.Output"})";
    const auto clock = [](float time, int frame, float delta, bool isNew) {
        // A port that is named like a frame value but has another type does not get it.
        return QVariantList{time, frame, delta, isNew, QVariant()};
    };
    make("{" + rest);
    render();
    EXPECT_EQ(frameValues.mid(9), clock(0.0F, 0, 1.0F / 30.0F, true));
    make(R"({"animation": {"frames": 2, "fps": 12.5},)" + rest);
    graph->setFrameNumber(100);
    EXPECT_EQ(graph->frameNumber(), 100);
    render();
    EXPECT_EQ(frameValues.mid(9), clock(8.0F, 100, 0.08F, true));
    render();
    EXPECT_EQ(frameValues.mid(9), clock(8.0F, 100, 0.08F, false));
    graph->setFrameNumber(101);
    render();
    EXPECT_EQ(frameValues.mid(9), clock(8.08F, 101, 0.08F, true));
}

TEST_F(RenderGraphTest, AnOrbitKeepsTheModelInTheImage)
{
    write("cube.obj", cubeObj);
    const auto orbit = [&](const QByteArray& members, const QSize& size) {
        make(R"({"models": {"scene": "cube.obj"}, "animation": {"frames": 36}, "output": "@probe.Output",
                 "passes": [{"name": "probe", "type": "TestPass"}], "camera": {"fovY": 40, "orbit": {)" +
             members + "}}}");
        QString error;
        EXPECT_TRUE(graph && graph->setViewport(size, &error)) << qPrintable(m_errors.join("\n"));
    };
    for (const char* members : {R"("turns": -2)", R"("elevation": 80)", R"("elevation": -40)",
                                R"("elevation": 30, "target": [4, -3, 0.5])"}) {
        for (const QSize& size : {QSize(320, 180), QSize(90, 300)}) {
            SCOPED_TRACE(members);
            orbit(members, size);
            float reach = 0.0F;
            for (int frame = 0; frame < 36; ++frame) {
                graph->setFrameNumber(frame);
                render();
                const QMatrix4x4 toClip =
                    frameValues[1].value<QMatrix4x4>() * frameValues[2].value<QMatrix4x4>();
                for (int corner = 0; corner < 8; ++corner) {
                    const QVector3D ndc = toClip.map(QVector3D((corner & 1) != 0 ? 1.0F : -1.0F,
                                                               (corner & 2) != 0 ? 2.0F : -2.0F,
                                                               (corner & 4) != 0 ? 3.0F : -3.0F));
                    reach = std::max({reach, std::abs(ndc.x()), std::abs(ndc.y())});
                    EXPECT_LT(std::abs(ndc.z()), 1.0F);
                }
            }
            EXPECT_LT(reach, 0.96F);
            EXPECT_GT(reach, 0.90F);
        }
    }
    // A quarter of the way around, counter-clockwise from 30 degrees.
    orbit(R"("turns": 1, "startAngle": 30, "elevation": 45, "distance": 10, "target": [1, 0, 0])", {99, 99});
    graph->setFrameNumber(9);
    const QVector3D expected =
        QVector3D(1, 0, 0) + 10.0F * std::sqrt(0.5F) * QVector3D(std::sqrt(0.75F), 1.0F, -0.5F);
    EXPECT_LT((graph->camera().eye - expected).length(), 1e-5F);
}

TEST_F(RenderGraphTest, ShowsItsImageOfTheHostsTextureInAFramebufferOfTheHost)
{
    make(
        R"({"viewport": [1, 1], "output": "@copy.Output", "passes": [{"name": "copy", "type": "ShaderRenderPass",
        "options": {"inputs": ["Qel_QelTexture*_Input"], "outputs": ["Qel_QelTexture*_Output"]}}]})");
    ASSERT_TRUE(graph);
    QString error;
    EXPECT_FALSE(graph->present(0, {0, 0, 1, 1}, &error)) << "there is no image";
    // A transparent green, shown opaque beside what the host drew.
    const std::unique_ptr<Texture> texture = makeTexture(Pixels::filled(1, 1, {0, 1, 0, 0.2F}), GL_RGBA8);
    graph->setInput("copy", "Input", QVariant::fromValue(texture.get()), &error);
    render();
    Pixels expected = Pixels::filled(3, 2, {0, 0, 1, 0});
    const std::unique_ptr<Texture> window = makeTexture(expected, GL_RGBA8);
    FramebufferObject framebuffer;
    framebuffer.attach(window.get(), GL_COLOR_ATTACHMENT0, 0);
    const AutoBinder binder(&framebuffer);
    framebuffer.setDrawBuffers();
    EXPECT_TRUE(graph->present(framebuffer.getFBO(), {1, 1, 1, 1}, &error)) << qPrintable(error);
    expected.at(1, 1) = {0, 1, 0, 1};
    EXPECT_TRUE(equal(readTexture(window.get()), expected));
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
        SCOPED_TRACE(obj.toStdString());
        write("model.obj", obj);
        make(R"({"models": {"scene": "model.obj"}, "passes": [{"name": "probe", "type": "TestPass"}],
                 "output": "@probe.Output"})");
        QString error;
        ASSERT_TRUE(graph && graph->setViewport(size, &error));
        render();
        const QMatrix4x4 toClip = frameValues[1].value<QMatrix4x4>() * frameValues[2].value<QMatrix4x4>();
        std::array<float, 2> low{1e9F, 1e9F};
        std::array<float, 2> high{-1e9F, -1e9F};
        const ModelData model = *importModel(path("model.obj"), &error);
        for (const QVector3D& position : model.meshes.at(0).positions) {
            const QVector4D clip = toClip * QVector4D(position, 1.0F);
            ASSERT_GT(clip.w(), 0.0F);
            const QVector3D ndc = clip.toVector3DAffine();
            EXPECT_LT(std::abs(ndc.z()), 1.0F);
            for (size_t axis = 0; axis < 2; ++axis) {
                low[axis] = std::min(low[axis], ndc[static_cast<int>(axis)]);
                high[axis] = std::max(high[axis], ndc[static_cast<int>(axis)]);
            }
        }
        // The whole model is in the middle of the image and fills it, unless it is far away, where floats
        // are coarse, or would come too close to the eye, as a corner of the first flat one does.
        const float reach = std::max({-low[0], high[0], -low[1], high[1]});
        EXPECT_LT(reach, 0.942F);
        EXPECT_GT(reach, obj.startsWith("v 100000 ") ? 0.0F : obj.contains("v 9 0 9") ? 0.6F : 0.938F);
        for (size_t axis = 0; axis < 2 && !obj.startsWith("v 100000 "); ++axis) {
            EXPECT_NEAR(low[axis], -high[axis], 0.002F);
        }
    }
}

TEST_F(RenderGraphTest, ModelsStandWhereTheGraphPlacesThemAndMerge)
{
    write("cube.obj", cubeObj); // 2 x 4 x 6
    write("flat.obj", "v 0 0 7\nv 1 0 7\nv 0 1 7\nf 1 2 3\n");
    make(R"({"models": {
        "up": {"file": "cube.obj", "upAxis": "z"}, "side": {"file": "cube.obj", "upAxis": "x"},
        "fit": {"file": "cube.obj", "upAxis": "z", "scale": [1, 1, 2], "fit": 12, "translate": [10, 0, 0]},
        "turned": {"file": "flat.obj", "scale": 2, "rotate": [90, 0, 90], "translate": [0, 0, 1]},
        "a": {"file": "cube.obj", "translate": [5, 0, 0]}, "b": "cube.obj",
        "pair": {"merge": ["a", "b"], "scale": 2}, "all": {"merge": ["pair", "up"]}},
        "passes": [{"name": "probe", "type": "TestPass", "inputs": {"Geometry": "@all"}}],
        "output": "@probe.Output"})");
    ASSERT_TRUE(graph) << qPrintable(m_errors.join('\n'));
    const auto expectBounds = [&](const QString& name, const QVector3D& low, const QVector3D& high) {
        ASSERT_TRUE(graph->model(name)) << qPrintable(name);
        const auto bounds = graph->model(name)->bounds();
        EXPECT_LT((bounds.first - low).length() + (bounds.second - high).length(), 1e-5F) << qPrintable(name);
    };
    expectBounds("side", {-2, -1, -3}, {2, 1, 3});
    // Twice as long in z: 2 x 6 x 8, of which 8 becomes 12.
    expectBounds("fit", {8.5F, 0, -6}, {11.5F, 9, 6});
    // (x, y, z) becomes (x, -z, y) and then (z, x, y).
    expectBounds("turned", {14, 0, 1}, {14, 2, 3});
    expectBounds("all", {-2, -4, -6}, {12, 4, 6});
    EXPECT_FALSE(graph->model("a")) << "it is only drawn as a part";
    EXPECT_EQ(graph->model("all")->numTriangles(), 36);
    QString error;
    const ModelData flat = *importModel(path("flat.obj"), &error);
    ASSERT_TRUE(graph->replaceModel("a", flat, &error)) << qPrintable(error);
    render();
    expectBounds("all", {-2, -4, -6}, {12, 4, 14});
    EXPECT_EQ(frameValues[7].value<GPUModel*>(), graph->model("all"));
    EXPECT_FALSE(graph->replaceModel("all", flat, &error));
    EXPECT_EQ(error,
              path("graph.json: model \"all\" is merged; replace one of its parts (\"pair\", \"up\")"));
}

TEST_F(RenderGraphTest, AnOrthographicCameraSeesWhatParallelRaysMeet)
{
    write("model.obj", cubeObj);
    make(R"({"viewport": [48, 32], "camera": {"eye": [1, 1.8, 3.2], "height": 3, "near": 0.5, "far": 9},
        "models": {"scene": "model.obj"}, "passes": [
        {"name": "forward", "type": "ForwardRenderPass"}, {"name": "buffer", "type": "ModelRenderPass"},
        {"name": "positions", "type": "CameraSpaceZBufferRenderPass", "inputs": {"Frame": "@buffer.Depth"}},
        {"name": "show", "type": "TextureToScreenRenderPass", "inputs": {"Texture": "@positions.Frame"}}],
        "output": "@forward.Frame"})",
         {.keepOutputs = true});
    ASSERT_TRUE(graph) << qPrintable(m_errors.join('\n'));
    QString error;
    const Scene scene(makeSceneData());
    ASSERT_TRUE(graph->replaceModel("scene", scene.data(), &error)) << qPrintable(error);
    render();
    const View view = View::orthographic({48, 32}, 2.25F, 1.5F, 0.5F, 9.0F).from({1.0F, 1.8F, 3.2F});
    for (const RenderGraph::Output& output : graph->outputs()) {
        auto* texture = pointerFromVariant<Texture>(output.value);
        if (output.pass == "forward" && output.port.endsWith("Frame")) {
            const Pixels expected = scene.image(view, [&](const Hit* hit) {
                if (!hit) {
                    return QVector4D();
                }
                QVector4D lit(blinnPhong(scene.material(*hit), view.camera.mapVector(hit->normal)),
                              scene.material(*hit).d);
                for (int i = 0; i < 3; ++i) {
                    lit[i] = std::min(lit[i], 1.0F);
                }
                return lit;
            });
            // The sphere's normals are interpolated, and the target has 8 bits.
            EXPECT_TRUE(equal(readTexture(texture), expected, 2.0F / 255.0F));
        } else if (output.port.endsWith("Depth")) {
            EXPECT_TRUE(equal(readTexture(texture), scene.depths(view), 2e-3F));
        } else if (output.pass == "positions") {
            const Pixels expected = scene.image(view, [&](const Hit* hit) {
                return hit ? QVector4D(view.camera.map(hit->position), 1.0F) : anyPixel;
            });
            EXPECT_TRUE(equal(readTexture(texture), expected, 1e-4F));
        }
    }
}

TEST_F(RenderGraphTest, InvalidChangesAreRefused)
{
    make(R"({"passes": [{"name": "a", "type": "TestPass"},
                        {"name": "b", "type": "TestPass", "inputs": {"Input": "@a.Output"}}],
             "output": "@b.Output"})");
    ASSERT_TRUE(graph);
    QString error;
    const auto expectRefusal = [&](const QString& pass, const QString& port, const QJsonValue& value,
                                   const QString& message) {
        EXPECT_FALSE(graph->setConstant(pass, port, value, &error));
        EXPECT_EQ(error, path(QString("graph.json: %1.%2: %3").arg(pass, port, message)));
    };
    expectRefusal("aa", "Amount", 1, "no pass \"aa\"; did you mean \"a\"?");
    expectRefusal("a", "Amuont", 1, "TestPass has no such input; did you mean \"Amount\"?");
    expectRefusal("a", "Amount", "much", "must be a number, not \"much\"");
    expectRefusal("b", "Input", {}, "is connected");
    Texture texture;
    EXPECT_FALSE(graph->setInput("a", "Geometry", QVariant::fromValue(&texture), &error));
    EXPECT_EQ(error, path("graph.json: a.Geometry: expects QelGPUModel*, not Morvane::Qel::Texture*"));
    EXPECT_FALSE(graph->setLights({{.type = "spot", .direction = {1, 0, 0}, .angle = 180}}, &error));
    EXPECT_FALSE(graph->setViewport({0, 4}, &error));
    EXPECT_TRUE(error.contains("viewport: 0x4 is out of range")) << qPrintable(error);
    EXPECT_FALSE(graph->setViewport({context().maxTextureSize() + 1, 4}, &error));
    EXPECT_EQ(graph->viewport(), QSize(1280, 720));
}

TEST_F(RenderGraphTest, DestroyingAGraphDeletesAllItsObjects)
{
    write("cube.obj", cubeObj);
    auto after = liveObjects();
    for (int round = 0; round < 3; ++round) {
        make(R"({"viewport": [16, 16], "models": {"scene": "cube.obj"}, "passes": [
            {"name": "sky", "type": "GradientRenderPass"},
            {"name": "forward", "type": "ForwardRenderPass"},
            {"name": "mix", "type": "ShaderRenderPass", "inputs": {"Input": "@forward.Frame", "Sky": "@sky.Frame"},
             "options": {"inputs": ["Qel_QelTexture*_Input", "Qel_QelTexture*_Sky"], "outputs": ["Qel_QelTexture*_Output"]}},
            {"name": "screen", "type": "TextureToScreenRenderPass", "inputs": {"Texture": "@mix.Output", "EnableSuperSampling": true}}],
            "output": "@mix.Output"})",
             {.profile = true});
        // The application's own timer may be running.
        unsigned int query = 0;
        glGenQueries(1, &query);
        glBeginQuery(GL_TIME_ELAPSED, query);
        render();
        glEndQuery(GL_TIME_ELAPSED);
        glDeleteQueries(1, &query);
        QString error;
        ASSERT_TRUE(graph->setViewport({8, 8}, &error));
        render();
        graph.reset();
        TextureManager::Instance()->releaseFreeTextures();
        // The objects that the context keeps are created in the first round.
        if (round > 0) {
            EXPECT_EQ(liveObjects(), after);
        }
        after = liveObjects();
    }
}

TEST_F(RenderGraphTest, PassesTakeThePooledTexturesThatEarlierOnesReleased)
{
    write("cube.obj", cubeObj);
    make(R"({"viewport": [1920, 1080], "models": {"scene": "cube.obj"}, "passes": [
        {"name": "sky", "type": "GradientRenderPass"},
        {"name": "a", "type": "BlurAndCombineRenderPass",
         "inputs": {"NormalFrame": "@sky.Frame", "BlurFrame": "@sky.Frame", "BlurRadius": 1, "GlowAmount": 1}},
        {"name": "b", "type": "BlurAndCombineRenderPass",
         "inputs": {"NormalFrame": "@a.Output", "BlurFrame": "@a.Output", "BlurRadius": 1, "GlowAmount": 1}},
        {"name": "c", "type": "BlurAndCombineRenderPass",
         "inputs": {"NormalFrame": "@b.Output", "BlurFrame": "@b.Output", "BlurRadius": 1, "GlowAmount": 1}}],
        "output": "@c.Output"})",
         {.profile = true});
    render();
    const Profiler::Report report = graph->profile();
    constexpr qint64 numPixels = qint64{1920} * 1080;
    // The gradient keeps four floats per pixel, and small buffers.
    EXPECT_GE(report.sections[0].memory.kept, 16 * numPixels);
    EXPECT_LT(report.sections[0].memory.kept, 16 * numPixels + 1000);
    EXPECT_EQ(report.sections[0].memory.numPooled, 0);
    // A glow has an output and one texture between its two directions, of four half floats.
    for (size_t i = 1; i < 4; ++i) {
        EXPECT_EQ(report.sections[i].memory.numPooled, 2);
        EXPECT_EQ(report.sections[i].memory.pooled, 2 * 8 * numPixels);
    }
    EXPECT_EQ(report.frame.memory.numPooled, 6);
    // Its own two and its input.
    EXPECT_EQ(report.numPoolTextures, 3);
    EXPECT_EQ(report.poolBytes, 3 * 8 * numPixels);
    // Eight corners with position, normal and texture coordinate, and twelve triangles.
    EXPECT_GE(report.modelBytes, 8 * 32 + 36);
    EXPECT_LT(report.modelBytes, 1000);

    graph.reset();
    TextureManager::Instance()->releaseFreeTextures();
    EXPECT_EQ(MemoryAccount::ofPool().numBytes(), 0);
}

TEST_F(RenderGraphTest, IsDestroyedAfterItsContextOrBesideIt)
{
    for (const bool isAfter : {true, false}) {
        auto other = HeadlessContext::create({}, nullptr);
        make(R"({"viewport": [4, 4], "output": "@mean.Frame", "passes": [
            {"name": "forward", "type": "ForwardRenderPass"},
            {"name": "a", "type": "TestPass", "inputs": {"Input": "@forward.Frame"}, "options": {"label": "a"}},
            {"name": "mean", "type": "TemporalAARenderPass", "inputs": {"Frame": "@a.Output"}}]})",
             {.profile = true, .keepOutputs = true});
        render();
        if (isAfter) {
            other.reset();
        }
        context().makeCurrent();
        const auto own = liveObjects();
        expectFailure("the OpenGL context of the graph is not current");
        graph.reset();
        EXPECT_FALSE(calls.contains("a teardown"));
        EXPECT_EQ(liveObjects(), own);
        if (other) {
            other->makeCurrent();
            EXPECT_EQ(TextureManager::Instance()->numReferences(), 0);
            EXPECT_FALSE(glIsFramebuffer(1) || glIsQuery(1));
            context().makeCurrent();
        }
    }
}

TEST_F(RenderGraphTest, TheExamplePassOfTheManualDimsItsInput)
{
    make(R"({"viewport": [5, 3], "passes": [
        {"name": "source", "type": "GradientRenderPass", "inputs": {"ColorTop": "#ff8000", "ColorBottom": null}},
        {"name": "dim", "type": "DimRenderPass", "inputs": {"Frame": "@source.Frame", "Factor": 0.25}}],
        "output": "@dim.Frame"})");
    render();
    // A quarter of 255 and of 128, rounded to 8 bits.
    EXPECT_TRUE(equal(readTexture(graph->image()),
                      Pixels::filled(5, 3, {64.0F / 255.0F, 32.0F / 255.0F, 0.0F, 1.0F}), 1e-6F));
}

} // namespace Morvane::Qel::Test
