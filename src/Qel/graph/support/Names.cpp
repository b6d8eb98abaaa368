#include <Qel/graph/support/Names.h>

#include <algorithm>
#include <numeric>
#include <vector>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

/// Optimal string alignment distance, ignoring case: the number of insertions, deletions, substitutions and
/// swaps of adjacent characters that turn one text into the other.
qsizetype editDistance(const QString& left, const QString& right)
{
    const QString a = left.toLower();
    const QString b = right.toLower();
    const auto width = static_cast<size_t>(b.size()) + 1;
    std::vector<qsizetype> beforeLast(width);
    std::vector<qsizetype> last(width);
    std::vector<qsizetype> row(width);
    std::iota(row.begin(), row.end(), 0);
    for (qsizetype i = 1; i <= a.size(); ++i) {
        std::swap(beforeLast, last);
        std::swap(last, row);
        row[0] = i;
        for (qsizetype j = 1; j <= b.size(); ++j) {
            const auto k = static_cast<size_t>(j);
            const qsizetype replaced = last[k - 1] + (a[i - 1] == b[j - 1] ? 0 : 1);
            row[k] = std::min({row[k - 1] + 1, last[k] + 1, replaced});
            if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1]) {
                row[k] = std::min(row[k], beforeLast[k - 2] + 1);
            }
        }
    }
    return row.back();
}

} // namespace

qsizetype nearestName(const QString& wrong, const QStringList& valid)
{
    // Nobody types longer ones, and comparing them takes long.
    constexpr qsizetype longest = 100;
    if (wrong.size() > longest) {
        return -1;
    }
    qsizetype nearest = -1;
    // A name that differs in more than half of its characters is no typo.
    qsizetype best = std::max<qsizetype>(1, wrong.size() / 2) + 1;
    for (qsizetype i = 0; i < valid.size(); ++i) {
        // The distance is no less than the difference of the lengths, and no name is nearer than 1.
        if (best == 1 || std::abs(wrong.size() - valid[i].size()) >= best) {
            continue;
        }
        const qsizetype distance = editDistance(wrong, valid[i]);
        if (distance < best) {
            best = distance;
            nearest = i;
        }
    }
    return nearest;
}

QString didYouMean(const QStringList& names)
{
    const QString last = quoted({names.last()});
    return u"; did you mean %1?"_s.arg(
        names.size() == 1 ? last : u"%1 or %2"_s.arg(quoted(names.first(names.size() - 1)), last));
}

QString suggestion(const QString& wrong, const QStringList& valid)
{
    constexpr qsizetype few = 8;
    if (const qsizetype nearest = nearestName(wrong, valid); nearest >= 0) {
        return didYouMean({valid[nearest]});
    }
    if (valid.isEmpty() || valid.size() > few) {
        return {};
    }
    return (valid.size() == 1 ? u"; there is only %1"_s : u"; there are %1"_s).arg(quoted(valid));
}

QString unknownName(const QString& kind, const QString& wrong, const QStringList& valid)
{
    return u"no %1 \"%2\"%3"_s.arg(kind, wrong, suggestion(wrong, valid));
}

QString withPointer(const QString& message, const QString& command)
{
    return message + (message.endsWith(u'?') ? u" See "_s : u"; see "_s) + quoted({command});
}

QString nameError(const QString& name)
{
    const bool isName = !name.isEmpty() && std::all_of(name.begin(), name.end(), [](QChar c) {
        return c.isLetterOrNumber() || c == u'_' || c == u'-';
    });
    return isName ? QString()
                  : u"\"%1\" is not a valid name; use letters, digits, \"_\" and \"-\""_s.arg(name);
}

QString quoted(const QStringList& names)
{
    return u'"' + names.join(u"\", \""_s) + u'"';
}

} // namespace Morvane::Qel
