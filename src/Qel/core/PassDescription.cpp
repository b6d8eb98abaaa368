#include <Qel/core/PassDescription.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

PortName PortName::parse(const QString& fullName)
{
    if (fullName == QLatin1StringView("Int_BlendMode")) {
        return {u"int"_s, u"BlendMode"_s};
    }
    const qsizetype typeStart = fullName.indexOf(u'_') + 1;
    const qsizetype typeEnd = fullName.lastIndexOf(u'_');
    if (!fullName.startsWith(QLatin1StringView("Qel_")) || typeEnd < typeStart) {
        return {{}, fullName};
    }
    return {fullName.sliced(typeStart, typeEnd - typeStart), fullName.sliced(typeEnd + 1)};
}

} // namespace Morvane::Qel
