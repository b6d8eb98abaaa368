#include "NumberDisplay.h"

#include <QDoubleSpinBox>
#include <QSignalBlocker>

#include <algorithm>
#include <cmath>

namespace Morvane::Qel::Viewer {

void showNumber(QDoubleSpinBox& box, double number)
{
    // The box rounds to its decimals.
    const double half = 0.5 * std::pow(10.0, -box.decimals());
    if (!(std::abs(box.value() - std::clamp(number, box.minimum(), box.maximum())) <= half)) {
        const QSignalBlocker blocker(box);
        box.setValue(number);
    }
}

} // namespace Morvane::Qel::Viewer
