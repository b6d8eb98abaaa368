#include <Qel/graph/PassRegistry.h>

#include <utility>

#include <Qel/graph/support/Names.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

void PassRegistry::add(const PassDescription& description, Factory factory)
{
    m_types[description.type] = {description, std::move(factory)};
}

QStringList PassRegistry::types() const
{
    QStringList names;
    for (const auto& [name, type] : m_types) {
        names.append(name);
    }
    return names;
}

const PassRegistry::Type* PassRegistry::find(const QString& type) const
{
    const auto found = m_types.find(type);
    return found == m_types.end() ? nullptr : &found->second;
}

const PassDescription* PassRegistry::description(const QString& type) const
{
    const Type* found = find(type);
    return found ? &found->description : nullptr;
}

std::unique_ptr<RenderPass> PassRegistry::create(const QString& type, const PassOptions& options,
                                                 QString* error) const
{
    const Type* found = find(type);
    if (!found) {
        *error = unknownName(u"pass type"_s, type, types());
        return nullptr;
    }
    return found->factory(options, error);
}

} // namespace Morvane::Qel
