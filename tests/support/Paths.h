#pragma once

#include <QString>

namespace Morvane::Qel::Test {

/// The absolute path of a file of the source tree, from its path below the root:
/// "examples/scenes/arcade.obj".
QString sourcePath(const QString& relative);

/// The path of the program `qel` that was just built.
QString programPath();

} // namespace Morvane::Qel::Test
