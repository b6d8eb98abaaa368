#pragma once

#include <QLatin1StringView>
#include <QString>

#include <array>

namespace Morvane::Qel {

/// What a graph knows of the frame and hands to every input of that name and type that nobody connects.
enum class FrameValue : int
{
    Viewport,
    ProjectionMatrix,
    CameraMatrix,
    NearPlane,
    FarPlane,
    SceneBoundsMin,
    SceneBoundsMax,
    Lights,
};

struct FrameValueName
{
    QLatin1StringView name;
    /// The type field of the ports that take it.
    QLatin1StringView type;
};

/// In the order of the enumeration.
inline constexpr std::array frameValueNames{
    FrameValueName{QLatin1StringView("Viewport"), QLatin1StringView("QRect")},
    FrameValueName{QLatin1StringView("ProjectionMatrix"), QLatin1StringView("QMatrix4x4")},
    FrameValueName{QLatin1StringView("CameraMatrix"), QLatin1StringView("QMatrix4x4")},
    FrameValueName{QLatin1StringView("NearPlane"), QLatin1StringView("float")},
    FrameValueName{QLatin1StringView("FarPlane"), QLatin1StringView("float")},
    FrameValueName{QLatin1StringView("SceneBoundsMin"), QLatin1StringView("QVector3D")},
    FrameValueName{QLatin1StringView("SceneBoundsMax"), QLatin1StringView("QVector3D")},
    FrameValueName{QLatin1StringView("Lights"), QLatin1StringView("QList_QelShadowMapManagerLight*")},
};
inline constexpr size_t numFrameValues = frameValueNames.size();

/// The index of a frame value's name, -1 when there is none of this name.
inline int findFrameValue(const QString& name)
{
    for (size_t i = 0; i < numFrameValues; ++i) {
        if (frameValueNames[i].name == name) {
            return static_cast<int>(i);
        }
    }
    return -1;
}

} // namespace Morvane::Qel
