#pragma once

#include <QMatrix4x4>
#include <QSize>
#include <QVariant>

namespace Morvane::Qel {

/// Notices that a view is no longer the same: the rule by which the temporal passes restart, kept in one
/// place so that the sequence of jitters and the mean of the frames begin together.
class ViewWatch
{
public:
    struct Change
    {
        bool size;
        /// The size, a matrix or the dirty flag.
        bool any;
    };

    /// Compares with the view that was seen last, exactly, and keeps this one. A NaN differs from everything.
    /// A dirty flag that nobody set counts as dirty.
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
