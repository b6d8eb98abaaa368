#include "support/Lists.h"

#include <algorithm>
#include <array>
#include <bit>
#include <map>
#include <tuple>

#include <epoxy/gl.h>

#include <Qel/gl/FramebufferObject.h>
#include <Qel/gl/Guards.h>
#include <Qel/gl/OpenGLDeviceContext.h>
#include <Qel/gl/Texture.h>

namespace Morvane::Qel::Test {

bool isFullMode()
{
    return hasGLExtension("ARB_shader_atomic_counters") && hasGLExtension("ARB_shader_image_load_store") &&
           hasGLExtension("ARB_shading_language_420pack");
}

namespace {

using Node = std::array<unsigned int, 4>;

/// Reads rows of the node buffer when they are first asked for: it is mostly empty.
class NodeReader
{
public:
    explicit NodeReader(Texture* nodes)
        : m_size(nodes->size())
    {
        m_framebuffer.attach(nodes, GL_COLOR_ATTACHMENT0, 0);
    }

    /// The node at a place, null outside the buffer.
    const Node* at(unsigned int x, unsigned int y)
    {
        if (x >= static_cast<unsigned int>(m_size.width()) ||
            y >= static_cast<unsigned int>(m_size.height())) {
            return nullptr;
        }
        std::vector<Node>& row = m_rows[y];
        if (row.empty()) {
            row.resize(static_cast<size_t>(m_size.width()));
            const AutoBinder binder(&m_framebuffer);
            m_framebuffer.setDrawBuffers();
            glReadPixels(0, static_cast<int>(y), m_size.width(), 1, GL_RGBA_INTEGER, GL_UNSIGNED_INT,
                         row.data());
        }
        return &row[x];
    }

private:
    FramebufferObject m_framebuffer;
    QSize m_size;
    std::map<unsigned int, std::vector<Node>> m_rows;
};

bool isBefore(const Fragment& a, const Fragment& b)
{
    return std::tie(a.depth, a.draw, a.primitive) < std::tie(b.depth, b.draw, b.primitive);
}

} // namespace

Lists Lists::sorted() const
{
    Lists result = *this;
    for (std::vector<Fragment>& list : result.pixels) {
        std::sort(list.begin(), list.end(), isBefore);
    }
    return result;
}

Pixels Lists::layers() const
{
    size_t numLayers = 1;
    for (const std::vector<Fragment>& list : pixels) {
        numLayers = std::max(numLayers, list.size());
    }
    return Pixels::generate(width, height * static_cast<int>(numLayers), [&](int x, int y) {
        const auto layer = static_cast<size_t>(y / height);
        const std::vector<Fragment>& list = at(x, y % height);
        if (layer >= list.size()) {
            return QVector4D();
        }
        const Fragment& fragment = list[layer];
        return QVector4D(static_cast<float>(fragment.primitive), fragment.depth,
                         static_cast<float>(fragment.draw), 1.0F);
    });
}

Lists readLists(Texture* headPointers, Texture* nodes, int nodeBufferWidth, int numRows)
{
    constexpr size_t mostFragments = 1000;
    std::vector<unsigned int> heads = readIntegers(headPointers);
    const QSize size = headPointers->size();
    Lists lists{size.width(), numRows < 0 ? size.height() : numRows, {}};
    heads.resize(static_cast<size_t>(lists.width) * static_cast<size_t>(lists.height));
    NodeReader reader(nodes);
    const auto width = static_cast<unsigned int>(nodeBufferWidth);
    for (unsigned int pointer : heads) {
        std::vector<Fragment>& list = lists.pixels.emplace_back();
        while (pointer != 0 && list.size() < mostFragments) {
            const Node* node = reader.at((pointer - 1) % width, (pointer - 1) / width);
            if (!node) {
                break;
            }
            list.push_back({(*node)[1], std::bit_cast<float>((*node)[2]), (*node)[3]});
            pointer = (*node)[0];
        }
        EXPECT_LT(list.size(), mostFragments);
    }
    return lists;
}

ListTextures makeListTextures(const Lists& lists)
{
    constexpr int width = 64;
    std::vector<unsigned int> heads(lists.pixels.size());
    std::vector<Node> nodes;
    // One node of every list in turn, from the end of the lists on, so that those of a list are far apart.
    size_t longest = 0;
    for (const std::vector<Fragment>& list : lists.pixels) {
        longest = std::max(longest, list.size());
    }
    for (size_t rank = longest; rank-- > 0;) {
        for (size_t pixel = 0; pixel < heads.size(); ++pixel) {
            if (rank < lists.pixels[pixel].size()) {
                const Fragment& fragment = lists.pixels[pixel][rank];
                nodes.push_back({heads[pixel], fragment.primitive,
                                 std::bit_cast<unsigned int>(fragment.depth), fragment.draw});
                heads[pixel] = static_cast<unsigned int>(nodes.size());
            }
        }
    }
    const int height = std::max(1, (static_cast<int>(nodes.size()) + width - 1) / width);
    nodes.resize(static_cast<size_t>(width) * static_cast<size_t>(height));
    std::vector<unsigned int> components;
    for (const Node& node : nodes) {
        components.insert(components.end(), node.begin(), node.end());
    }
    return {makeIntegerTexture(lists.width, lists.height, GL_R32UI, heads),
            makeIntegerTexture(width, height, GL_RGBA32UI, components), width};
}

} // namespace Morvane::Qel::Test
