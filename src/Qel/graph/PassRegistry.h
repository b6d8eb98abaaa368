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

/// Options of one pass by name. A factory gets every option of the pass's description with its declared type,
/// and with its default where it is not set. File options hold absolute paths.
using PassOptions = QVariantMap;

/// The pass types that graphs can use, each with its description and a factory. To use passes of your own,
/// copy the built-in registry and add them.
class QEL_GRAPH_EXPORT PassRegistry
{
public:
    /// Creates a pass; returns null with one line in `error` if an option cannot be used.
    using Factory = std::function<std::unique_ptr<RenderPass>(const PassOptions& options, QString* error)>;

    /// A registered pass type.
    struct Type
    {
        PassDescription description;
        Factory factory;
    };

    /// The passes of this library.
    static const PassRegistry& builtin();

    /// Adds a type, or replaces the one of the same name. The pass must declare the ports of the description.
    /// A description with `hostDeclaresPorts` must have two options of type QStringList, "inputs" and
    /// "outputs": the full names of that one pass's ports, which follow the ports of the description.
    void add(const PassDescription& description, Factory factory);
    /// Adds a class that has a default constructor and a `static const PassDescription& description()`.
    template<class Pass>
    void add()
    {
        add(Pass::description(), [](const PassOptions&, QString*) { return std::make_unique<Pass>(); });
    }

    /// Names of all types, in alphabetical order.
    QStringList types() const;
    /// Null for a type that is not registered. Valid until a type of this name is added again.
    const Type* find(const QString& type) const;
    /// Null for a type that is not registered. Valid until a type of this name is added again.
    const PassDescription* description(const QString& type) const;
    /// The error message about a type that is not registered, with the types that may be meant: those whose
    /// name contains the text, the one with the nearest name, or those whose summary mentions it.
    QString unknownTypeError(const QString& type) const;
    /// Creates a pass of a registered type. Options that are left out get their defaults; so do members of
    /// elements of lists. Returns null with one line in `error` for an unknown type or option, a value of
    /// another type, a text that is not among the choices, and an option that the factory cannot use.
    std::unique_ptr<RenderPass> create(const QString& type, const PassOptions& options, QString* error) const;

private:
    std::map<QString, Type> m_types;
};

} // namespace Morvane::Qel
