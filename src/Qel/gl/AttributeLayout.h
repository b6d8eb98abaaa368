#pragma once

#include <QString>

#include <array>
#include <memory>
#include <vector>

namespace Morvane::Qel {

/// An attribute that a linked program reads from arrays. Private to this library.
struct VertexAttribute
{
    QString name;
    int location;
    /// The number of consecutive locations: one for a vector, one per column for a matrix, those of all
    /// elements for an array.
    int numLocations = 1;
    /// Whether the shader declares an integer type.
    bool isInteger = false;

    bool operator==(const VertexAttribute&) const = default;
};

/// The locations of a program's vertex attributes, which a vertex array has to match. Private to this
/// library.
struct AttributeLayout
{
    /// The attributes of the library's batches, bound to locations 0, 1 and 2 unless a shader sets locations
    /// itself. The linker places all others.
    static constexpr std::array standardNames{"va_Vertex", "va_Normal", "va_TexCoord"};

    std::vector<VertexAttribute> attributes;

    /// The layout of the standard names. It is one object for all programs that read no other attributes and
    /// have none elsewhere.
    static const std::shared_ptr<const AttributeLayout>& standard();
    /// The layout of these attributes: the standard one if that has them all.
    static std::shared_ptr<const AttributeLayout> of(const std::vector<VertexAttribute>& attributes);
};

/// The attributes of a linked program.
std::vector<VertexAttribute> activeAttributes(unsigned int program);

} // namespace Morvane::Qel
