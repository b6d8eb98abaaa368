#pragma once

#include <QString>
#include <QStringList>

#include <vector>

namespace Morvane::Qel {

/// One colour attachment of a pass that draws into several. Its position in the pass's list is the number of
/// the attachment.
struct FBOConfig
{
    FBOConfig(const QString& outputName, int internalFormat)
        : name(outputName)
        , format(internalFormat)
    {
    }
    /// The fragment shader output that is written into the attachment.
    QString name;
    /// The sized internal format of the texture, such as GL_RGBA32F.
    int format;
};

/// Returns the fragment shader outputs of a list of attachments, in order.
inline QStringList fragmentOutputs(const std::vector<FBOConfig>& attachments)
{
    QStringList names;
    for (const FBOConfig& attachment : attachments) {
        names.append(attachment.name);
    }
    return names;
}

} // namespace Morvane::Qel
