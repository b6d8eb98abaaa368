#pragma once

#include <QString>

#include <Qel/RenderPasses/Export.h>

namespace Morvane::Qel {

/// Base of passes that load image files and use a fallback for those that they cannot read. The passes log
/// nothing; a host asks for the problem after each `start` and decides what it means. A graph fails the
/// frame, or goes on with RenderGraph::Options::keepGoing.
class QEL_RENDERPASSES_EXPORT ImageLoader
{
public:
    virtual ~ImageLoader();

    /// Says which of the image files in use could not be read, and why, in one line; empty if there is none.
    const QString& imageProblem() const { return m_imageProblem; }

protected:
    QString m_imageProblem;
};

} // namespace Morvane::Qel
