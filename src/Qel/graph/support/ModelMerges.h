#pragma once

#include <vector>

#include <Qel/graph/GraphDescription.h>

namespace Morvane::Qel {

/// How the models of a graph are merged into each other. Parts that do not exist are left out.
struct ModelMerges
{
    explicit ModelMerges(const std::vector<ModelDescription>& models);

    /// Indices of the parts of each model; empty for a file.
    std::vector<std::vector<size_t>> parts;
    /// Whether each model is a part of another.
    std::vector<bool> isPart;
    /// Indices of the models, each after its parts. Models on a cycle, or that have one as a part, are
    /// missing.
    std::vector<size_t> order;

    /// The models on a cycle, the first repeated at the end; empty if there is none.
    std::vector<size_t> cycle() const;
    /// The only model that is no part of another; -1 if there are several or none.
    int onlyWhole() const;
};

} // namespace Morvane::Qel
