#pragma once

#include <memory>
#include <vector>

#include "support/Pixels.h"

namespace Morvane::Qel {
class Texture;
}

namespace Morvane::Qel::Test {

/// Whether the context has what whole lists are built with; without it each pixel keeps its nearest fragment.
bool isFullMode();

/// A fragment as it stands in a pixel's list.
struct Fragment
{
    /// Number of the primitive plus one.
    unsigned int primitive = 0;
    float depth = 0.0F;
    unsigned int draw = 0;

    bool operator==(const Fragment& other) const = default;
};

/// The fragment lists of an image, bottom row first, each in the order of its links.
struct Lists
{
    int width = 0;
    int height = 0;
    std::vector<std::vector<Fragment>> pixels;

    std::vector<Fragment>& at(int x, int y) { return pixels[index(x, y)]; }
    const std::vector<Fragment>& at(int x, int y) const { return pixels[index(x, y)]; }
    size_t index(int x, int y) const
    {
        return static_cast<size_t>(y) * static_cast<size_t>(width) + static_cast<size_t>(x);
    }
    /// Returns each list by depth, draw and primitive, to compare lists without a particular order.
    Lists sorted() const;
    /// Returns the fragments as an image, a band of the lists' height for each layer: primitive, depth, draw
    /// and 1, or 0 where there is none.
    Pixels layers() const;
};

/// Reads lists back. A pointer to a node outside the node buffer ends its list; one of more than a thousand
/// fragments is a test failure. `numRows` limits reading to the first rows.
Lists readLists(Texture* headPointers, Texture* nodes, int nodeBufferWidth, int numRows = -1);

/// Fragment lists on the GPU, as passes read them; the nodes of a list are scattered over the buffer.
struct ListTextures
{
    std::unique_ptr<Texture> headPointers;
    std::unique_ptr<Texture> nodes;
    int nodeBufferWidth;
};
ListTextures makeListTextures(const Lists& lists);

} // namespace Morvane::Qel::Test
