#include <Qel/graph/support/JsonKeys.h>

#include <QJsonArray>
#include <QJsonDocument>
#include <QRegularExpression>

#include <algorithm>

#include <Qel/graph/support/GraphErrors.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

JsonKeys::JsonKeys(const QByteArray& text)
    : m_text(text)
{
    scan();
}

QString JsonKeys::memberPath(const QString& path, const QString& key)
{
    constexpr qsizetype longest = 100;
    return path.isEmpty() ? key.left(longest) : path + u'.' + key.left(longest);
}

QStringList JsonKeys::places(const QStringList& paths)
{
    for (const QString& path : paths) {
        m_wanted.insert(path, -1);
    }
    scan();
    QStringList places;
    for (const QString& path : paths) {
        places.append(placeOf(m_text, m_wanted.value(path)));
    }
    return places;
}

void JsonKeys::scan()
{
    m_keys.clear();
    m_repeated.clear();
    m_numRepeated = 0;
    m_line = 1;
    m_at = m_text.startsWith("\xEF\xBB\xBF") ? 3 : 0;
    readValue();
}

void JsonKeys::notePlace(qsizetype offset)
{
    if (m_depth <= deepest && !m_wanted.isEmpty()) {
        const auto wanted = m_wanted.find(m_path);
        if (wanted != m_wanted.end() && *wanted < 0) {
            *wanted = offset;
        }
    }
}

QString JsonKeys::placeOf(const QByteArray& text, qsizetype offset)
{
    const QByteArrayView before = QByteArrayView(text).first(qBound(qsizetype(0), offset, text.size()));
    const qsizetype lineStart = before.lastIndexOf('\n') + 1;
    return u"%1:%2"_s.arg(std::count(before.begin(), before.end(), '\n') + 1)
        .arg(QString::fromUtf8(before.sliced(lineStart)).size() + 1);
}

char JsonKeys::skipSpace()
{
    while (m_at < m_text.size() && QByteArrayView(" \t\r\n").contains(m_text[m_at])) {
        m_line += m_text[m_at] == '\n' ? 1 : 0;
        ++m_at;
    }
    return m_at < m_text.size() ? m_text[m_at] : '\0';
}

QString JsonKeys::readString()
{
    const qsizetype begin = m_at++;
    while (m_at < m_text.size() && m_text[m_at] != '"') {
        m_at += m_text[m_at] == '\\' ? 2 : 1;
    }
    ++m_at;
    const QByteArrayView text = QByteArrayView(m_text).sliced(begin, m_at - begin);
    if (!text.contains('\\')) {
        return QString::fromUtf8(text.sliced(1, text.size() - 2));
    }
    return QJsonDocument::fromJson('[' + text.toByteArray() + ']').array().first().toString();
}

void JsonKeys::readValue()
{
    const char first = skipSpace();
    notePlace(m_at);
    if (m_depth == 2) {
        m_lines.insert(m_path, m_line);
    }
    if (first == '{') {
        readObject();
    } else if (first == '[') {
        readArray();
    } else if (first == '"') {
        readString();
    } else {
        while (m_at < m_text.size() && !QByteArrayView(",]} \t\r\n").contains(m_text[m_at])) {
            ++m_at;
        }
    }
}

void JsonKeys::readObject()
{
    static const QRegularExpression inputs(uR"(^passes\[\d+\]\.inputs$)"_s);
    ++m_at;
    ++m_depth;
    const QString path = m_path;
    const bool isInputs = m_depth == 4 && inputs.match(path).hasMatch();
    const bool isNamed =
        m_depth == 2 && (path == QLatin1StringView("models") || path == QLatin1StringView("parameters"));
    QStringList* names = isInputs || isNamed ? &m_keys[path] : nullptr;
    QSet<QString> seen;
    while (skipSpace() == '"') {
        const qsizetype offset = m_at;
        const QString key = readString();
        if (names) {
            names->append(key);
        }
        if (m_depth <= deepest) {
            m_path = memberPath(path, key);
        }
        const qsizetype numSeen = seen.size();
        seen.insert(key);
        if (seen.size() > numSeen) {
            notePlace(offset);
        } else if (!isInputs && m_numRepeated++ < GraphErrors::most) {
            m_repeated.push_back({path, key, placeOf(m_text, offset)});
        }
        skipSpace();
        ++m_at; // ':'
        readValue();
        if (skipSpace() == ',') {
            ++m_at;
        }
    }
    m_path = path;
    --m_depth;
    ++m_at;
}

void JsonKeys::readArray()
{
    ++m_at;
    ++m_depth;
    const qsizetype pathSize = m_path.size();
    for (int i = 0; skipSpace() != ']' && m_at < m_text.size(); ++i) {
        if (m_depth <= deepest) {
            m_path.truncate(pathSize);
            m_path += u"[%1]"_s.arg(i);
        }
        readValue();
        if (skipSpace() == ',') {
            ++m_at;
        }
    }
    m_path.truncate(pathSize);
    --m_depth;
    ++m_at;
}

} // namespace Morvane::Qel
