#pragma once

#include <QString>

namespace Morvane::Qel::App {

/// Writes the manual pages and the completions for shells into the subfolders of a folder such as /usr/share
/// in which man and the shells look for them. Throws Failure if one cannot be written.
void writeShare(const QString& folder);

} // namespace Morvane::Qel::App
