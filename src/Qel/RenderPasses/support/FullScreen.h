#pragma once

#include <QSharedPointer>
#include <QString>

namespace Morvane::Qel {

class DrawBuffers;
class ShaderProgram;

/// The vertex stage of the full-screen passes: va_Vertex, in clip space, becomes the position and va_TexCoord
/// the varying vo_TexCoord.
extern const QString fullScreenVertexSource;

/// Adds the full-screen vertex stage and a fragment stage, whose output "out_FragColor" goes to draw buffer
/// 0.
void addFullScreenShaders(ShaderProgram* program, const QString& fragmentSource);

/// Builds a program that just got its sources, by binding it once; the host reports what is wrong with it.
void buildProgram(ShaderProgram* program);

/// Enables the arrays that a program reads on a batch's vertex array.
void enableArrays(const QSharedPointer<DrawBuffers>& batch, const ShaderProgram* program);

/// Draws a batch with its vertex array bound for the call; false when nothing was drawn.
bool drawBatch(DrawBuffers* batch);

} // namespace Morvane::Qel
