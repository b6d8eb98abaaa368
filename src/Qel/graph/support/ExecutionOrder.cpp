#include <Qel/graph/support/ExecutionOrder.h>

#include <algorithm>
#include <functional>
#include <set>

#include <Qel/graph/support/GraphErrors.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

int numPasses(const GraphPlan& plan)
{
    return static_cast<int>(plan.passes.size());
}

const PlannedPass& passOf(const GraphPlan& plan, int index)
{
    return plan.passes[static_cast<size_t>(index)];
}

/// Indices of the passes that a pass reads from, one for each connection.
std::vector<int> sourcesOf(const PlannedPass& pass)
{
    std::vector<int> sources;
    for (const PlannedInput& input : pass.inputs) {
        if (input.source == InputSource::Connection) {
            sources.push_back(input.pass);
        }
    }
    return sources;
}

} // namespace

void reportCycles(const GraphPlan& plan, GraphErrors& errors)
{
    enum class Visit
    {
        NotStarted,
        OnPath,
        Done
    };
    std::vector<Visit> visits(plan.passes.size(), Visit::NotStarted);
    // Each pass on it reads from the next.
    std::vector<int> path;
    std::set<QStringList> reported;
    const auto report = [&](std::vector<int> members) {
        std::rotate(members.begin(), std::min_element(members.begin(), members.end()), members.end());
        QStringList names{passOf(plan, members.front()).name};
        for (auto member = members.rbegin(); member != members.rend(); ++member) {
            names.append(passOf(plan, *member).name);
        }
        // Two connections between the same passes close the same cycle.
        if (reported.insert(names).second) {
            errors.add(names.front(), u"cyclic dependency: %1"_s.arg(names.join(u" -> "_s)));
        }
    };
    const std::function<void(int)> visit = [&](int index) {
        visits[static_cast<size_t>(index)] = Visit::OnPath;
        path.push_back(index);
        for (const int source : sourcesOf(passOf(plan, index))) {
            const Visit state = visits[static_cast<size_t>(source)];
            if (state == Visit::NotStarted) {
                visit(source);
            } else if (state == Visit::OnPath) {
                report({std::find(path.begin(), path.end(), source), path.end()});
            }
        }
        path.pop_back();
        visits[static_cast<size_t>(index)] = Visit::Done;
    };
    for (int i = 0; i < numPasses(plan); ++i) {
        if (visits[static_cast<size_t>(i)] == Visit::NotStarted) {
            visit(i);
        }
    }
}

void cullUnusedPasses(GraphPlan& plan)
{
    std::vector<bool> needed(plan.passes.size());
    const std::function<void(int)> need = [&](int index) {
        if (!needed[static_cast<size_t>(index)]) {
            needed[static_cast<size_t>(index)] = true;
            for (const int source : sourcesOf(passOf(plan, index))) {
                need(source);
            }
        }
    };
    std::vector<QStringList> readers(plan.passes.size());
    for (int i = 0; i < numPasses(plan); ++i) {
        const PlannedPass& pass = passOf(plan, i);
        if (i == plan.outputPass || pass.outputs.isEmpty()) {
            need(i);
        }
        for (const int source : sourcesOf(pass)) {
            QStringList& names = readers[static_cast<size_t>(source)];
            if (!names.contains(pass.name)) {
                names.append(pass.name);
            }
        }
    }
    for (size_t i = 0; i < plan.passes.size(); ++i) {
        if (!needed[i]) {
            plan.passes[i].cullReason =
                readers[i].isEmpty()
                    ? u"nothing reads its outputs"_s
                    : u"only culled passes read its outputs: %1"_s.arg(readers[i].join(u", "_s));
        }
    }
}

void orderPasses(GraphPlan& plan)
{
    std::vector<bool> done(plan.passes.size());
    const auto isReady = [&](int index) {
        const std::vector<int> sources = sourcesOf(passOf(plan, index));
        return !done[static_cast<size_t>(index)] && passOf(plan, index).cullReason.isEmpty() &&
               std::all_of(sources.begin(), sources.end(),
                           [&](int source) { return done[static_cast<size_t>(source)]; });
    };
    // Always the first pass of the file whose sources are done.
    for (int i = 0; i < numPasses(plan);) {
        if (isReady(i)) {
            done[static_cast<size_t>(i)] = true;
            plan.order.push_back(i);
            i = 0;
        } else {
            ++i;
        }
    }
}

} // namespace Morvane::Qel
