#pragma once

#include <QByteArray>
#include <QJsonValue>
#include <QStringList>

#include <optional>

namespace Morvane::Qel {

/// The largest text of a graph, with all the files that it includes.
inline constexpr qint64 largestGraphText = qint64{64} << 20;

/// The text of a graph file: JSON, in which "//" begins a comment that ends with the line.
struct GraphDocument
{
    /// As it appears in messages.
    QString file;
    /// The comments are blanked, so that everything else stands in its place.
    QByteArray text;
    QJsonValue root;

    /// Returns nothing if the text is not valid, with one line in `errors`.
    static std::optional<GraphDocument> parse(const QByteArray& text, const QString& file,
                                              QStringList* errors);
};

/// A text with its comments blanked.
QByteArray withoutComments(QByteArray text);
/// Offset behind the string that begins at an offset of a JSON text.
qsizetype endOfString(const QByteArray& text, qsizetype begin);

/// Reads a file of at most `limit` bytes. Returns nothing if that fails, with its cause in `what`.
std::optional<QByteArray> readGraphText(const QString& file, qint64 limit, QString* what);

} // namespace Morvane::Qel
