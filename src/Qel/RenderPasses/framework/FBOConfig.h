#pragma once

#include <QString>
#include <QStringList>

#include <vector>

namespace Morvane::Qel {

/// One colour attachment of a pass that draws into several. Its index in the pass's list is the index of the
/// attachment.
struct FBOConfig
{
    FBOConfig(const QString& outputName, int internalFormat)
        : name(outputName)
        , format(internalFormat)
    {
    }
    /// The name of the fragment shader output that is written to the attachment.
    QString name;
    /// The sized internal format of the texture, such as GL_RGBA32F.
    int format;
};

/// Returns the names of the fragment shader outputs, in the order of the attachments.
inline QStringList fragmentOutputs(const std::vector<FBOConfig>& attachments)
{
    QStringList names;
    for (const FBOConfig& attachment : attachments) {
        names.append(attachment.name);
    }
    return names;
}

} // namespace Morvane::Qel
