#include "OutputFiles.h"

#include <QRegularExpression>

using namespace Qt::StringLiterals;

namespace Morvane::Qel::App {

OutputFiles::OutputFiles(const Arguments& options, const QString& pattern)
{
    static const QRegularExpression conversion(u"%(?:(%)|(0?)([1-9][0-9]?)?d|)"_s);
    qsizetype end = 0;
    for (auto matches = conversion.globalMatch(pattern); matches.hasNext();) {
        const QRegularExpressionMatch match = matches.next();
        m_parts.back() += pattern.sliced(end, match.capturedStart() - end);
        end = match.capturedEnd();
        if (match.hasCaptured(1)) {
            m_parts.back() += u'%';
        } else if (match.capturedLength() > 1 && m_parts.size() == 1) {
            m_fill = match.captured(2).isEmpty() ? u' ' : u'0';
            m_width = match.captured(3).toInt();
            m_parts.append(QString());
        } else {
            options.fail(u"--output %1: the name may contain only one number such as %04d; "
                         "write %% for a percent sign"_s.arg(pattern));
        }
    }
    m_parts.back() += pattern.sliced(end);
}

QString OutputFiles::name(int frame) const
{
    return isNumbered() ? m_parts[0] + u"%1"_s.arg(frame, m_width, 10, m_fill) + m_parts[1] : m_parts[0];
}

} // namespace Morvane::Qel::App
