#pragma once

#include <QStringList>

#include <memory>

#include <Qel/gl/ShaderProgram.h>

#include "support/Pixels.h"

namespace Morvane::Qel::Test {

/// A program with a vertex stage that passes on va_Vertex and a fragment stage of these sources; not built
/// yet.
std::unique_ptr<ShaderProgram> makeScreenProgram(const QStringList& fragmentSources);

/// What a program writes to a GL_RGBA32F target when it draws the full-screen triangle.
Pixels drawScreen(ShaderProgram& program, int width, int height);

} // namespace Morvane::Qel::Test
