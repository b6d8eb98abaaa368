#include "StartPage.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QDir>
#include <QFileInfo>
#include <QStandardPaths>

using namespace Qt::StringLiterals;

namespace Morvane::Qel::Viewer {

namespace {

constexpr QSize pictureSize(256, 144);
constexpr int pathRole = Qt::UserRole;

} // namespace

StartPage::StartPage(QWidget* parent)
    : QListWidget(parent)
{
    setObjectName(u"examples"_s);
    setViewMode(IconMode);
    setResizeMode(Adjust);
    setMovement(Static);
    setIconSize(pictureSize);
    setSpacing(12);
    setUniformItemSizes(true);
    setFrameShape(NoFrame);
    QPixmap empty(pictureSize);
    empty.fill(palette().color(QPalette::AlternateBase));
    const QDir folder(examplesFolder());
    for (const QFileInfo& file : folder.entryInfoList({u"*.json"_s}, QDir::Files, QDir::Name)) {
        auto* item = new QListWidgetItem(QIcon(empty), file.completeBaseName(), this);
        item->setData(pathRole, file.absoluteFilePath());
        item->setToolTip(file.absoluteFilePath());
    }
    const auto choose = [this](const QListWidgetItem* item) {
        Q_EMIT chosen(item->data(pathRole).toString());
    };
    connect(this, &QListWidget::itemClicked, this, choose);
    connect(this, &QListWidget::itemActivated, this, choose);
    m_process.setStandardErrorFile(QProcess::nullDevice());
    connect(&m_process, &QProcess::finished, this, [this] {
        if (QListWidgetItem* shown = item(m_next)) {
            const QPixmap picture(pictureOf(shown->data(pathRole).toString()));
            if (!picture.isNull()) {
                shown->setIcon(picture);
            }
        }
        ++m_next;
        renderNext();
    });
}

StartPage::~StartPage()
{
    m_process.disconnect(this);
    m_process.kill();
    m_process.waitForFinished();
}

QString StartPage::examplesFolder()
{
    const QString program = QCoreApplication::applicationDirPath();
    // Beside the installed program, and beside the build tree.
    for (const QString& folder : {u"/../share/qel/examples/graphs"_s, u"/../../../examples/graphs"_s}) {
        if (QFileInfo(program + folder).isDir()) {
            return QDir::cleanPath(program + folder);
        }
    }
    return {};
}

/// The file of a picture, which another version of the graph does not share.
QString StartPage::pictureOf(const QString& graph)
{
    const QFileInfo file(graph);
    const QString folder = QStandardPaths::writableLocation(QStandardPaths::CacheLocation);
    return u"%1/examples/%2-%3.png"_s.arg(folder, file.completeBaseName())
        .arg(file.lastModified().toSecsSinceEpoch());
}

void StartPage::showEvent(QShowEvent* event)
{
    QListWidget::showEvent(event);
    if (m_process.state() == QProcess::NotRunning && m_next < count()) {
        renderNext();
    }
}

void StartPage::renderNext()
{
    for (; m_next < count() && isVisible(); ++m_next) {
        const QString graph = item(m_next)->data(pathRole).toString();
        const QString picture = pictureOf(graph);
        if (!QFileInfo::exists(picture)) {
            QDir().mkpath(QFileInfo(picture).absolutePath());
            m_process.start(QCoreApplication::applicationDirPath() + u"/qel"_s,
                            {u"render"_s, graph, u"--size"_s, u"512x288"_s, u"--output"_s, picture});
            return;
        }
        item(m_next)->setIcon(QPixmap(picture));
    }
}

} // namespace Morvane::Qel::Viewer
