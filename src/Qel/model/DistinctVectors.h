#pragma once

#include <algorithm>
#include <array>
#include <bit>
#include <cstdint>
#include <limits>
#include <vector>

namespace Morvane::Qel {

/// Numbers vectors of `n` floats in the order of their first appearance; equal ones have the same number. A
/// hash table whose slots hold numbers only, because models have millions of vertices.
template<size_t n>
class DistinctVectors
{
public:
    /// Returns the number of a vector.
    unsigned int add(const std::array<float, n>& vector)
    {
        Bits bits;
        // The sum turns -0 into 0, which it equals.
        std::transform(vector.begin(), vector.end(), bits.begin(),
                       [](float value) { return std::bit_cast<uint32_t>(value + 0.0F); });
        if (m_vectors.size() >= m_slots.size() / 2) {
            grow();
        }
        unsigned int& slot = m_slots[slotOf(bits)];
        if (slot == empty) {
            slot = size();
            m_vectors.push_back(bits);
        }
        return slot;
    }

    unsigned int size() const { return static_cast<unsigned int>(m_vectors.size()); }

private:
    /// Compared instead of the floats, so that NaN is equal to itself.
    using Bits = std::array<uint32_t, n>;
    static constexpr unsigned int empty = std::numeric_limits<unsigned int>::max();

    /// The slot that holds the vector or, if there is none, belongs to it.
    size_t slotOf(const Bits& vector) const
    {
        uint64_t hash = 0;
        for (const uint32_t bits : vector) {
            // The factor is 2^64 divided by the golden ratio.
            hash = (hash ^ bits) * 0x9e3779b97f4a7c15ULL;
            hash ^= hash >> 32;
        }
        size_t place = hash & (m_slots.size() - 1);
        while (m_slots[place] != empty && m_vectors[m_slots[place]] != vector) {
            place = (place + 1) & (m_slots.size() - 1);
        }
        return place;
    }

    void grow()
    {
        constexpr size_t smallest = 64;
        // Always a power of two.
        m_slots.assign(std::max(2 * m_slots.size(), smallest), empty);
        for (unsigned int i = 0; i < size(); ++i) {
            m_slots[slotOf(m_vectors[i])] = i;
        }
    }

    std::vector<Bits> m_vectors;
    std::vector<unsigned int> m_slots;
};

} // namespace Morvane::Qel
