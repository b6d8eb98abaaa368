#pragma once

#include <QByteArray>
#include <QHash>
#include <QString>
#include <QStringList>

#include <vector>

namespace Morvane::Qel {

/// Positions and order of the keys in a JSON text, and duplicate keys, which Qt's parser does not report.
/// Values are addressed by paths such as "passes[2].inputs.Frame"; the root has the empty path.
class JsonKeys
{
public:
    /// The text must be valid JSON.
    explicit JsonKeys(const QByteArray& text);

    /// "LINE:COLUMN" of the first value with this path; for a member of an object, of its key.
    QString place(const QString& path) const { return placeOf(m_text, m_offsets.value(path)); }
    /// Keys of the object with this path in the order of the text, duplicates included.
    QStringList keys(const QString& path) const { return m_keys.value(path); }

    struct Key
    {
        /// Path of the object.
        QString object;
        QString key;
        QString place;
    };
    /// Every occurrence of a key after its first one in the same object.
    const std::vector<Key>& repeatedKeys() const { return m_repeated; }

    /// "LINE:COLUMN" of a byte offset in a text.
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
