#pragma once

#include <QString>

namespace Morvane::Qel {

/// A colour attachment of a pass that renders into several; its place in the pass's list is the attachment's
/// number.
struct FBOConfig
{
    FBOConfig(const QString& outputName, int internalFormat)
        : name(outputName)
        , format(internalFormat)
    {
    }
    /// The fragment output that is written into it.
    QString name;
    /// GL's sized internal format.
    int format;
};

} // namespace Morvane::Qel
