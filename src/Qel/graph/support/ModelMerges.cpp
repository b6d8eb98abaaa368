#include <Qel/graph/support/ModelMerges.h>

#include <QHash>

#include <algorithm>

namespace Morvane::Qel {

ModelMerges::ModelMerges(const std::vector<ModelDescription>& models)
    : parts(models.size())
    , isPart(models.size())
{
    QHash<QString, size_t> indices;
    for (size_t i = models.size(); i-- > 0;) {
        indices.insert(models[i].name, i);
    }
    std::vector<std::vector<size_t>> wholes(models.size());
    std::vector<size_t> numMissing(models.size());
    for (size_t i = 0; i < models.size(); ++i) {
        for (const QString& name : models[i].merge) {
            const auto part = indices.constFind(name);
            if (part != indices.constEnd()) {
                parts[i].push_back(*part);
                wholes[*part].push_back(i);
                isPart[*part] = true;
            }
        }
        numMissing[i] = parts[i].size();
        if (numMissing[i] == 0) {
            order.push_back(i);
        }
    }
    for (size_t done = 0; done < order.size(); ++done) {
        for (const size_t whole : wholes[order[done]]) {
            if (--numMissing[whole] == 0) {
                order.push_back(whole);
            }
        }
    }
}

std::vector<size_t> ModelMerges::cycle() const
{
    std::vector<bool> isOrdered(parts.size());
    for (const size_t index : order) {
        isOrdered[index] = true;
    }
    const auto start = std::find(isOrdered.begin(), isOrdered.end(), false);
    if (start == isOrdered.end()) {
        return {};
    }
    // Every model that is not ordered has a part that is not, so that this walk returns to a visited model.
    std::vector<size_t> path{static_cast<size_t>(start - isOrdered.begin())};
    std::vector<bool> isVisited(parts.size());
    while (!isVisited[path.back()]) {
        isVisited[path.back()] = true;
        const std::vector<size_t>& next = parts[path.back()];
        path.push_back(
            *std::find_if(next.begin(), next.end(), [&](size_t part) { return !isOrdered[part]; }));
    }
    path.erase(path.begin(), std::find(path.begin(), path.end(), path.back()));
    return path;
}

int ModelMerges::onlyWhole() const
{
    const auto first = std::find(isPart.begin(), isPart.end(), false);
    return first != isPart.end() && std::find(first + 1, isPart.end(), false) == isPart.end()
               ? static_cast<int>(first - isPart.begin())
               : -1;
}

} // namespace Morvane::Qel
