#include <Qel/graph/support/JsonKeys.h>

#include <QJsonArray>
#include <QJsonDocument>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

JsonKeys::JsonKeys(const QByteArray& text)
    : m_text(text)
{
    if (m_text.startsWith("\xEF\xBB\xBF")) {
        m_at = 3;
    }
    readValue({});
}

QString JsonKeys::placeOf(const QByteArray& text, qsizetype offset)
{
    const QByteArray before = text.first(qBound(qsizetype(0), offset, text.size()));
    const qsizetype lineStart = before.lastIndexOf('\n') + 1;
    return u"%1:%2"_s.arg(before.count('\n') + 1).arg(QString::fromUtf8(before.sliced(lineStart)).size() + 1);
}

char JsonKeys::skipSpace()
{
    while (m_at < m_text.size() && QByteArrayView(" \t\r\n").contains(m_text[m_at])) {
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
    const QByteArray quotedText = m_text.sliced(begin, m_at - begin);
    return QJsonDocument::fromJson('[' + quotedText + ']').array().first().toString();
}

void JsonKeys::readValue(const QString& path)
{
    const char first = skipSpace();
    if (!m_offsets.contains(path)) {
        m_offsets.insert(path, m_at);
    }
    if (first == '{') {
        readObject(path);
    } else if (first == '[') {
        readArray(path);
    } else if (first == '"') {
        readString();
    } else {
        while (m_at < m_text.size() && !QByteArrayView(",]} \t\r\n").contains(m_text[m_at])) {
            ++m_at;
        }
    }
}

void JsonKeys::readObject(const QString& path)
{
    ++m_at;
    while (skipSpace() == '"') {
        const qsizetype offset = m_at;
        const QString key = readString();
        const QString memberPath = path.isEmpty() ? key : path + u'.' + key;
        QStringList& keys = m_keys[path];
        if (keys.contains(key)) {
            m_repeated.push_back({path, key, placeOf(m_text, offset)});
        } else {
            m_offsets.insert(memberPath, offset);
        }
        keys.append(key);
        skipSpace();
        ++m_at; // ':'
        readValue(memberPath);
        if (skipSpace() == ',') {
            ++m_at;
        }
    }
    ++m_at;
}

void JsonKeys::readArray(const QString& path)
{
    ++m_at;
    for (int i = 0; skipSpace() != ']' && m_at < m_text.size(); ++i) {
        readValue(u"%1[%2]"_s.arg(path).arg(i));
        if (skipSpace() == ',') {
            ++m_at;
        }
    }
    ++m_at;
}

} // namespace Morvane::Qel
