#pragma once

#include <QJsonValue>
#include <QWidget>

#include <Qel/core/PassDescription.h>

#include "PortRange.h"

namespace Morvane::Qel::Viewer {

/// Edits one value as it stands in a graph file.
class ValueEditor : public QWidget
{
    Q_OBJECT
public:
    using QWidget::QWidget;

    /// Shows a value without a signal; null shows that there is none.
    virtual void setValue(const QJsonValue& value) = 0;

    /// The editor for a port of this type, null for types that only connections give. `folder` is where the
    /// choice of a file starts.
    static ValueEditor* forPort(const QString& type, const PortRange& range, const QString& folder);
    /// The editor for an option; null for one that has no editor.
    static ValueEditor* forOption(const OptionDescription& option, const QString& folder);

Q_SIGNALS:
    /// The user has chosen another value.
    void edited(const QJsonValue& value);
};

} // namespace Morvane::Qel::Viewer
