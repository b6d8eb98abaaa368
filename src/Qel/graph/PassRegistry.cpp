#include <Qel/graph/PassRegistry.h>

#include <algorithm>
#include <iterator>
#include <utility>

#include <Qel/graph/support/Names.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

/// Adds the defaults of options that are missing and converts the others to their types. Returns an error
/// message, empty if there is none.
QString completeOptions(const std::vector<OptionDescription>& known, QVariantMap* values)
{
    QStringList names;
    for (const OptionDescription& option : known) {
        names.append(option.name);
    }
    for (auto value = values->cbegin(); value != values->cend(); ++value) {
        if (!names.contains(value.key())) {
            return unknownName(u"option"_s, value.key(), names);
        }
    }
    for (const OptionDescription& option : known) {
        QVariant& value = (*values)[option.name];
        if (!value.isValid()) {
            value = option.defaultValue;
        }
        const auto typeName = [](const QVariant& of) { return QString::fromLatin1(of.metaType().name()); };
        if (const QString given = typeName(value); !value.convert(option.defaultValue.metaType())) {
            return u"option %1 must be of type %2, not %3"_s.arg(option.name, typeName(option.defaultValue),
                                                                 given);
        }
        const QVariantList texts = option.isPerOutput ? value.toMap().values() : QVariantList{value};
        for (const QVariant& text : texts) {
            if (!option.choices.isEmpty() && !option.choices.contains(text.toString())) {
                return u"option %1 must be one of %2, not \"%3\""_s.arg(option.name, quoted(option.choices),
                                                                        text.toString());
            }
        }
        if (option.members.empty()) {
            continue;
        }
        QVariantList elements;
        for (const QVariant& element : value.toList()) {
            QVariantMap members = element.toMap();
            if (const QString error = completeOptions(option.members, &members); !error.isEmpty()) {
                return u"%1[%2]: %3"_s.arg(option.name).arg(elements.size()).arg(error);
            }
            elements.append(members);
        }
        value = elements;
    }
    return {};
}

} // namespace

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

QString PassRegistry::unknownTypeError(const QString& type) const
{
    const QStringList all = types();
    const auto nearest = [&](const QStringList& names) {
        const qsizetype index = nearestName(type, names);
        return index < 0 ? QStringList() : QStringList(all[index]);
    };
    QStringList meant = all.filter(type, Qt::CaseInsensitive);
    if (meant.isEmpty()) {
        meant = nearest(all);
    }
    if (meant.isEmpty()) {
        std::copy_if(all.begin(), all.end(), std::back_inserter(meant), [&](const QString& name) {
            return description(name)->summary.contains(type, Qt::CaseInsensitive);
        });
    }
    if (meant.isEmpty()) {
        QStringList shortNames;
        for (const QString& name : all) {
            shortNames << QString(name).remove(u"Render"_s).remove(u"Pass"_s);
        }
        meant = nearest(shortNames);
    }
    // Part of most names, such as "Pass", or of most sentences is no hint.
    constexpr qsizetype few = 4;
    const bool isHint = type.size() >= 3 && !meant.isEmpty() && meant.size() <= few;
    const QString error = u"no pass type \"%1\"%2"_s.arg(type, isHint ? didYouMean(meant) : QString());
    // The program lists only the passes of this library.
    return this == &builtin() ? withPointer(error, u"qel passes"_s) : error;
}

std::unique_ptr<RenderPass> PassRegistry::create(const QString& type, const PassOptions& options,
                                                 QString* error) const
{
    const Type* found = find(type);
    if (!found) {
        *error = unknownTypeError(type);
        return nullptr;
    }
    PassOptions complete = options;
    if (const QString what = completeOptions(found->description.options, &complete); !what.isEmpty()) {
        *error = u"%1: %2"_s.arg(type, what);
        return nullptr;
    }
    return found->factory(complete, error);
}

} // namespace Morvane::Qel
