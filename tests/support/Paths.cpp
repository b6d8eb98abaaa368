#include "support/Paths.h"

using namespace Qt::StringLiterals;

namespace Morvane::Qel::Test {

QString sourcePath(const QString& relative)
{
    return QLatin1StringView(QEL_SOURCE_DIR "/") + relative;
}

#ifdef QEL_PROGRAM
QString programPath()
{
    return u"" QEL_PROGRAM ""_s;
}
#endif

} // namespace Morvane::Qel::Test
