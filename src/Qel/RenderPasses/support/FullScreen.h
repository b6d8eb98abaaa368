#pragma once

#include <QSharedPointer>
#include <QString>

#include <Qel/RenderPasses/framework/PassFrame.h>

namespace Morvane::Qel {

class DrawBuffers;
class ShaderProgram;

/// Adds the full-screen vertex stage and a fragment stage, whose output "out_FragColor" goes to draw buffer
/// 0.
void addFullScreenShaders(ShaderProgram* program, const QString& fragmentSource);

/// Builds a program that just got its sources, by binding it once; the host reports what is wrong with it.
void buildProgram(ShaderProgram* program);

/// Enables the arrays that a program reads on a batch's vertex array.
void enableArrays(const QSharedPointer<DrawBuffers>& batch, const ShaderProgram* program);

} // namespace Morvane::Qel
