#pragma once

class QDoubleSpinBox;

namespace Morvane::Qel::Viewer {

/// Shows a number in a box without a signal. A box that shows it already is not painted again.
void showNumber(QDoubleSpinBox& box, double number);

} // namespace Morvane::Qel::Viewer
