#pragma once

#include <QByteArray>
#include <QHash>
#include <QSet>
#include <QString>
#include <QStringList>

#include <vector>

namespace Morvane::Qel {

/// Positions and order of the keys in a JSON text, and duplicate keys, which Qt's parser does not report.
/// Values are addressed by paths such as "passes[2].inputs.Frame"; the root has the empty path. Its cost is
/// proportional to the text, whatever the text holds.
class JsonKeys
{
public:
    /// The text must be valid JSON.
    explicit JsonKeys(const QByteArray& text);

    /// The path of a member of an object. Of a very long key, only the beginning is in the path.
    static QString memberPath(const QString& path, const QString& key);

    /// "LINE:COLUMN" of the first value with each of these paths; for a member of an object, of its key. No
    /// path may have more than 8 members and elements.
    QStringList places(const QStringList& paths);
    /// Keys of the object "models", "parameters" or "passes[N].inputs" in the order of the text, duplicates
    /// included.
    QStringList keys(const QString& path) const { return m_keys.value(path); }
    /// Line of a member or element of a member of the root, such as "passes[2]" or "camera.eye".
    int line(const QString& path) const { return m_lines.value(path); }

    struct Key
    {
        /// Path of the object.
        QString object;
        QString key;
        QString place;
    };
    /// Occurrences of a key after its first one in the same object, except in "passes[N].inputs": the first
    /// GraphErrors::most, and the number of all.
    const std::vector<Key>& repeatedKeys() const { return m_repeated; }
    qsizetype numRepeatedKeys() const { return m_numRepeated; }

    /// "LINE:COLUMN" of a byte offset in a text.
    static QString placeOf(const QByteArray& text, qsizetype offset);

private:
    static constexpr int deepest = 8;

    void scan();
    void readValue();
    void readObject();
    void readArray();
    QString readString();
    char skipSpace();
    void notePlace(qsizetype offset);

    QByteArray m_text;
    qsizetype m_at = 0;
    /// Path of the value that is read, of which values deeper than `deepest` share the beginning, and the
    /// depth.
    QString m_path;
    int m_depth = 0;
    /// Offsets by path, -1 where not found; empty in the first scan.
    QHash<QString, qsizetype> m_wanted;
    QHash<QString, QStringList> m_keys;
    QHash<QString, int> m_lines;
    /// Line of m_at.
    int m_line = 1;
    std::vector<Key> m_repeated;
    qsizetype m_numRepeated = 0;
};

} // namespace Morvane::Qel
