#pragma once

#include <set>
#include <vector>

#include "Arguments.h"

/// The text of --help, and the texts that it shares with the manual pages.
namespace Morvane::Qel::App {

/// What `qel COMMAND --help` prints.
QString helpText(const Arguments& arguments);
/// What `qel --help` prints.
QString helpText();

/// What the program does.
QString programDescription();
/// What an exit code means.
QString meaningOf(ExitCode code);
/// How the program ends on a signal.
QString signalText();
/// The options that the program has besides its commands.
const std::vector<OptionSyntax>& programOptions();
/// Every exit code that some command has.
std::set<ExitCode> allExitCodes();
/// "qel render [OPTION]... GRAPH".
QString synopsis(const Arguments& arguments);

} // namespace Morvane::Qel::App
