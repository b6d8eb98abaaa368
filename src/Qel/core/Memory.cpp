#include <Qel/core/Memory.h>

#include <QByteArray>
#include <QFile>
#include <QString>

#include <unistd.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

/// Memory that can be used without swapping, in bytes.
double availableMemory()
{
    QFile file(u"/proc/meminfo"_s);
    if (file.open(QIODevice::ReadOnly)) {
        for (const QByteArray& line : file.readAll().split('\n')) {
            if (line.startsWith("MemAvailable:")) {
                return 1024.0 * line.simplified().split(' ').value(1).toDouble();
            }
        }
    }
    return static_cast<double>(sysconf(_SC_PHYS_PAGES)) * static_cast<double>(sysconf(_SC_PAGESIZE));
}

} // namespace

bool fitsMemory(double numBytes)
{
    return numBytes <= availableMemory() / 2.0;
}

} // namespace Morvane::Qel
