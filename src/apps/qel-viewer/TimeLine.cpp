#include "TimeLine.h"

#include <QHBoxLayout>
#include <QJsonArray>
#include <QLabel>
#include <QSignalBlocker>
#include <QSlider>
#include <QSpinBox>
#include <QToolButton>

#include <algorithm>
#include <cmath>

#include "Document.h"
#include "GraphSession.h"

using namespace Qt::StringLiterals;

namespace Morvane::Qel::Viewer {

namespace {

const QString playText = u"▶"_s;
const QString pauseText = u"❚❚"_s;

} // namespace

int lastFrame(const GraphDescription& graph)
{
    if (graph.animation) {
        return graph.animation->frames - 1;
    }
    int last = -1;
    const auto look = [&](const QJsonValue& value) {
        const QJsonArray keys = value[u"keys"].toArray();
        for (const QJsonValue key : keys) {
            last = std::max(last, static_cast<int>(std::ceil(key[0].toDouble())));
        }
    };
    for (const ParameterDescription& parameter : graph.parameters) {
        look(parameter.value);
    }
    for (const BoundValue& bound : graph.boundValues) {
        look(bound.value);
    }
    for (const PassSetting& pass : graph.passes) {
        for (const InputSetting& input : pass.inputs) {
            look(input.value);
        }
    }
    return last;
}

TimeLine::TimeLine(GraphSession& session, Document& document, QWidget* parent)
    : QWidget(parent)
    , m_session(session)
    , m_document(document)
    , m_slider(new QSlider(Qt::Horizontal))
    , m_number(new QSpinBox)
    , m_label(new QLabel)
{
    auto* row = new QHBoxLayout(this);
    row->setContentsMargins(6, 2, 6, 2);
    const auto addButton = [&](const QString& text, const QString& name, const QString& toolTip,
                               const std::function<void()>& call) {
        auto* button = new QToolButton;
        // Icons of the toolkit are black on a dark background.
        button->setText(text);
        button->setAutoRaise(true);
        button->setToolTip(toolTip);
        button->setObjectName(u"time."_s + name);
        button->setAccessibleName(toolTip);
        row->addWidget(button);
        connect(button, &QToolButton::clicked, this, call);
        return button;
    };
    addButton(u"|◀"_s, u"first"_s, tr("First frame"), [this] { goTo(0); });
    addButton(u"-1"_s, u"back"_s, tr("One frame back (,)"), [this] { step(-1); });
    m_play = addButton(playText, u"play"_s, tr("Play or pause (P)"), [this] { setPlaying(!m_isPlaying); });
    addButton(u"+1"_s, u"forward"_s, tr("One frame forward (.)"), [this] { step(1); });
    m_loop = addButton(u"↻"_s, u"loop"_s, tr("Begin again after the last frame"), [] {});
    m_loop->setCheckable(true);
    m_loop->setChecked(true);
    m_slider->setObjectName(u"time.slider"_s);
    m_slider->setAccessibleName(tr("Frame"));
    m_number->setObjectName(u"time.frame"_s);
    m_number->setToolTip(tr("Frame"));
    m_number->setKeyboardTracking(false);
    row->addWidget(m_slider, 1);
    row->addWidget(m_number);
    row->addWidget(m_label);
    m_timer.setSingleShot(true);
    m_timer.setTimerType(Qt::PreciseTimer);
    connect(m_slider, &QSlider::valueChanged, this, &TimeLine::goTo);
    connect(m_number, &QSpinBox::valueChanged, this, &TimeLine::goTo);
    connect(&m_timer, &QTimer::timeout, this, &TimeLine::playNext);
    connect(&document, &Document::opened, this, [this] { setPlaying(false); });
    connect(&document, &Document::changed, this, &TimeLine::update);
    connect(&session, &GraphSession::frameNumberChanged, this, &TimeLine::showFrame);
    connect(&session, &GraphSession::frameRendered, this, &TimeLine::scheduleNext, Qt::QueuedConnection);
    // Also if it fails as at the last attempt, which changes no error.
    connect(&session, &GraphSession::frameFailed, this, [this] { setPlaying(false); });
    connect(&session, &GraphSession::errorsChanged, this, [this] {
        if (!m_session.errors().isEmpty()) {
            setPlaying(false);
        }
    });
    update();
}

void TimeLine::update()
{
    m_last = lastFrame(m_document.graph());
    m_fps = m_document.graph().animation.value_or(AnimationDescription()).fps;
    setVisible(m_last > 0);
    if (m_last <= 0) {
        setPlaying(false);
        return;
    }
    const QSignalBlocker sliderBlocker(m_slider);
    const QSignalBlocker numberBlocker(m_number);
    m_slider->setRange(0, m_last);
    m_number->setRange(0, m_last);
    m_label->setText(tr("of %1, %2 fps").arg(m_last).arg(m_fps));
    if (m_session.frameNumber() > m_last) {
        m_session.setFrameNumber(m_last);
    }
    showFrame();
}

void TimeLine::showFrame()
{
    const QSignalBlocker sliderBlocker(m_slider);
    const QSignalBlocker numberBlocker(m_number);
    m_slider->setValue(m_session.frameNumber());
    m_number->setValue(m_session.frameNumber());
}

void TimeLine::setPlaying(bool isPlaying)
{
    if (isPlaying == m_isPlaying || (isPlaying && m_last <= 0)) {
        return;
    }
    m_isPlaying = isPlaying;
    m_play->setText(isPlaying ? pauseText : playText);
    m_session.setPlaying(isPlaying);
    if (!isPlaying) {
        m_timer.stop();
        return;
    }
    if (m_session.frameNumber() >= m_last) {
        m_session.setFrameNumber(0);
    }
    m_age.start();
    m_session.requestFrame();
}

void TimeLine::goTo(int frame)
{
    setPlaying(false);
    m_session.setFrameNumber(std::clamp(frame, 0, std::max(m_last, 0)));
}

void TimeLine::step(int frames)
{
    goTo(m_session.frameNumber() + frames);
}

/// Every frame is rendered, so that passes with a history see all of them; a slow graph plays slower.
void TimeLine::scheduleNext()
{
    if (m_isPlaying && !m_timer.isActive()) {
        constexpr double second = 1000.0;
        const auto due = static_cast<qint64>(second / static_cast<double>(m_fps));
        m_timer.start(static_cast<int>(std::max<qint64>(due - m_age.elapsed(), 0)));
    }
}

void TimeLine::playNext()
{
    if (m_session.frameNumber() >= m_last && !m_loop->isChecked()) {
        setPlaying(false);
        return;
    }
    m_age.start();
    m_session.setFrameNumber(m_session.frameNumber() >= m_last ? 0 : m_session.frameNumber() + 1);
}

} // namespace Morvane::Qel::Viewer
