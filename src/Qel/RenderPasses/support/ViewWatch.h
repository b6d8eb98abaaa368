#pragma once

#include <QMatrix4x4>
#include <QSize>
#include <QVariant>

namespace Morvane::Qel {

/// Detects changes of the view, on which the temporal passes restart. They share this rule so that the jitter
/// sequence and the mean of the frames restart on the same frame.
class ViewWatch
{
public:
    struct Change
    {
        bool size;
        /// Whether the size or a matrix changed, or the view is dirty.
        bool any;
    };

    /// Compares a view exactly with that of the previous call, and remembers it. A matrix that contains NaN
    /// always counts as changed. A null dirty flag counts as dirty.
    Change update(const QSize& size, const QMatrix4x4& projection, const QMatrix4x4& camera,
                  const QVariant& dirty)
    {
        const bool sizeChanged = size != m_size;
        const bool changed = dirty.isNull() || dirty.toBool() || sizeChanged || projection != m_projection ||
                             camera != m_camera;
        if (changed) {
            m_size = size;
            m_projection = projection;
            m_camera = camera;
        }
        return {sizeChanged, changed};
    }

private:
    QSize m_size{0, 0};
    QMatrix4x4 m_projection;
    QMatrix4x4 m_camera;
};

} // namespace Morvane::Qel
