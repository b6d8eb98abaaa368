#pragma once

#include <QStringList>

#include "Failure.h"

/// The commands, each in a source file of its own. They get what follows their name on the command line, and
/// throw Failure.
namespace Morvane::Qel::App {

ExitCode render(const QStringList& arguments);
ExitCode passes(const QStringList& arguments);
ExitCode graph(const QStringList& arguments);
ExitCode compare(const QStringList& arguments);
ExitCode info(const QStringList& arguments);

} // namespace Morvane::Qel::App
