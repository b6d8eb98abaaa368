// Sorting lists of fragments that are made by hand.

#include <QRect>

#include <algorithm>
#include <array>
#include <bit>
#include <functional>
#include <random>

#include <epoxy/gl.h>

#include "support/GLTest.h"
#include "support/Lists.h"
#include "support/Passes.h"
#include <Qel/RenderPasses/visibility/VisibilitySortRenderPass.h>
#include <Qel/gl/Guards.h>
#include <Qel/gl/Texture.h>
#include <Qel/gl/TextureManager.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel::Test {
namespace {

using Pass = VisibilitySortRenderPass;
using Node = std::array<unsigned int, 4>;

/// Fragments of these depths, told apart by their primitives.
std::vector<Fragment> makeList(const std::vector<float>& depths)
{
    std::vector<Fragment> list;
    for (const float depth : depths) {
        const auto number = static_cast<unsigned int>(list.size());
        list.push_back({number + 1, depth, number % 3});
    }
    return list;
}

/// A column for each length, a row for each order of depths.
Lists makeLists()
{
    constexpr std::array lengths{0, 1, 2, 3, 17, 49, 50, 51, 60};
    std::minstd_rand random(7);
    const auto number = [](int i) { return static_cast<float>(i); };
    const std::vector<std::function<float(int, int)>> orders{
        [&](int i, int n) { return number(i) / number(n); },
        [&](int i, int n) { return number(n - i) / number(n); },
        [&](int, int) { return number(static_cast<int>(random() % 10000)) / 10000.0F; },
        [&](int, int) { return 0.5F; },
        // Few different ones.
        [&](int, int) { return number(static_cast<int>(random() % 3)) / 4.0F; },
        // Largest in the middle.
        [&](int i, int n) { return number(std::min(i, n - i)) / number(n); },
        // The first is in the middle, the others alternate around it.
        [&](int i, int n) { return 0.5F + (i % 2 == 0 ? 0.4F : -0.4F) * number(i) / number(n); },
        // The last belongs to the front.
        [&](int i, int n) { return i == n - 1 ? 0.0F : 0.1F + 0.8F * number(i) / number(n); },
    };
    Lists lists{static_cast<int>(lengths.size()), static_cast<int>(orders.size()), {}};
    for (const auto& depthOf : orders) {
        for (const int length : lengths) {
            std::vector<float> depths;
            depths.reserve(static_cast<size_t>(length));
            for (int i = 0; i < length; ++i) {
                depths.push_back(depthOf(i, length));
            }
            lists.pixels.push_back(makeList(depths));
        }
    }
    return lists;
}

std::vector<QVariant> inputs(const ListTextures& textures)
{
    return {QRect(QPoint(0, 0), textures.headPointers->size()), textureInput(textures.headPointers.get()),
            textureInput(textures.nodes.get()), textures.nodeBufferWidth};
}

Lists read(const ListTextures& textures)
{
    return readLists(textures.headPointers.get(), textures.nodes.get(), textures.nodeBufferWidth);
}

std::vector<Node> readNodes(Texture* nodes)
{
    if (isFullMode()) {
        glMemoryBarrier(GL_ALL_BARRIER_BITS);
    }
    std::vector<Node> texels(static_cast<size_t>(nodes->size().width()) *
                             static_cast<size_t>(nodes->size().height()));
    const AutoBinder binder(nodes);
    glGetTexImage(GL_TEXTURE_2D, 0, GL_RGBA_INTEGER, GL_UNSIGNED_INT, texels.data());
    return texels;
}

void writeNodes(Texture* nodes, const std::vector<Node>& texels)
{
    const AutoBinder binder(nodes);
    glTexSubImage2D(GL_TEXTURE_2D, 0, 0, 0, nodes->size().width(), nodes->size().height(), GL_RGBA_INTEGER,
                    GL_UNSIGNED_INT, texels.data());
}

class VisibilitySortTest : public GLTest
{
};

TEST_F(VisibilitySortTest, SortsTheFirstFiftyOfEveryListAndKeepsTheLinks)
{
    const Lists before = makeLists();
    const ListTextures textures = makeListTextures(before);
    const std::vector<Node> nodesBefore = readNodes(textures.nodes.get());
    Pass pass;
    runFrame(pass, inputs(textures));
    const Lists after = read(textures);
    for (size_t i = 0; i < before.pixels.size(); ++i) {
        const std::vector<Fragment>& original = before.pixels[i];
        const std::vector<Fragment>& list = after.pixels[i];
        ASSERT_EQ(list.size(), original.size()) << i;
        if (!isFullMode()) {
            EXPECT_EQ(list, original);
            continue;
        }
        const auto numSorted = static_cast<std::ptrdiff_t>(std::min<size_t>(original.size(), 50));
        EXPECT_TRUE(std::is_sorted(list.begin(), list.begin() + numSorted,
                                   [](const Fragment& a, const Fragment& b) { return a.depth < b.depth; }))
            << "list " << i;
        // The same fragments, whole, and those behind the first fifty untouched.
        EXPECT_TRUE(std::is_permutation(list.begin(), list.begin() + numSorted, original.begin()))
            << "list " << i;
        EXPECT_TRUE(std::equal(list.begin() + numSorted, list.end(), original.begin() + numSorted))
            << "list " << i;
    }
    const std::vector<Node> nodesAfter = readNodes(textures.nodes.get());
    EXPECT_TRUE(std::equal(nodesBefore.begin(), nodesBefore.end(), nodesAfter.begin(),
                           [](const Node& a, const Node& b) { return a[0] == b[0]; }))
        << "links";

    EXPECT_EQ(outputTexture(pass, 0), textures.headPointers.get());
    EXPECT_EQ(outputTexture(pass, 1), textures.nodes.get());
    EXPECT_EQ(pass.output(2).toInt(), textures.nodeBufferWidth);

    // What is sorted stays: every depth in its place, also where equal ones change theirs.
    runFrame(pass, inputs(textures));
    const Lists again = read(textures);
    for (size_t i = 0; i < after.pixels.size(); ++i) {
        EXPECT_TRUE(std::equal(after.pixels[i].begin(), after.pixels[i].end(), again.pixels[i].begin(),
                               [](const Fragment& a, const Fragment& b) { return a.depth == b.depth; }));
    }
}

TEST_F(VisibilitySortTest, EndsListsThatLeadOutOfTheBufferOrBackIntoThemselves)
{
    Lists lists{3, 1, {makeList({0.9F, 0.2F, 0.5F}), makeList({0.8F, 0.3F}), makeList({0.7F, 0.1F})}};
    const ListTextures textures = makeListTextures(lists);
    std::vector<Node> nodes = readNodes(textures.nodes.get());
    const auto end = [&](unsigned int primitive, float depth) {
        return std::find_if(nodes.begin(), nodes.end(), [&](const Node& node) {
            return node[1] == primitive && node[2] == std::bit_cast<unsigned int>(depth);
        });
    };
    // Behind the last row; at the very end of what a pointer can name; in a circle.
    (*end(3, 0.5F))[0] = static_cast<unsigned int>(nodes.size()) + 5;
    (*end(2, 0.3F))[0] = ~0U;
    const auto last = end(2, 0.1F);
    const auto first = end(1, 0.7F);
    (*last)[0] = static_cast<unsigned int>(std::distance(nodes.begin(), first)) + 1;
    writeNodes(textures.nodes.get(), nodes);
    Pass pass;
    runFrame(pass, inputs(textures));

    const std::vector<Node> after = readNodes(textures.nodes.get());
    EXPECT_TRUE(std::equal(nodes.begin(), nodes.end(), after.begin(),
                           [](const Node& a, const Node& b) { return a[0] == b[0]; }));
    if (isFullMode()) {
        // The first two as if they ended; of a circle only that it does.
        EXPECT_EQ(after[static_cast<size_t>(std::distance(nodes.begin(), end(1, 0.9F)))][1], 2U);
        EXPECT_EQ(after[static_cast<size_t>(std::distance(nodes.begin(), end(2, 0.2F)))][1], 3U);
        EXPECT_EQ(after[static_cast<size_t>(std::distance(nodes.begin(), end(3, 0.5F)))][1], 1U);
        EXPECT_EQ(after[static_cast<size_t>(std::distance(nodes.begin(), end(1, 0.8F)))][1], 2U);
        EXPECT_EQ(after[static_cast<size_t>(std::distance(nodes.begin(), end(2, 0.3F)))][1], 1U);
    }
}

TEST_F(VisibilitySortTest, SortsWithAProgramFromOutside)
{
    // Marks the first node of every list.
    ShaderProgram program;
    program.addShader(GL_VERTEX_SHADER, uR"(#version 150
in vec3 va_Vertex;
void main() { gl_Position = vec4(va_Vertex, 1.0); })"_s,
                      {});
    program.addShader(GL_FRAGMENT_SHADER, uR"(#version 150
#extension GL_ARB_shader_image_load_store : enable
#extension GL_ARB_shading_language_420pack : enable
uniform usampler2D u_SamplerHeadPointer;
layout(rgba32ui) writeonly uniform uimage2D u_NodeBufferImage;
uniform int u_NodeBufferImageWidth;
void main()
{
    uint pointer = texelFetch(u_SamplerHeadPointer, ivec2(gl_FragCoord.xy), 0).r;
    int node = int(pointer) - 1;
    imageStore(u_NodeBufferImage, ivec2(node % u_NodeBufferImageWidth, node / u_NodeBufferImageWidth),
               uvec4(0u, 77u, 0u, 0u));
})"_s,
                      {});
    const ListTextures textures = makeListTextures({1, 1, {makeList({0.9F, 0.2F})}});
    Pass pass;
    pass.setShaderProgram(&program);
    runFrame(pass, inputs(textures));
    EXPECT_EQ(read(textures).at(0, 0)[0].primitive, isFullMode() ? 77U : 1U);

    // Without it, the pass's own sorts again.
    const ListTextures others = makeListTextures({1, 1, {makeList({0.9F, 0.2F})}});
    pass.setShaderProgram(nullptr);
    runFrame(pass, inputs(others));
    EXPECT_EQ(read(others).at(0, 0)[0].depth, isFullMode() ? 0.2F : 0.9F);
}

TEST_F(VisibilitySortTest, HandsReferencesOfPooledInputsOn)
{
    TextureManager* pool = TextureManager::Instance();
    Texture* heads = pool->tempTexture(TextureFormat::RGBA8, 4, 4);
    Pass pass;
    runFrame(pass, {QRect(0, 0, 4, 4), textureInput(heads), QVariant(), 4});
    EXPECT_EQ(pool->numReferences(), 1) << "that of the output's user";
    EXPECT_EQ(outputTexture(pass), heads);
    pool->releaseTempTextureRef(heads, 1);
}

TEST_F(VisibilitySortTest, LeavesTexturesOfOtherKindsAlone)
{
    const Pixels colours =
        Pixels::generate(4, 4, [](int x, int y) { return QVector4D(float(x), float(y), 1.0F, 0.0F) / 4.0F; });
    const ListTextures lists = makeListTextures({1, 1, {makeList({0.9F, 0.2F})}});
    Texture picture;
    picture.setImage2D(0, GL_RGBA16F, 4, 4, GL_RGBA, GL_FLOAT, colours.values.data());
    Pass pass;
    runFrame(pass, {QRect(0, 0, 4, 4), textureInput(lists.headPointers.get()), textureInput(&picture), 4});
    EXPECT_TRUE(equal(readTexture(&picture), colours));
    runFrame(pass, {QRect(0, 0, 4, 4), textureInput(&picture), textureInput(lists.nodes.get()), 4});
    EXPECT_EQ(read(lists).at(0, 0)[0].depth, 0.9F);
    if (isFullMode()) {
        expectMessage(u"head pointers must be a 2D texture of R32UI"_s);
    }
}

} // namespace
} // namespace Morvane::Qel::Test
