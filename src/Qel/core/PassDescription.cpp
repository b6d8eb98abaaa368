#include <Qel/core/PassDescription.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

PortName PortName::parse(const QString& fullName)
{
    if (fullName == QLatin1StringView("Int_BlendMode")) {
        return {u"int"_s, u"BlendMode"_s};
    }
    const qsizetype typeStart = fullName.indexOf(u'_') + 1;
    qsizetype typeEnd = fullName.indexOf(u'_', typeStart);
    if (!fullName.startsWith(QLatin1StringView("Qel_")) || typeEnd < typeStart) {
        return {{}, fullName};
    }
    if (fullName.sliced(typeStart, typeEnd - typeStart) == QLatin1StringView("QList")) {
        if (const qsizetype elementEnd = fullName.indexOf(u'_', typeEnd + 1); elementEnd >= 0) {
            typeEnd = elementEnd;
        }
    }
    return {fullName.sliced(typeStart, typeEnd - typeStart), fullName.sliced(typeEnd + 1)};
}

} // namespace Morvane::Qel
