#include "CameraPanel.h"

#include <QApplication>
#include <QClipboard>
#include <QDoubleSpinBox>
#include <QGridLayout>
#include <QLabel>
#include <QPushButton>
#include <QVBoxLayout>

#include <array>

#include "CameraMotion.h"
#include "GraphSession.h"
#include "NumberDisplay.h"

using namespace Qt::StringLiterals;

namespace Morvane::Qel::Viewer {

namespace {

std::array<float, 13> numbersOf(const CameraDescription& camera)
{
    return {camera.eye.x(),
            camera.eye.y(),
            camera.eye.z(),
            camera.target.x(),
            camera.target.y(),
            camera.target.z(),
            camera.up.x(),
            camera.up.y(),
            camera.up.z(),
            camera.fovY,
            camera.nearPlane,
            camera.farPlane,
            camera.height.value_or(0.0F)};
}

} // namespace

CameraPanel::CameraPanel(GraphSession& session, QWidget* parent)
    : QWidget(parent)
    , m_session(session)
{
    auto* column = new QVBoxLayout(this);
    auto* grid = new QGridLayout;
    column->addLayout(grid);
    const auto addBox = [&](int row, int place, const QString& name, double low, double high) {
        auto* box = new QDoubleSpinBox;
        box->setRange(low, high);
        box->setDecimals(4);
        box->setSingleStep(0.1);
        box->setKeyboardTracking(false);
        box->setMinimumWidth(56);
        box->setSizePolicy(QSizePolicy::Ignored, QSizePolicy::Fixed);
        box->setObjectName(u"camera.%1%2"_s.arg(name).arg(place));
        grid->addWidget(box, row, 1 + place);
        connect(box, &QDoubleSpinBox::valueChanged, this, &CameraPanel::apply);
        m_boxes.append(box);
    };
    constexpr double far = 1e6;
    const auto addRow = [&](int row, const QString& title, const QString& name) {
        grid->addWidget(new QLabel(title), row, 0);
        for (int i = 0; i < 3; ++i) {
            addBox(row, i, name, -far, far);
        }
    };
    addRow(0, tr("Eye"), u"eye"_s);
    addRow(1, tr("Target"), u"target"_s);
    addRow(2, tr("Up"), u"up"_s);
    grid->addWidget(new QLabel(tr("Field of view")), 3, 0);
    addBox(3, 0, u"fovY"_s, 1.0, 179.0);
    m_boxes.last()->setSuffix(u"°"_s);
    grid->addWidget(new QLabel(tr("Near, far")), 4, 0);
    addBox(4, 0, u"near"_s, 1e-4, far);
    addBox(4, 1, u"far"_s, 1e-3, far);
    grid->addWidget(new QLabel(tr("Height")), 5, 0);
    addBox(5, 0, u"height"_s, 0.0, far);
    m_boxes.last()->setSpecialValueText(tr("none"));
    m_boxes.last()->setToolTip(tr("The height of an orthographic view; 0 for perspective"));

    auto* views = new QGridLayout;
    column->addLayout(views);
    const auto addButton = [&](const QString& text, const QString& toolTip, int row, int place, int span,
                               const std::function<void()>& call) {
        auto* button = new QPushButton(text);
        button->setToolTip(toolTip);
        button->setObjectName(u"camera."_s + text);
        button->setMinimumWidth(32);
        views->addWidget(button, row, place, 1, span);
        connect(button, &QPushButton::clicked, this, call);
    };
    const std::array<std::pair<QString, QVector3D>, 6> directions{{{u"+X"_s, {1, 0, 0}},
                                                                   {u"-X"_s, {-1, 0, 0}},
                                                                   {u"+Y"_s, {0, 1, 0}},
                                                                   {u"-Y"_s, {0, -1, 0}},
                                                                   {u"+Z"_s, {0, 0, 1}},
                                                                   {u"-Z"_s, {0, 0, -1}}}};
    for (int i = 0; i < 6; ++i) {
        const auto& [name, direction] = directions[static_cast<size_t>(i)];
        addButton(name, tr("Looks along %1").arg(name), 0, i, 1, [this, along = direction] {
            const CameraDescription fitted = m_session.fittedCamera();
            m_session.setCamera(withPlanesFor(alongAxis(fitted, along), fitted));
        });
    }
    addButton(tr("Fit"), tr("Shows all models"), 1, 0, 3, [this] { fit(); });
    addButton(tr("Camera of the graph"), tr("Back to the camera of the graph file"), 1, 3, 3,
              [this] { useGraphCamera(); });
    addButton(tr("Copy"), tr("Copies the camera as JSON of a graph file"), 2, 0, 2, [this] { copy(); });
    addButton(tr("Paste"), tr("Takes a camera from the clipboard"), 2, 2, 2, [this] { paste(); });
    addButton(tr("Store"), tr("Makes this the camera of the graph"), 2, 4, 2,
              [this] { Q_EMIT storeRequested(); });
    column->addStretch(1);
    connect(&session, &GraphSession::frameRendered, this, &CameraPanel::update, Qt::QueuedConnection);
}

void CameraPanel::fit()
{
    m_session.setCamera(m_session.fittedCamera());
}

void CameraPanel::useGraphCamera()
{
    m_session.setCamera({});
}

void CameraPanel::copy() const
{
    QApplication::clipboard()->setText(QString::fromUtf8(cameraToJson(m_session.camera())));
}

void CameraPanel::paste()
{
    QString error;
    if (const auto camera = cameraFromJson(QApplication::clipboard()->text().toUtf8(), &error)) {
        m_session.setCamera(*camera);
    } else {
        Q_EMIT failed(error);
    }
}

void CameraPanel::update()
{
    const std::array<float, 13> numbers = numbersOf(m_session.camera());
    for (qsizetype i = 0; i < m_boxes.size(); ++i) {
        if (!m_boxes[i]->hasFocus()) {
            showNumber(*m_boxes[i], static_cast<double>(numbers[static_cast<size_t>(i)]));
        }
    }
}

void CameraPanel::apply()
{
    CameraDescription camera = m_session.camera();
    const auto number = [&](qsizetype i) { return static_cast<float>(m_boxes[i]->value()); };
    camera.eye = {number(0), number(1), number(2)};
    camera.target = {number(3), number(4), number(5)};
    camera.up = {number(6), number(7), number(8)};
    camera.fovY = number(9);
    camera.nearPlane = number(10);
    camera.farPlane = number(11);
    camera.height = number(12) > 0.0F ? std::optional(number(12)) : std::nullopt;
    if (const QString error = cameraError(camera); !error.isEmpty()) {
        Q_EMIT failed(error);
        return;
    }
    m_session.setCamera(camera);
}

} // namespace Morvane::Qel::Viewer
