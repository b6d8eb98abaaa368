#include <Qel/graph/support/Keys.h>

#include <QColor>
#include <QJsonArray>
#include <QJsonObject>

#include <algorithm>
#include <cmath>

#include <Qel/graph/support/Constants.h>
#include <Qel/graph/support/Names.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

const QStringList eases{u"linear"_s, u"smooth"_s, u"step"_s};

QString easeOf(const QJsonValue& keyed)
{
    return keyed[u"ease"].toString(eases.first());
}

bool isColor(const QJsonValue& value)
{
    QString error;
    return value.isString() && constantFromJson(value, u"QColor"_s, &error);
}

/// Whether a value can be interpolated.
bool isContinuous(const QJsonValue& value)
{
    constexpr qsizetype longest = 4;
    const QJsonArray elements = value.toArray();
    return value.isDouble() || isColor(value) ||
           (!elements.isEmpty() && elements.size() <= longest &&
            std::all_of(elements.begin(), elements.end(),
                        [](const QJsonValue& element) { return element.isDouble(); }));
}

double mix(double a, double b, double t)
{
    return a + (b - a) * t;
}

QJsonValue mixColors(const QJsonValue& a, const QJsonValue& b, double t)
{
    QString error;
    const QColor from = constantFromJson(a, u"QColor"_s, &error)->value<QColor>();
    const QColor to = constantFromJson(b, u"QColor"_s, &error)->value<QColor>();
    const auto channel = [&](int begin, int end) {
        return static_cast<int>(std::lround(mix(begin, end, t)));
    };
    return QJsonArray{channel(from.red(), to.red()), channel(from.green(), to.green()),
                      channel(from.blue(), to.blue()), channel(from.alpha(), to.alpha())};
}

QJsonValue interpolated(const QJsonValue& a, const QJsonValue& b, double t)
{
    if (a.isString()) {
        return mixColors(a, b, t);
    }
    if (a.isDouble()) {
        return mix(a.toDouble(), b.toDouble(), t);
    }
    QJsonArray result;
    for (qsizetype i = 0; i < a.toArray().size(); ++i) {
        result.append(mix(a[i].toDouble(), b[i].toDouble(), t));
    }
    return result;
}

} // namespace

bool isKeyed(const QJsonValue& value)
{
    return value.isObject() && value.toObject().contains(u"keys"_s);
}

std::optional<KeysError> keysError(const QJsonValue& keyed)
{
    const QJsonObject members = keyed.toObject();
    for (const QString& key : members.keys()) {
        if (key != QLatin1StringView("keys") && key != QLatin1StringView("ease")) {
            return KeysError{key, u"unknown key"_s + suggestion(key, {u"keys"_s, u"ease"_s})};
        }
    }
    const QJsonValue ease = members[u"ease"];
    if (!ease.isUndefined() && !eases.contains(ease.toString())) {
        return KeysError{u"ease"_s, u"must be one of %1, not %2"_s.arg(quoted(eases), shownValue(ease))};
    }
    const QJsonArray keys = members[u"keys"].toArray();
    if (keys.isEmpty()) {
        return KeysError{u"keys"_s, u"must be an array of keys [[FRAME, VALUE], ...], not %1"_s.arg(
                                        shownValue(members[u"keys"]))};
    }
    double before = -1.0;
    for (qsizetype i = 0; i < keys.size(); ++i) {
        const QString path = u"keys[%1]"_s.arg(i);
        const double frame = keys[i][0].toDouble(-1.0);
        const QJsonValue value = keys[i][1];
        if (keys[i].toArray().size() != 2 || frame < 0.0 || frame != std::floor(frame)) {
            return KeysError{path, u"must be [FRAME, VALUE] with a frame number of 0 or more, not %1"_s.arg(
                                       shownValue(keys[i]))};
        }
        if (frame <= before) {
            return KeysError{
                path, u"must be at a later frame than the key before it, which is at %1"_s.arg(before)};
        }
        before = frame;
        if (easeOf(keyed) == eases.last()) {
            continue;
        }
        if (!isContinuous(value)) {
            return KeysError{path,
                             u"%1 cannot be interpolated; write \"ease\": \"step\""_s.arg(shownValue(value))};
        }
        const QJsonValue first = keys[0][1];
        if (value.type() != first.type() || value.toArray().size() != first.toArray().size()) {
            return KeysError{path, u"%1 cannot be interpolated with %2, the value of the first key"_s.arg(
                                       shownValue(value), shownValue(first))};
        }
    }
    return {};
}

bool isInterpolated(const QJsonValue& keyed)
{
    return easeOf(keyed) != eases.last();
}

QJsonValue valueAt(const QJsonValue& keyed, double frame)
{
    const QJsonArray keys = keyed[u"keys"].toArray();
    const auto next = std::find_if(keys.begin(), keys.end(),
                                   [&](const QJsonValue& key) { return key[0].toDouble() > frame; });
    if (next == keys.begin()) {
        return keys.first()[1];
    }
    const QJsonValue from = *(next - 1);
    if (next == keys.end() || !isInterpolated(keyed)) {
        return from[1];
    }
    const QJsonValue to = *next;
    const double t = (frame - from[0].toDouble()) / (to[0].toDouble() - from[0].toDouble());
    const bool isSmooth = easeOf(keyed) == QLatin1StringView("smooth");
    return interpolated(from[1], to[1], isSmooth ? t * t * (3.0 - 2.0 * t) : t);
}

} // namespace Morvane::Qel
