#include <Qel/core/Text.h>

#include <QLocale>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

bool isInvisible(char32_t character)
{
    switch (QChar::category(character)) {
    case QChar::Other_Control:
    case QChar::Other_Format:
    case QChar::Other_Surrogate:
    case QChar::Separator_Line:
    case QChar::Separator_Paragraph:
        return true;
    default:
        return false;
    }
}

/// Number of code units of the character that begins at an index.
qsizetype lengthAt(QStringView text, qsizetype index)
{
    return text[index].isHighSurrogate() && index + 1 < text.size() && text[index + 1].isLowSurrogate() ? 2
                                                                                                        : 1;
}

/// Returns a character, given as one or two code units, as it can stand in a message.
QString visible(QStringView character)
{
    const char32_t code =
        character.size() == 2 ? QChar::surrogateToUcs4(character[0], character[1]) : character[0].unicode();
    if (code == U'\t') {
        return u" "_s;
    }
    if (code == U'\n') {
        return u"\\n"_s;
    }
    if (!isInvisible(code)) {
        return character.toString();
    }
    return code < 0x100 ? u"\\x%1"_s.arg(uint{code}, 2, 16, QLatin1Char('0'))
                        : u"\\u%1"_s.arg(uint{code}, 4, 16, QLatin1Char('0'));
}

} // namespace

QString printable(const QString& text, qsizetype longest)
{
    // No escape and no pair of surrogates is cut.
    QString begin;
    qsizetype at = 0;
    qsizetype beginSize = 0;
    qsizetype beginEnd = 0;
    while (at < text.size() && begin.size() <= longest) {
        const qsizetype length = lengthAt(text, at);
        begin += visible(QStringView(text).sliced(at, length));
        at += length;
        if (begin.size() <= longest * 2 / 3) {
            beginSize = begin.size();
            beginEnd = at;
        }
    }
    if (begin.size() <= longest) {
        return begin;
    }
    QString end;
    qsizetype endBegin = text.size();
    while (endBegin > beginEnd) {
        const qsizetype length = endBegin - beginEnd > 1 ? lengthAt(text, endBegin - 2) : 1;
        const QString piece = visible(QStringView(text).sliced(endBegin - length, length));
        if (end.size() + piece.size() > longest / 3) {
            break;
        }
        end.prepend(piece);
        endBegin -= length;
    }
    return u"%1 ...(%2 characters)... %3"_s.arg(begin.first(beginSize), grouped(endBegin - beginEnd), end);
}

QString grouped(qsizetype number)
{
    return QLocale(QLocale::English).toString(number);
}

} // namespace Morvane::Qel
