#include <Qel/graph/support/LightKeys.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

QStringList lightKeys(const QString& type)
{
    const QStringList common{u"type"_s, u"color"_s, u"intensity"_s};
    if (type == QLatin1StringView("directional")) {
        return common + QStringList{u"direction"_s, u"cascades"_s};
    }
    if (type == QLatin1StringView("point")) {
        return common + QStringList{u"position"_s, u"range"_s};
    }
    const QStringList spot = common + QStringList{u"position"_s, u"direction"_s, u"angle"_s, u"range"_s};
    return type == QLatin1StringView("spot") ? spot : spot + QStringList{u"cascades"_s};
}

} // namespace Morvane::Qel
