#pragma once

#include <QString>

/// Scripts that complete the arguments of the program in a shell.
namespace Morvane::Qel::App {

QString bashCompletion();
QString zshCompletion();
QString fishCompletion();

} // namespace Morvane::Qel::App
