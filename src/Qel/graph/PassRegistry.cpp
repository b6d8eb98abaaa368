#include <Qel/graph/PassRegistry.h>

#include <utility>

#include <Qel/graph/support/Suggestions.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

void PassRegistry::add(const PassDescription& description, Factory factory)
{
    m_entries[description.type] = {description, std::move(factory)};
}

QStringList PassRegistry::types() const
{
    QStringList names;
    for (const auto& [type, entry] : m_entries) {
        names.append(type);
    }
    return names;
}

const PassDescription* PassRegistry::description(const QString& type) const
{
    const auto entry = m_entries.find(type);
    return entry == m_entries.end() ? nullptr : &entry->second.description;
}

std::unique_ptr<RenderPass> PassRegistry::create(const QString& type, const PassOptions& options,
                                                 QString* error) const
{
    const auto entry = m_entries.find(type);
    if (entry == m_entries.end()) {
        *error = u"no pass type \"%1\"%2"_s.arg(type, suggestion(type, types()));
        return nullptr;
    }
    return entry->second.factory(options, error);
}

} // namespace Morvane::Qel
