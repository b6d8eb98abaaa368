#pragma once

#include <Qel/core/Export.h>

namespace Morvane::Qel {

/// Whether a number of bytes leaves half of the memory that the machine has available now. Ask before an
/// allocation whose size comes from a file: systems promise more memory than they have and then end the
/// process.
QEL_CORE_EXPORT bool fitsMemory(double numBytes);

} // namespace Morvane::Qel
