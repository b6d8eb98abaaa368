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

/// Reads rows of an integer texture when they are first asked for: node buffers are mostly empty.
template<class Texel>
class RowReader
{
public:
    RowReader(Texture* texture, unsigned int format)
        : m_width(texture->size().width())
        , m_format(format)
    {
        m_framebuffer.attach(texture, GL_COLOR_ATTACHMENT0, 0);
    }

    const Texel& at(int x, int y)
    {
        std::vector<Texel>& row = m_rows[y];
        if (row.empty()) {
            row.resize(static_cast<size_t>(m_width));
            const AutoBinder binder(&m_framebuffer);
            m_framebuffer.setDrawBuffers();
            glReadPixels(0, y, m_width, 1, m_format, GL_UNSIGNED_INT, row.data());
        }
        return row[static_cast<size_t>(x)];
    }

private:
    FramebufferObject m_framebuffer;
    int m_width;
    unsigned int m_format;
    std::map<int, std::vector<Texel>> m_rows;
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
    if (hasGLExtension("ARB_shader_image_load_store")) {
        glMemoryBarrier(GL_ALL_BARRIER_BITS);
    }
    constexpr size_t mostFragments = 1000;
    RowReader<unsigned int> headRows(headPointers, GL_RED_INTEGER);
    RowReader<Node> nodeRows(nodes, GL_RGBA_INTEGER);
    Lists lists{headPointers->size().width(), numRows < 0 ? headPointers->size().height() : numRows, {}};
    for (int y = 0; y < lists.height; ++y) {
        for (int x = 0; x < lists.width; ++x) {
            std::vector<Fragment>& list = lists.pixels.emplace_back();
            unsigned int pointer = headRows.at(x, y);
            while (pointer != 0 && list.size() < mostFragments) {
                const auto width = static_cast<unsigned int>(nodeBufferWidth);
                const auto column = static_cast<int>((pointer - 1) % width);
                const auto row = static_cast<int>((pointer - 1) / width);
                if (column >= nodes->size().width() || row >= nodes->size().height()) {
                    break;
                }
                const Node& node = nodeRows.at(column, row);
                list.push_back({node[1], std::bit_cast<float>(node[2]), node[3]});
                pointer = node[0];
            }
            EXPECT_LT(list.size(), mostFragments) << "at " << x << ", " << y;
        }
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
