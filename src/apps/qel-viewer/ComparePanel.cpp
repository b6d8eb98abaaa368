#include "ComparePanel.h"

#include <QCheckBox>
#include <QComboBox>
#include <QFormLayout>
#include <QLabel>
#include <QPushButton>
#include <QSignalBlocker>

#include <algorithm>
#include <cmath>
#include <variant>

#include <Qel/graph/ImageMetrics.h>

#include "OutputStore.h"
#include "SteadyLabel.h"
#include "TextureView.h"

using namespace Qt::StringLiterals;

namespace Morvane::Qel::Viewer {

namespace {

constexpr int numFixedChoices = 2;

/// Clamps floats to what a screen shows, as the metrics need; returns whether that changed any.
bool clampToScreen(Image& image)
{
    bool isChanged = false;
    if (auto* samples = std::get_if<std::vector<float>>(&image.samples)) {
        for (float& sample : *samples) {
            const float clamped = std::isnan(sample) ? 0.0F : std::clamp(sample, 0.0F, 1.0F);
            isChanged = isChanged || clamped != sample;
            sample = clamped;
        }
    }
    return isChanged;
}

} // namespace

ComparePanel::ComparePanel(TextureView& view, OutputStore& store, QWidget* parent)
    : QWidget(parent)
    , m_view(view)
    , m_store(store)
    , m_with(new QComboBox)
    , m_difference(new QCheckBox(tr("Show the difference")))
    , m_result(new SteadyLabel)
{
    auto* form = new QFormLayout(this);
    auto* snapshot = new QPushButton(tr("Take a snapshot"));
    snapshot->setObjectName(u"snapshot"_s);
    snapshot->setToolTip(tr("Keeps the shown values to compare later ones with"));
    form->addRow(snapshot);
    m_with->setObjectName(u"compareWith"_s);
    m_with->addItems({tr("nothing"), tr("the snapshot")});
    form->addRow(tr("Compare with"), m_with);
    m_difference->setObjectName(u"difference"_s);
    m_difference->setToolTip(tr("The absolute difference; otherwise drag the line between the two"));
    form->addRow(m_difference);
    QLabel& result = m_result->label();
    result.setObjectName(u"metrics"_s);
    result.setTextInteractionFlags(Qt::TextSelectableByMouse);
    result.setWordWrap(true);
    result.setAlignment(Qt::AlignTop);
    form->addRow(m_result);
    m_timer.setSingleShot(true);
    m_timer.setInterval(250);
    connect(&m_timer, &QTimer::timeout, this, &ComparePanel::measure);
    connect(snapshot, &QPushButton::clicked, this, &ComparePanel::takeSnapshot);
    connect(m_with, &QComboBox::activated, this, &ComparePanel::apply);
    connect(m_difference, &QCheckBox::clicked, this, &ComparePanel::apply);
    connect(&store, &OutputStore::updated, this, &ComparePanel::updateChoices);
    connect(&view, &TextureView::shownChanged, &m_timer, qOverload<>(&QTimer::start));
}

void ComparePanel::takeSnapshot()
{
    m_view.takeSnapshot();
    if (m_with->currentIndex() <= 0) {
        m_with->setCurrentIndex(1);
    }
    apply();
}

void ComparePanel::updateChoices()
{
    QStringList names;
    for (const OutputInfo& output : m_store.outputs()) {
        if (output.isTexture) {
            names.append(output.name.text());
        }
    }
    QStringList shown;
    for (int i = numFixedChoices; i < m_with->count(); ++i) {
        shown.append(m_with->itemText(i));
    }
    if (names == shown) {
        return;
    }
    const QString current = m_with->currentText();
    while (m_with->count() > numFixedChoices) {
        m_with->removeItem(numFixedChoices);
    }
    m_with->addItems(names);
    m_with->setCurrentIndex(std::max(m_with->findText(current), 0));
    apply();
}

void ComparePanel::apply()
{
    ComparisonChoice choice;
    choice.isDifference = m_difference->isChecked();
    if (m_with->currentIndex() == 1) {
        choice.with = ComparisonChoice::With::Snapshot;
    } else if (m_with->currentIndex() > 1) {
        choice.with = ComparisonChoice::With::Output;
        for (const OutputInfo& output : m_store.outputs()) {
            if (output.name.text() == m_with->currentText()) {
                choice.output = output.name;
            }
        }
    }
    m_view.setComparison(choice);
    m_timer.start();
}

void ComparePanel::measure()
{
    if (!isVisible() || m_with->currentIndex() <= 0) {
        m_result->setText({});
        return;
    }
    std::vector<Image> images = m_view.comparedImages();
    if (images.size() != 2 || images[0].width == 0 || images[1].width == 0) {
        m_result->setText(tr("There is nothing to compare with yet."));
        return;
    }
    bool isClamped = false;
    for (Image& image : images) {
        isClamped = clampToScreen(image) || isClamped;
    }
    QString error;
    const std::optional<ImagePair> pair = ImagePair::match(images[0], images[1], true, &error);
    if (!pair) {
        m_result->setText(error);
        return;
    }
    const double ratio = psnr(*pair);
    QString text = u"PSNR "_s + (std::isinf(ratio)   ? tr("infinite: the images are equal")
                                 : std::isnan(ratio) ? tr("undefined")
                                                     : tr("%1 dB").arg(ratio, 0, 'f', 2));
    if (const auto similarity = ssim(*pair, ColorEncoding::Srgb, &error)) {
        text += u"\nSSIM %1"_s.arg(similarity->mean, 0, 'f', 5);
    } else {
        text += u"\nSSIM: "_s + error;
    }
    m_result->setText(isClamped ? text + u'\n' + tr("of the values from 0 to 1") : text);
}

} // namespace Morvane::Qel::Viewer
