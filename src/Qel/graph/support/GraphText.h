#pragma once

#include <QByteArray>
#include <QJsonValue>
#include <QStringList>

#include <vector>

namespace Morvane::Qel {

/// Changes single values in the text of a graph file. Everything else stays as it is written, comments too.
/// A path is the keys that lead to a value, with decimal indices for the elements of arrays.
class GraphText
{
public:
    /// The text must be valid.
    explicit GraphText(QByteArray text);

    const QByteArray& text() const { return m_text; }
    /// Sets a value, and adds the objects and the member that are missing on the way. Returns false if an
    /// array has no such element.
    bool set(const QStringList& path, const QJsonValue& value);
    /// Removes a member of an object, if it is there.
    void remove(const QStringList& path);

private:
    struct Span
    {
        qsizetype begin;
        qsizetype end;
    };
    /// Of an element of an array, the key is empty.
    struct Member
    {
        QString name;
        Span key;
        Span value;
    };

    /// The last value on a path that exists: member number `index` of `parent`, after `depth` keys.
    struct Place
    {
        Span parent;
        size_t index;
        Span value;
        qsizetype depth;
    };

    Place follow(const QStringList& path) const;
    std::vector<Member> membersOf(const Span& span) const;
    Span root() const;
    qsizetype skipSpace(qsizetype at) const;
    qsizetype endOfValue(qsizetype begin) const;
    void add(const Span& object, const QString& key, const QJsonValue& value);
    void removeMember(const Span& object, size_t index);
    /// Whether only spaces and comments stand between an offset and the end of its line.
    bool endsLine(qsizetype at) const;
    qsizetype lineEnd(qsizetype at) const;
    void replace(const Span& span, const QByteArray& text);

    QByteArray m_text;
    /// The text with its comments blanked.
    QByteArray m_json;
};

} // namespace Morvane::Qel
