#pragma once

#include <QChar>
#include <QString>
#include <QStringList>

#include "Arguments.h"

namespace Morvane::Qel::App {

/// The files of --output: one, or one per frame if the name contains a conversion such as %04d.
class OutputFiles
{
public:
    /// Throws Failure if the pattern has more than one conversion.
    OutputFiles(const Arguments& options, const QString& pattern);

    bool isNumbered() const { return m_parts.size() == 2; }
    QString name(int frame) const;

private:
    /// The text before and after the number.
    QStringList m_parts = {QString()};
    QChar m_fill;
    int m_width = 0;
};

} // namespace Morvane::Qel::App
