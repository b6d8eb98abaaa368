// Renders every graph of examples/graphs, and those that the manual shows, in a small size.

#include <QDir>
#include <QFile>
#include <QJsonArray>

#include <algorithm>

#include <stdlib.h>

#include <epoxy/gl.h>

#include "support/Folder.h"
#include "support/GLTest.h"
#include "support/Paths.h"
#include "support/Pixels.h"
#include <Qel/core/MetaTypes.h>
#include <Qel/gl/Formats.h>
#include <Qel/gl/Texture.h>
#include <Qel/gl/TextureManager.h>
#include <Qel/graph/GraphFile.h>
#include <Qel/graph/RenderGraph.h>

namespace Morvane::Qel::Test {
namespace {

const QString graphFolder = sourcePath("examples/graphs/");

/// The whole graphs that the manual shows.
QStringList manualGraphs()
{
    QFile manual(sourcePath("docs/graph-files.md"));
    EXPECT_TRUE(manual.open(QIODevice::ReadOnly));
    QStringList graphs;
    for (const QString& block : QString(manual.readAll()).split("```json\n").sliced(1)) {
        if (block.startsWith('{')) {
            graphs.append(block.section("```", 0, 0));
        }
    }
    return graphs;
}

std::vector<std::string> graphNames()
{
    std::vector<std::string> names;
    for (qsizetype i = 0; i < manualGraphs().size(); ++i) {
        names.push_back("manual" + std::to_string(i));
    }
    for (const QString& file : QDir(graphFolder).entryList({"*.json"})) {
        names.push_back(file.chopped(5).toStdString());
    }
    return names;
}

/// Adds passes of a user that sample an output, before and after all other readers, and passes that show what
/// they draw, so that none is culled.
void addReaders(GraphDescription& graph, const Folder& folder, const RenderGraph::Output& output)
{
    const auto* texture = pointerFromVariant<Texture>(output.value);
    if (!texture) {
        return;
    }
    const bool isCube = texture->target() == GL_TEXTURE_CUBE_MAP;
    const bool isInteger = internalFormatName(texture->internalFormat()).endsWith("UI");
    const QString kind = isCube ? "samplerCube" : isInteger ? "usampler2D" : "sampler2D";
    folder.write(kind, QString("#version 150\nuniform %1 u_Input;\nout vec4 o_Sample;\n"
                               "void main() { o_Sample = vec4(texture(u_Input, %2(0.5))); }")
                           .arg(kind, isCube ? "vec3" : "vec2"));
    const QJsonObject options{{"inputs", QJsonArray{"Qel_QelTexture*_Input"}},
                              {"outputs", QJsonArray{"Qel_QelTexture*_Sample"}},
                              {"fragmentShader", folder.path(kind)}};
    for (const bool isFirst : {true, false}) {
        const QString name = QString("reader%1").arg(graph.passes.size());
        const QString read = "@" + output.pass + "." + output.port;
        const std::vector<PassSetting> readers{
            {name, "ShaderRenderPass", {{"Input", read}}, options},
            {name + "-shown", "TextureToScreenRenderPass", {{"Texture", "@" + name + ".Sample"}}, {}}};
        graph.passes.insert(isFirst ? graph.passes.begin() : graph.passes.end(), readers.begin(),
                            readers.end());
    }
}

class ExampleGraph : public GLTest, public testing::WithParamInterface<std::string>
{
protected:
    /// Renders three frames.
    std::vector<Pixels> render(const GraphDescription& description)
    {
        // Makes the random offsets of the jitter pass repeat.
        srand48(1);
        QStringList errors;
        graph = RenderGraph::create(description, PassRegistry::builtin(), {.keepOutputs = true}, &errors);
        EXPECT_TRUE(graph) << qPrintable(errors.join('\n'));
        std::vector<Pixels> images;
        QString error;
        while (graph && images.size() < 3 && graph->renderFrame(&error)) {
            images.push_back(readTexture(graph->image()));
        }
        EXPECT_EQ(images.size(), 3) << qPrintable(error);
        return images;
    }

    std::unique_ptr<RenderGraph> graph;
};

TEST_P(ExampleGraph, RendersTheSameImagesWhateverElseReadsItsTexturesAndReturnsThem)
{
    Folder folder;
    QString file = graphFolder + QString::fromStdString(GetParam()) + ".json";
    const QString name = QString::fromStdString(GetParam());
    if (name.startsWith("manual")) {
        folder.write("manual.json", manualGraphs().at(name.sliced(6).toInt()));
        file = folder.path("manual.json");
    }
    QStringList errors;
    std::optional<GraphDescription> description = loadGraph(file, &errors);
    ASSERT_TRUE(description) << qPrintable(errors.join('\n'));
    // The files of the manual's graph lie where those of the examples do.
    description->file = graphFolder + "example.json";
    description->viewport = {64, 36};
    const std::vector<Pixels> images = render(*description);
    ASSERT_EQ(images.size(), 3);
    const std::vector<QVector4D>& pixels = images[2].values;
    EXPECT_FALSE(std::equal(pixels.begin() + 1, pixels.end(), pixels.begin()))
        << "the whole image has one colour";

    EXPECT_TRUE(messages().information.filter(".json: ").isEmpty()) << "notices about the shaders";

    GraphDescription readGraph = *description;
    for (const RenderGraph::Output& output : graph->outputs()) {
        addReaders(readGraph, folder, output);
    }
    graph->releaseOutputs();
    // A temporal accumulation texture lives across frames.
    const auto isTemporal = [](const PassSetting& pass) { return pass.type == "TemporalAARenderPass"; };
    EXPECT_EQ(TextureManager::Instance()->numReferences(),
              std::count_if(description->passes.begin(), description->passes.end(), isTemporal));

    const std::vector<Pixels> readImages = render(readGraph);
    ASSERT_EQ(readImages.size(), 3);
    for (size_t frame = 0; frame < images.size(); ++frame) {
        EXPECT_TRUE(equal(readImages[frame], images[frame])) << "frame " << frame + 1;
    }
    graph.reset();
}

INSTANTIATE_TEST_SUITE_P(Every, ExampleGraph, testing::ValuesIn(graphNames()), [](const auto& instance) {
    return QString::fromStdString(instance.param).replace('-', '_').toStdString();
});

} // namespace
} // namespace Morvane::Qel::Test
