#include "ErrorPanel.h"

#include <QDesktopServices>
#include <QFileInfo>
#include <QKeyEvent>
#include <QProcess>
#include <QRegularExpression>
#include <QStyle>
#include <QUrl>

using namespace Qt::StringLiterals;

namespace Morvane::Qel::Viewer {

ErrorPanel::ErrorPanel(QWidget* parent)
    : QListWidget(parent)
{
    setWordWrap(true);
    setAlternatingRowColors(true);
    setObjectName(u"errors"_s);
    connect(this, &QListWidget::itemClicked, this, &ErrorPanel::choose);
}

void ErrorPanel::keyPressEvent(QKeyEvent* event)
{
    if (currentItem() && (event->key() == Qt::Key_Return || event->key() == Qt::Key_Enter)) {
        choose(currentItem());
    } else {
        QListWidget::keyPressEvent(event);
    }
}

void ErrorPanel::choose(const QListWidgetItem* item)
{
    const auto [file, line] = placeIn(item->text());
    if (!file.isEmpty()) {
        Q_EMIT fileChosen(file, line);
    }
}

void ErrorPanel::setErrors(const QStringList& errors)
{
    clear();
    for (const QString& error : errors) {
        auto* item = new QListWidgetItem(style()->standardIcon(QStyle::SP_MessageBoxWarning), error, this);
        const auto [file, line] = placeIn(error);
        if (!file.isEmpty()) {
            item->setToolTip(tr("Click to open %1").arg(file));
        }
    }
}

std::pair<QString, int> placeIn(const QString& message)
{
    // "graph.json: film: path/film.frag:17:2: error: ..." names the shader; the last file with a line counts.
    static const QRegularExpression withLine(uR"((?:^|: )([^:\n]+):(\d+)(?::\d+)?: )"_s);
    std::pair<QString, int> place;
    for (auto matches = withLine.globalMatch(message); matches.hasNext();) {
        const QRegularExpressionMatch match = matches.next();
        if (QFileInfo(match.captured(1)).isFile()) {
            place = {match.captured(1), match.captured(2).toInt()};
        }
    }
    const QString first = message.section(u": "_s, 0, 0);
    if (place.first.isEmpty() && QFileInfo(first).isFile()) {
        place = {first, 0};
    }
    return place;
}

bool openEditor(const QString& file, int line)
{
    QStringList command = QProcess::splitCommand(qEnvironmentVariable("VISUAL"));
    if (command.isEmpty()) {
        return QDesktopServices::openUrl(QUrl::fromLocalFile(file));
    }
    const QString program = command.takeFirst();
    if (line > 0) {
        command.append(u"+%1"_s.arg(line));
    }
    return QProcess::startDetached(program, command << file);
}

} // namespace Morvane::Qel::Viewer
