#include <Qel/graph/support/ExecutionOrder.h>

#include <QHash>
#include <QSet>

#include <algorithm>
#include <functional>
#include <queue>
#include <utility>

#include <Qel/core/PassDescription.h>
#include <Qel/core/Text.h>
#include <Qel/graph/support/GraphErrors.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

/// A pass that must run before another one.
struct Dependency
{
    int pass;
    /// The input that the other one modifies in place and that this pass only reads; null if the other one
    /// reads from this pass.
    const PlannedInput* modified = nullptr;
};

/// The dependencies of each pass, no pass twice.
using Dependencies = std::vector<std::vector<Dependency>>;

/// An output, by the index of its pass and its own.
using Output = std::pair<int, int>;

int numPasses(const GraphPlan& plan)
{
    return static_cast<int>(plan.passes.size());
}

const PlannedPass& passOf(const GraphPlan& plan, int index)
{
    return plan.passes[static_cast<size_t>(index)];
}

bool isConnected(const PlannedInput& input)
{
    return input.source == InputSource::Connection;
}

/// "@pass.Port", the output that a connected input reads.
QString referenceOf(const GraphPlan& plan, const PlannedInput& input)
{
    const PlannedPass& source = passOf(plan, input.pass);
    return u"@%1.%2"_s.arg(source.name, PortName::parse(source.outputs[input.output]).name);
}

/// Some of the names of a list, which may be long.
QString someOf(const QStringList& names, const QString& separator)
{
    constexpr qsizetype few = 8;
    if (names.size() <= few) {
        return names.join(separator);
    }
    const QStringList ends{names.first(few / 2).join(separator),
                           u"(%1 more)"_s.arg(grouped(names.size() - few)),
                           names.last(few / 2).join(separator)};
    return ends.join(separator);
}

/// Calls `visit` for the connected inputs that passes modify in place, with the index of the pass.
void forEachModified(const GraphPlan& plan, const std::function<void(int, const PlannedInput&)>& visit)
{
    for (int i = 0; i < numPasses(plan); ++i) {
        for (const PlannedInput& input : passOf(plan, i).inputs) {
            if (input.isModified && isConnected(input) && passOf(plan, i).cullReason.isEmpty()) {
                visit(i, input);
            }
        }
    }
}

Dependencies dependenciesOf(const GraphPlan& plan)
{
    Dependencies dependencies(plan.passes.size());
    // The latest pass that depends on each pass.
    std::vector<int> users(plan.passes.size(), -1);
    QHash<Output, std::pair<int, const PlannedInput*>> modified;
    forEachModified(plan, [&](int pass, const PlannedInput& input) {
        modified.insert({input.pass, input.output}, {pass, &input});
    });
    // By the pass that modifies what they read.
    std::vector<std::pair<int, Dependency>> readers;
    for (int i = 0; i < numPasses(plan); ++i) {
        for (const PlannedInput& input : passOf(plan, i).inputs) {
            if (!isConnected(input)) {
                continue;
            }
            if (std::exchange(users[static_cast<size_t>(input.pass)], i) != i) {
                dependencies[static_cast<size_t>(i)].push_back({input.pass});
            }
            const auto found = modified.constFind({input.pass, input.output});
            if (found != modified.constEnd() && found->first != i && passOf(plan, i).cullReason.isEmpty()) {
                readers.push_back({found->first, {i, found->second}});
            }
        }
    }
    for (const auto& [pass, reader] : readers) {
        std::vector<Dependency>& own = dependencies[static_cast<size_t>(pass)];
        const std::vector<PlannedInput>& inputs = passOf(plan, pass).inputs;
        const bool isSource = std::any_of(inputs.begin(), inputs.end(), [&](const PlannedInput& input) {
            return isConnected(input) && input.pass == reader.pass;
        });
        if (!isSource && own.back().pass != reader.pass) {
            own.push_back(reader);
        }
    }
    return dependencies;
}

void reportSharedModifications(const GraphPlan& plan, GraphErrors& errors)
{
    QHash<Output, int> modifiers;
    forEachModified(plan, [&](int pass, const PlannedInput& input) {
        const Output output(input.pass, input.output);
        if (!modifiers.contains(output)) {
            modifiers.insert(output, pass);
            return;
        }
        errors.add(
            u"%1.%2"_s.arg(passOf(plan, pass).name, PortName::parse(input.port).name),
            u"\"%1\" is already modified in place by \"%2\"; connect the output of that pass instead"_s.arg(
                referenceOf(plan, input), passOf(plan, modifiers.value(output)).name));
    });
}

/// Finds cycles by a depth-first search over the dependencies.
class CycleSearch
{
public:
    CycleSearch(const GraphPlan& plan, GraphErrors& errors)
        : m_plan(plan)
        , m_errors(errors)
        , m_dependencies(dependenciesOf(plan))
        , m_positions(plan.passes.size(), notVisited)
    {
    }

    void visitAll()
    {
        for (int i = 0; i < numPasses(m_plan); ++i) {
            if (position(i) == notVisited) {
                visit(i);
            }
        }
    }

private:
    static constexpr int notVisited = -1;
    static constexpr int done = -2;

    /// A pass on the path, which depends on the next one.
    struct Step
    {
        int pass;
        /// Number of dependencies taken so far.
        size_t numTaken;
    };

    int& position(int pass) { return m_positions[static_cast<size_t>(pass)]; }

    const Dependency& taken(const Step& step) const
    {
        return m_dependencies[static_cast<size_t>(step.pass)][step.numTaken - 1];
    }

    void enter(int pass)
    {
        position(pass) = static_cast<int>(m_path.size());
        m_path.push_back({pass, 0});
    }

    void visit(int first)
    {
        enter(first);
        while (!m_path.empty()) {
            Step& step = m_path.back();
            if (step.numTaken == m_dependencies[static_cast<size_t>(step.pass)].size()) {
                position(step.pass) = done;
                m_path.pop_back();
                continue;
            }
            ++step.numTaken;
            const int next = taken(step).pass;
            if (position(next) == notVisited) {
                enter(next);
            } else if (position(next) != done) {
                if (m_errors.isFull()) {
                    m_errors.addUnkept(1);
                } else {
                    report({m_path.begin() + position(next), m_path.end()});
                }
            }
        }
    }

    void report(std::vector<Step> members)
    {
        const auto first =
            std::min_element(members.begin(), members.end(),
                             [](const Step& left, const Step& right) { return left.pass < right.pass; });
        std::rotate(members.begin(), first, members.end());
        QStringList names{nameOf(members.front().pass)};
        for (auto member = members.rbegin(); member != members.rend(); ++member) {
            names.append(nameOf(member->pass));
        }
        const auto modifying = std::find_if(members.begin(), members.end(), [&](const Step& member) {
            return taken(member).modified != nullptr;
        });
        QString reason;
        if (modifying != members.end()) {
            const Dependency& reader = taken(*modifying);
            if (m_readersOnCycles.contains({modifying->pass, reader.pass})) {
                return;
            }
            m_readersOnCycles.insert({modifying->pass, reader.pass});
            reason = u"; \"%1\" modifies \"%2\" in place, so \"%3\", which reads it, must run before"_s.arg(
                nameOf(modifying->pass), referenceOf(m_plan, *reader.modified), nameOf(reader.pass));
        }
        m_errors.add(names.front(), u"cyclic dependency: %1%2"_s.arg(someOf(names, u" -> "_s), reason));
    }

    const QString& nameOf(int pass) const { return passOf(m_plan, pass).name; }

    const GraphPlan& m_plan;
    GraphErrors& m_errors;
    Dependencies m_dependencies;
    /// Index into m_path by pass, or one of the constants.
    std::vector<int> m_positions;
    std::vector<Step> m_path;
    /// Passes that modify a texture, each with a reader for which a cycle was reported.
    QSet<std::pair<int, int>> m_readersOnCycles;
};

} // namespace

void cullUnusedPasses(GraphPlan& plan)
{
    std::vector<bool> needed(plan.passes.size());
    std::vector<int> toVisit;
    const auto need = [&](int index) {
        if (!needed[static_cast<size_t>(index)]) {
            needed[static_cast<size_t>(index)] = true;
            toVisit.push_back(index);
        }
    };
    // The passes that read each pass, in the order of the file.
    std::vector<std::vector<int>> readers(plan.passes.size());
    for (int i = 0; i < numPasses(plan); ++i) {
        const PlannedPass& pass = passOf(plan, i);
        if (i == plan.outputPass || pass.outputs.isEmpty()) {
            need(i);
        }
        for (const PlannedInput& input : pass.inputs) {
            if (isConnected(input)) {
                std::vector<int>& ofSource = readers[static_cast<size_t>(input.pass)];
                if (ofSource.empty() || ofSource.back() != i) {
                    ofSource.push_back(i);
                }
            }
        }
    }
    while (!toVisit.empty()) {
        const int index = toVisit.back();
        toVisit.pop_back();
        for (const PlannedInput& input : passOf(plan, index).inputs) {
            if (isConnected(input)) {
                need(input.pass);
            }
        }
    }
    for (size_t i = 0; i < plan.passes.size(); ++i) {
        if (!needed[i]) {
            QStringList names;
            for (const int reader : readers[i]) {
                names.append(passOf(plan, reader).name);
            }
            plan.passes[i].cullReason =
                names.isEmpty() ? u"nothing reads its outputs"_s
                                : u"only culled passes read its outputs: %1"_s.arg(someOf(names, u", "_s));
        }
    }
}

void reportCycles(const GraphPlan& plan, GraphErrors& errors)
{
    const qsizetype errorsBefore = errors.count();
    reportSharedModifications(plan, errors);
    if (errors.count() == errorsBefore) {
        CycleSearch(plan, errors).visitAll();
    }
}

void orderPasses(GraphPlan& plan)
{
    const Dependencies dependencies = dependenciesOf(plan);
    std::vector<size_t> numMissing(plan.passes.size());
    std::vector<std::vector<int>> dependents(plan.passes.size());
    // Always the first pass of the file whose dependencies are done.
    std::priority_queue<int, std::vector<int>, std::greater<>> ready;
    for (int i = 0; i < numPasses(plan); ++i) {
        if (!passOf(plan, i).cullReason.isEmpty()) {
            continue;
        }
        const std::vector<Dependency>& own = dependencies[static_cast<size_t>(i)];
        numMissing[static_cast<size_t>(i)] = own.size();
        for (const Dependency& dependency : own) {
            dependents[static_cast<size_t>(dependency.pass)].push_back(i);
        }
        if (own.empty()) {
            ready.push(i);
        }
    }
    while (!ready.empty()) {
        const int index = ready.top();
        ready.pop();
        plan.order.push_back(index);
        for (const int dependent : dependents[static_cast<size_t>(index)]) {
            if (--numMissing[static_cast<size_t>(dependent)] == 0) {
                ready.push(dependent);
            }
        }
    }
}

} // namespace Morvane::Qel
