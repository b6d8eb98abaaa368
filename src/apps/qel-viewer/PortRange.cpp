#include "PortRange.h"

#include <QRegularExpression>

using namespace Qt::StringLiterals;

namespace Morvane::Qel::Viewer {

PortRange PortRange::parse(const QString& text)
{
    PortRange range;
    static const QRegularExpression words(u"^[a-z][a-z ]*$"_s);
    const QString first = text.section(u',', 0, 0).section(u';', 0, 0).trimmed();
    if (words.match(first).hasMatch()) {
        range.unit = first;
    }
    static const QRegularExpression fromTo(uR"((-?\d+(?:\.\d+)?)(?: \([^)]*\))? to (-?\d+(?:\.\d+)?))"_s);
    static const QRegularExpression least(uR"((-?\d+(?:\.\d+)?) or more|above (-?\d+(?:\.\d+)?))"_s);
    // What follows a semicolon is about exceptions.
    const QString rule = text.section(u';', 0, 0);
    if (const auto match = fromTo.match(rule); match.hasMatch()) {
        range.minimum = match.captured(1).toDouble();
        range.maximum = match.captured(2).toDouble();
    } else if (const auto lower = least.match(rule); lower.hasMatch()) {
        range.minimum = (lower.captured(1) + lower.captured(2)).toDouble();
    }
    return range;
}

} // namespace Morvane::Qel::Viewer
