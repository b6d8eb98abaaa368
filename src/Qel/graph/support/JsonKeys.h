#pragma once

#include <QByteArray>
#include <QHash>
#include <QString>
#include <QStringList>

#include <vector>

namespace Morvane::Qel {

/// What Qt's JSON parser does not tell: where things stand, in which order the keys of an object were
/// written, and which were written twice. Values are addressed by paths such as "passes[2].inputs.Frame"; the
/// whole text has the empty path.
class JsonKeys
{
public:
    /// The text must be JSON that Qt's parser has accepted.
    explicit JsonKeys(const QByteArray& text);

    /// "LINE:COLUMN" of the first value of this path or, in an object, of its key.
    QString place(const QString& path) const { return placeOf(m_text, m_offsets.value(path)); }
    /// The keys of the object of this path in the order of the text, repeated ones included.
    QStringList keys(const QString& path) const { return m_keys.value(path); }

    struct Key
    {
        /// The path of the object.
        QString object;
        QString key;
        QString place;
    };
    /// Every key that its object already had.
    const std::vector<Key>& repeatedKeys() const { return m_repeated; }

    /// "LINE:COLUMN" of a byte of a text.
    static QString placeOf(const QByteArray& text, qsizetype offset);

private:
    void readValue(const QString& path);
    void readObject(const QString& path);
    void readArray(const QString& path);
    QString readString();
    char skipSpace();

    QByteArray m_text;
    qsizetype m_at = 0;
    QHash<QString, qsizetype> m_offsets;
    QHash<QString, QStringList> m_keys;
    std::vector<Key> m_repeated;
};

} // namespace Morvane::Qel
