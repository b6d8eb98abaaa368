#include <Qel/graph/support/GraphText.h>

#include <QJsonObject>

#include <algorithm>
#include <utility>

#include <Qel/graph/support/Constants.h>
#include <Qel/graph/support/GraphDocument.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

bool isSpace(char c)
{
    return QByteArrayView(" \t\r\n").contains(c);
}

} // namespace

GraphText::GraphText(QByteArray text)
    : m_text(std::move(text))
    , m_json(withoutComments(m_text))
{
}

qsizetype GraphText::skipSpace(qsizetype at) const
{
    while (at < m_json.size() && isSpace(m_json[at])) {
        ++at;
    }
    return at;
}

qsizetype GraphText::endOfValue(qsizetype begin) const
{
    qsizetype at = begin;
    int depth = 0;
    do {
        const char c = m_json[at];
        if (c == '"') {
            at = endOfString(m_json, at);
        } else if (c == '{' || c == '[') {
            ++depth;
            ++at;
        } else if (c == '}' || c == ']') {
            --depth;
            ++at;
        } else if (depth > 0) {
            ++at;
        } else {
            while (at < m_json.size() && !isSpace(m_json[at]) &&
                   !QByteArrayView(",]}").contains(m_json[at])) {
                ++at;
            }
        }
    } while (depth > 0 && at < m_json.size());
    return at;
}

GraphText::Span GraphText::root() const
{
    const qsizetype begin = skipSpace(0);
    return {begin, endOfValue(begin)};
}

std::vector<GraphText::Member> GraphText::membersOf(const Span& span) const
{
    std::vector<Member> members;
    const bool isObject = m_json[span.begin] == '{';
    if (!isObject && m_json[span.begin] != '[') {
        return members;
    }
    qsizetype at = skipSpace(span.begin + 1);
    while (at < span.end - 1) {
        Member member{QString::number(members.size()), {at, at}, {}};
        if (isObject) {
            member.key.end = endOfString(m_json, at);
            member.name = valueFromJson(QString::fromUtf8(m_json.mid(at, member.key.end - at))).toString();
            at = skipSpace(skipSpace(member.key.end) + 1); // behind the colon
        }
        member.value = {at, endOfValue(at)};
        members.push_back(member);
        at = skipSpace(member.value.end);
        at = at < span.end - 1 ? skipSpace(at + 1) : at; // behind the comma
    }
    return members;
}

GraphText::Place GraphText::follow(const QStringList& path) const
{
    Place place{{}, 0, root(), 0};
    for (const QString& key : path) {
        const std::vector<Member> members = membersOf(place.value);
        const auto found = std::find_if(members.begin(), members.end(),
                                        [&](const Member& member) { return member.name == key; });
        if (found == members.end()) {
            break;
        }
        const auto index = static_cast<size_t>(found - members.begin());
        place = {place.value, index, found->value, place.depth + 1};
    }
    return place;
}

bool GraphText::set(const QStringList& path, const QJsonValue& value)
{
    const Place place = follow(path);
    if (place.depth == path.size()) {
        replace(place.value, jsonText(value).toUtf8());
        return true;
    }
    if (m_json[place.value.begin] != '{') {
        return false;
    }
    add(place.value, path[place.depth], withMember(QJsonObject(), path.sliced(place.depth + 1), value));
    return true;
}

void GraphText::remove(const QStringList& path)
{
    const Place place = follow(path);
    if (place.depth == path.size()) {
        removeMember(place.parent, place.index);
    }
}

qsizetype GraphText::lineEnd(qsizetype at) const
{
    const qsizetype end = m_json.indexOf('\n', at);
    return end < 0 ? m_json.size() : end;
}

bool GraphText::endsLine(qsizetype at) const
{
    return m_json.mid(at, lineEnd(at) - at).trimmed().isEmpty();
}

/// Adds a member as the last one, on a line of its own if the last one has one.
void GraphText::add(const Span& object, const QString& key, const QJsonValue& value)
{
    const QByteArray text = (jsonText(key) + u": "_s + jsonText(value)).toUtf8();
    const std::vector<Member> members = membersOf(object);
    if (members.empty()) {
        replace({object.begin + 1, object.begin + 1}, text);
        return;
    }
    const Member& last = members.back();
    const qsizetype before = members.size() > 1 ? members[members.size() - 2].value.end : object.begin + 1;
    const qsizetype newLine = m_json.lastIndexOf('\n', last.key.begin);
    if (newLine < before) {
        replace({last.value.end, last.value.end}, ", " + text);
        return;
    }
    const QByteArray line = m_json.mid(newLine, last.key.begin - newLine) + text;
    // A comment stays behind the value that it stands behind.
    const qsizetype end = endsLine(last.value.end) ? lineEnd(last.value.end) : last.value.end;
    replace({end, end}, line);
    replace({last.value.end, last.value.end}, ",");
}

void GraphText::removeMember(const Span& object, size_t index)
{
    const std::vector<Member> members = membersOf(object);
    const Member& member = members[index];
    const bool isLast = index + 1 == members.size();
    Span cut{member.key.begin, member.value.end};
    if (!isLast) {
        cut.end = m_json.indexOf(',', cut.end) + 1;
    }
    const qsizetype lineBegin = m_json.lastIndexOf('\n', cut.begin) + 1;
    const bool hasOwnLine = lineBegin > object.begin && endsLine(cut.end) &&
                            m_json.mid(lineBegin, cut.begin - lineBegin).trimmed().isEmpty();
    if (hasOwnLine) {
        // With the comment behind it.
        cut = {lineBegin - 1, lineEnd(cut.end)};
    } else if (!isLast) {
        cut.end = endsLine(cut.end) ? cut.end : skipSpace(cut.end);
    }
    if (isLast && index > 0) {
        const qsizetype comma = m_json.indexOf(',', members[index - 1].value.end);
        if (!hasOwnLine && m_json.mid(comma + 1, cut.begin - comma - 1).trimmed().isEmpty()) {
            cut.begin = comma;
        }
        replace(cut, {});
        if (cut.begin > comma) {
            replace({comma, comma + 1}, {});
        }
        return;
    }
    replace(cut, {});
}

void GraphText::replace(const Span& span, const QByteArray& text)
{
    m_text.replace(span.begin, span.end - span.begin, text);
    m_json.replace(span.begin, span.end - span.begin, text);
}

} // namespace Morvane::Qel
