#include <Qel/graph/support/GraphDocument.h>

#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <Qel/graph/support/GraphErrors.h>
#include <Qel/graph/support/JsonKeys.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

struct Mistake
{
    qsizetype offset;
    QString what;
};

/// The first thing in a text that other languages allow and JSON does not.
std::optional<Mistake> firstHabit(const QByteArray& text)
{
    qsizetype comma = -1;
    for (qsizetype at = 0; at < text.size(); ++at) {
        const char c = text[at];
        if (c == '\'') {
            return Mistake{at, u"strings and keys stand in double quotes (\"), not in single ones (')"_s};
        }
        if (c == '/' && text.mid(at, 2) == "/*") {
            return Mistake{at, u"comments begin with // and end with the line"_s};
        }
        if ((c == ']' || c == '}') && comma >= 0) {
            return Mistake{comma, u"remove this comma: none may stand before \"%1\""_s.arg(QLatin1Char(c))};
        }
        if (c == '"') {
            at = endOfString(text, at) - 1;
        }
        if (c == ',') {
            comma = at;
        } else if (!QByteArrayView(" \t\r\n").contains(c)) {
            comma = -1;
        }
    }
    return {};
}

} // namespace

qsizetype endOfString(const QByteArray& text, qsizetype begin)
{
    qsizetype at = begin + 1;
    while (at < text.size() && text[at] != '"') {
        at += text[at] == '\\' ? 2 : 1;
    }
    return at + 1;
}

QByteArray withoutComments(QByteArray text)
{
    for (qsizetype at = 0; at < text.size(); ++at) {
        if (text[at] == '"') {
            at = endOfString(text, at) - 1;
        } else if (text[at] == '/' && at + 1 < text.size() && text[at + 1] == '/') {
            for (; at < text.size() && text[at] != '\n'; ++at) {
                text[at] = ' ';
            }
        }
    }
    return text;
}

std::optional<GraphDocument> GraphDocument::parse(const QByteArray& text, const QString& file,
                                                  QStringList* errors)
{
    GraphDocument document{file, withoutComments(text), {}};
    QJsonParseError error;
    const QJsonDocument json = QJsonDocument::fromJson(document.text, &error);
    if (error.error != QJsonParseError::NoError) {
        Mistake mistake{error.offset, u"not valid JSON: "_s + error.errorString()};
        const std::optional<Mistake> habit = firstHabit(document.text);
        // The parser stops at the character behind what it cannot read.
        if (habit && habit->offset <= error.offset + 1) {
            mistake = *habit;
        }
        GraphErrors(file, errors)
            .addLine(
                u"%1:%2: %3"_s.arg(file, JsonKeys::placeOf(document.text, mistake.offset), mistake.what));
        return {};
    }
    document.root = json.isArray() ? QJsonValue(json.array()) : QJsonValue(json.object());
    return document;
}

std::optional<QByteArray> readGraphText(const QString& file, qint64 limit, QString* what)
{
    QFile device(file);
    if (QFileInfo(file).isDir() || !device.open(QIODevice::ReadOnly)) {
        *what =
            u"cannot be read: "_s + (QFileInfo(file).isDir() ? u"it is a folder"_s : device.errorString());
        return {};
    }
    // A limit, because a device or a pipe may never end.
    QByteArray text = device.read(limit + 1);
    if (text.size() > limit) {
        *what = limit == largestGraphText ? u"is larger than 64 MiB, the limit for a graph file"_s
                                          : u"makes the files of the graph larger than 64 MiB together"_s;
        return {};
    }
    return text;
}

} // namespace Morvane::Qel
