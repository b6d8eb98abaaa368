#pragma once

#include "Arguments.h"

/// The manual pages, in roff with the macros of man(7).
namespace Morvane::Qel::App {

/// qel-COMMAND.1.
QString manualPage(const Arguments& arguments);
/// qel.1.
QString manualPage();

} // namespace Morvane::Qel::App
