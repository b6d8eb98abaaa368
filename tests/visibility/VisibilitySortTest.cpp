// Sorting fragment lists that are made by hand.

#include <algorithm>
#include <array>
#include <bit>
#include <random>

#include <epoxy/gl.h>

#include "support/GLTest.h"
#include "support/Lists.h"
#include "support/Passes.h"
#include <Qel/RenderPasses/visibility/VisibilitySortRenderPass.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel::Test {
namespace {

using Pass = VisibilitySortRenderPass;

/// Fragments of these depths, distinguished by their primitives.
std::vector<Fragment> makeList(const std::vector<float>& depths)
{
    std::vector<Fragment> list;
    for (const float depth : depths) {
        const auto number = static_cast<unsigned int>(list.size());
        list.push_back({number + 1, depth, number % 3});
    }
    return list;
}

/// A column for each length; rows of rising, falling, random and few different depths.
Lists makeLists()
{
    std::minstd_rand random(7);
    const std::array lengths{0, 1, 2, 3, 17, 49, 50, 51, 60};
    Lists lists{static_cast<int>(lengths.size()), 4, {}};
    for (int order = 0; order < lists.height; ++order) {
        for (const int length : lengths) {
            std::vector<float> depths;
            for (int i = 0; i < length; ++i) {
                const std::array all{i, length - i, static_cast<int>(random() % 60),
                                     static_cast<int>(random() % 3)};
                depths.push_back(static_cast<float>(all[static_cast<size_t>(order)]) / 64.0F);
            }
            lists.pixels.push_back(makeList(depths));
        }
    }
    return lists;
}

void sort(Runner<Pass>& pass, const ListTextures& lists)
{
    pass.run({QRect(QPoint(0, 0), lists.headPointers->size()), lists.headPointers, lists.nodes,
              lists.nodeBufferWidth});
}

Lists read(const ListTextures& lists)
{
    return readLists(lists.headPointers.get(), lists.nodes.get(), lists.nodeBufferWidth);
}

/// The next pointers of all nodes.
std::vector<unsigned int> links(const std::vector<unsigned int>& nodes)
{
    std::vector<unsigned int> result;
    for (size_t i = 0; i < nodes.size(); i += 4) {
        result.push_back(nodes[i]);
    }
    return result;
}

using VisibilitySortTest = GLTest;

TEST_F(VisibilitySortTest, SortsTheFirstFiftyOfEveryListAndKeepsTheLinks)
{
    const Lists before = makeLists();
    const ListTextures textures = makeListTextures(before);
    const std::vector<unsigned int> nodesBefore = readIntegers(textures.nodes.get());
    Runner<Pass> pass;
    // Whatever sampled the head pointers before.
    textures.headPointers->setFilter(GL_LINEAR, GL_LINEAR);
    sort(pass, textures);
    const Lists after = read(textures);
    for (size_t i = 0; i < before.pixels.size(); ++i) {
        const std::vector<Fragment>& original = before.pixels[i];
        const std::vector<Fragment>& list = after.pixels[i];
        ASSERT_EQ(list.size(), original.size()) << i;
        if (!isFullMode()) {
            EXPECT_EQ(list, original);
            continue;
        }
        const auto end = list.begin() + static_cast<std::ptrdiff_t>(std::min<size_t>(list.size(), 50));
        EXPECT_TRUE(std::is_sorted(list.begin(), end, [](const Fragment& a, const Fragment& b) {
            return a.depth < b.depth;
        })) << i;
        // Whole fragments moved, and those after the first fifty did not.
        EXPECT_TRUE(std::is_permutation(list.begin(), end, original.begin())) << i;
        EXPECT_TRUE(std::equal(end, list.end(), original.begin() + (end - list.begin()))) << i;
    }
    EXPECT_EQ(links(readIntegers(textures.nodes.get())), links(nodesBefore));
    EXPECT_EQ(pass.texture(Pass::SortedHeadPointers), textures.headPointers.get());
    EXPECT_EQ(pass.texture(Pass::SortedNodeBuffer), textures.nodes.get());
    EXPECT_EQ(pass->output(Pass::SortedNodeBufferWidth).toInt(), textures.nodeBufferWidth);
}

TEST_F(VisibilitySortTest, EndsListsThatLeadOutOfTheBufferOrBackIntoThemselves)
{
    const ListTextures textures = makeListTextures(
        {3, 1, {makeList({0.9F, 0.2F, 0.5F}), makeList({0.8F, 0.3F}), makeList({0.7F, 0.1F})}});
    std::vector<unsigned int> nodes = readIntegers(textures.nodes.get());
    const auto indexOf = [&](float depth) {
        size_t i = 0;
        while (nodes[4 * i + 2] != std::bit_cast<unsigned int>(depth)) {
            ++i;
        }
        return i;
    };
    // Past the last row; the largest pointer there is; a cycle.
    nodes[4 * indexOf(0.5F)] = static_cast<unsigned int>(nodes.size() / 4) + 5;
    nodes[4 * indexOf(0.3F)] = ~0U;
    nodes[4 * indexOf(0.1F)] = static_cast<unsigned int>(indexOf(0.7F)) + 1;
    const QSize size = textures.nodes->size();
    textures.nodes->setImage2D(0, GL_RGBA32UI, size.width(), size.height(), GL_RGBA_INTEGER, GL_UNSIGNED_INT,
                               nodes.data());
    Runner<Pass> pass;
    sort(pass, textures);

    const std::vector<unsigned int> after = readIntegers(textures.nodes.get());
    EXPECT_EQ(links(after), links(nodes));
    if (isFullMode()) {
        // The primitives where these depths were: the first two lists are sorted as far as they go.
        for (const auto& [depth, primitive] : {std::pair(0.9F, 2U), std::pair(0.2F, 3U), std::pair(0.5F, 1U),
                                               std::pair(0.8F, 2U), std::pair(0.3F, 1U)}) {
            EXPECT_EQ(after[4 * indexOf(depth) + 1], primitive) << depth;
        }
    }
}

TEST_F(VisibilitySortTest, SortsTheListsOfTheViewportsPixels)
{
    const Lists unsorted{2, 1, {makeList({0.9F, 0.2F}), makeList({0.8F, 0.1F})}};
    for (const int width : {1, 3}) {
        const ListTextures textures = makeListTextures(unsorted);
        Runner<Pass> pass;
        pass.run({QRect(0, 0, width, 1), textures.headPointers, textures.nodes, textures.nodeBufferWidth});
        const Lists lists = read(textures);
        EXPECT_EQ(lists.at(0, 0)[0].depth, isFullMode() ? 0.2F : 0.9F);
        EXPECT_EQ(lists.at(1, 0)[0].depth, isFullMode() && width > 1 ? 0.1F : 0.8F);
    }
}

TEST_F(VisibilitySortTest, SortsWithTheCallersProgram)
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
    std::array<ListTextures, 3> textures;
    for (ListTextures& lists : textures) {
        lists = makeListTextures({1, 1, {makeList({0.9F, 0.2F})}});
    }
    Runner<Pass> pass;
    pass->setShaderProgram(&program);
    sort(pass, textures[0]);
    EXPECT_EQ(read(textures[0]).at(0, 0)[0].primitive, isFullMode() ? 77U : 1U);

    // Null selects the pass's own program, as often as it is set.
    for (const size_t i : {1U, 2U}) {
        pass->setShaderProgram(nullptr);
        sort(pass, textures[i]);
        EXPECT_EQ(read(textures[i]).at(0, 0)[0].depth, isFullMode() ? 0.2F : 0.9F);
    }
}

TEST_F(VisibilitySortTest, PassesReferencesOfPooledInputsOn)
{
    TextureManager* pool = TextureManager::Instance();
    Runner<Pass> pass;
    for (const int users : {0, 1, 2}) {
        Texture* heads = makePooledTexture(Pixels::filled(4, 4, {}), TextureFormat::RGBA8);
        pass.setNumUsers(users);
        pass.run({QRect(0, 0, 4, 4), heads, {}, 4});
        EXPECT_EQ(pool->numReferences(), users);
        EXPECT_EQ(pass.texture(), heads);
    }
}

TEST_F(VisibilitySortTest, LeavesTexturesOfOtherKindsAlone)
{
    const ListTextures lists = makeListTextures({1, 1, {makeList({0.9F, 0.2F})}});
    const Pixels colours = Pixels::noise(4, 4, 1);
    const auto image = makeTexture(colours, GL_RGBA32F);
    Runner<Pass> pass;
    pass.run({QRect(0, 0, 4, 4), lists.headPointers, image, 4});
    EXPECT_TRUE(equal(readTexture(image.get()), colours));
    pass.run({QRect(0, 0, 4, 4), image, lists.nodes, 4});
    EXPECT_EQ(read(lists).at(0, 0)[0].depth, 0.9F);
    if (isFullMode()) {
        expectMessage(u"head pointers must be a 2D texture of R32UI"_s);
    }
}

} // namespace
} // namespace Morvane::Qel::Test
