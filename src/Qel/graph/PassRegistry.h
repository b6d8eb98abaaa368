#pragma once

#include <QStringList>
#include <QVariantMap>

#include <functional>
#include <map>
#include <memory>

#include <Qel/core/PassDescription.h>
#include <Qel/core/RenderPass.h>
#include <Qel/graph/Export.h>

namespace Morvane::Qel {

/// The options of one pass by name, as its factory gets them: every option that the description declares is
/// there, of the declared type, with its default where the graph says nothing. Options that name files hold
/// paths that can be opened as they are.
using PassOptions = QVariantMap;

/// The types of passes that a graph may name, each with its description and a way to make one. A value: copy
/// the built-in one and add your own types to it.
class QEL_GRAPH_EXPORT PassRegistry
{
public:
    /// Makes a pass. Null when an option turns out to be unusable after all, with one line in `error`.
    using Factory = std::function<std::unique_ptr<RenderPass>(const PassOptions& options, QString* error)>;

    /// The passes of this library.
    static const PassRegistry& builtin();

    /// Adds a type under description.type; one of the same name is replaced. The ports that the pass declares
    /// must be those of the description. A description whose `hostDeclaresPorts` is set must declare two
    /// options of type QStringList, "inputs" and "outputs": the full names of the ports of that one pass,
    /// which follow the ports of the description.
    void add(const PassDescription& description, Factory factory);
    /// The same for a class that has a `static const PassDescription& description()` and a default
    /// constructor.
    template<class Pass>
    void add()
    {
        add(Pass::description(), [](const PassOptions&, QString*) { return std::make_unique<Pass>(); });
    }

    /// The names of all types, in alphabetical order.
    QStringList types() const;
    /// Null for a type that is not registered. Valid until a type of this name is added again.
    const PassDescription* description(const QString& type) const;
    /// Makes a pass of a registered type; null on failure, with one line in `error`.
    std::unique_ptr<RenderPass> create(const QString& type, const PassOptions& options, QString* error) const;

private:
    struct Entry
    {
        PassDescription description;
        Factory factory;
    };
    std::map<QString, Entry> m_entries;
};

} // namespace Morvane::Qel
