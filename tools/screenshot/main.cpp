// Writes what the X server's screen shows:
//   qel-screenshot IMAGE.png

#include <QGuiApplication>
#include <QPixmap>
#include <QScreen>

int main(int argc, char** argv)
{
    const QGuiApplication application(argc, argv);
    const QStringList arguments = QGuiApplication::arguments();
    return arguments.size() == 2 && QGuiApplication::primaryScreen()->grabWindow().save(arguments[1]) ? 0 : 1;
}
