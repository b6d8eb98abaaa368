#pragma once

#include <QStringList>

#include "Failure.h"

/// The commands, one per source file. Each takes the arguments after its name and throws Failure on errors.
namespace Morvane::Qel::App {

ExitCode render(const QStringList& arguments);
ExitCode passes(const QStringList& arguments);
ExitCode graph(const QStringList& arguments);
ExitCode compare(const QStringList& arguments);
ExitCode info(const QStringList& arguments);
ExitCode schema(const QStringList& arguments);

} // namespace Morvane::Qel::App
