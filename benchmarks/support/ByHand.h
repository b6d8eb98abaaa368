#pragma once

#include <string>
#include <vector>

namespace Morvane::Qel::Bench {

/// A program in plain GL; attribute i and fragment output i get the location i. Sources that do not build end
/// the benchmarks.
unsigned int linkProgram(const std::string& vertexSource, const std::string& fragmentSource,
                         const std::vector<const char*>& attributes = {},
                         const std::vector<const char*>& outputs = {});

} // namespace Morvane::Qel::Bench
