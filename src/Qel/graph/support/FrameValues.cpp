#include <Qel/graph/support/FrameValues.h>

#include <array>

namespace Morvane::Qel {

namespace {

struct NamedFrameValue
{
    QLatin1StringView name;
    QLatin1StringView type;
};

/// In the order of the enumeration.
constexpr std::array<NamedFrameValue, numFrameValues> frameValues{{
    {QLatin1StringView("Viewport"), QLatin1StringView("QRect")},
    {QLatin1StringView("ProjectionMatrix"), QLatin1StringView("QMatrix4x4")},
    {QLatin1StringView("CameraMatrix"), QLatin1StringView("QMatrix4x4")},
    {QLatin1StringView("NearPlane"), QLatin1StringView("float")},
    {QLatin1StringView("FarPlane"), QLatin1StringView("float")},
    {QLatin1StringView("SceneBoundsMin"), QLatin1StringView("QVector3D")},
    {QLatin1StringView("SceneBoundsMax"), QLatin1StringView("QVector3D")},
    {QLatin1StringView("Lights"), QLatin1StringView("QList_QelShadowMapManagerLight*")},
    {QLatin1StringView("Time"), QLatin1StringView("float")},
    {QLatin1StringView("FrameNumber"), QLatin1StringView("int")},
    {QLatin1StringView("DeltaTime"), QLatin1StringView("float")},
    {QLatin1StringView("NewFrame"), QLatin1StringView("bool")},
}};

} // namespace

std::optional<FrameValue> findFrameValue(const QString& name)
{
    for (size_t i = 0; i < frameValues.size(); ++i) {
        if (frameValues[i].name == name) {
            return static_cast<FrameValue>(i);
        }
    }
    return {};
}

QString nameOf(FrameValue value)
{
    return frameValues[static_cast<size_t>(value)].name;
}

QString typeOf(FrameValue value)
{
    return frameValues[static_cast<size_t>(value)].type;
}

QStringList allFrameValueNames()
{
    QStringList names;
    for (const NamedFrameValue& value : frameValues) {
        names.append(value.name);
    }
    return names;
}

} // namespace Morvane::Qel
