#pragma once

#include <QString>

namespace Morvane::Qel {

/// Returns why the numbers in the header of an EXR file cannot be true, as a phrase about the file; empty if
/// they can. The part of the EXR library that reads pixels allocates memory by these numbers before it
/// compares them with the file, so a file of a few bytes could take gigabytes.
QString exrHeaderProblem(const QString& path, int maxSide);

} // namespace Morvane::Qel
