#include "ViewerTest.h"

#include <QApplication>
#include <QComboBox>
#include <QDir>
#include <QDrag>
#include <QFile>
#include <QMenu>
#include <QPixmapCache>
#include <QTimer>

#include <algorithm>
#include <cstdio>
#include <map>
#include <random>

#include <malloc.h>

#include <GraphEdits.h>
#include <GraphView.h>
#include <TimeLine.h>

#include "support/GLState.h"
#include "support/Paths.h"

using namespace Qt::StringLiterals;
using namespace Morvane::Qel::Viewer;

// Of the address sanitizer, whose allocator glibc does not know.
// NOLINTNEXTLINE(bugprone-reserved-identifier)
extern "C" size_t __sanitizer_get_current_allocated_bytes() __attribute__((weak));

namespace Morvane::Qel::Test {

namespace {

size_t numAllocatedBytes()
{
    return __sanitizer_get_current_allocated_bytes ? __sanitizer_get_current_allocated_bytes()
                                                   : mallinfo2().uordblks + mallinfo2().hblkhd;
}

/// Clicks, drags, types and changes files at random. The variables QEL_ROBOT_STEPS and QEL_ROBOT_SEED set how
/// often and which.
class Robot : public ViewerTest
{
protected:
    int number(int low, int high) { return std::uniform_int_distribution<int>(low, high)(m_random); }

    template<class T>
    const T& choice(const QList<T>& all)
    {
        return all[number(0, static_cast<int>(all.size()) - 1)];
    }

    QPoint pointIn(const QWidget* widget)
    {
        return {number(0, std::max(widget->width() - 1, 0)), number(0, std::max(widget->height() - 1, 0))};
    }

    /// A visible widget of the window or of a dialog in front of it.
    QWidget* target()
    {
        QWidget* front = QApplication::activePopupWidget();
        front = front ? front : QApplication::activeModalWidget();
        front = front ? front : &window();
        QList<QWidget*> widgets{front};
        for (QWidget* widget : front->findChildren<QWidget*>()) {
            if (widget->isVisible() && widget->isEnabled() && widget->width() > 0 && widget->height() > 0) {
                widgets.append(widget);
            }
        }
        return choice(widgets);
    }

    void closeDialogs()
    {
        for (int i = 0; i < 20 && (QApplication::activePopupWidget() || QApplication::activeModalWidget());
             ++i) {
            QWidget* front = QApplication::activePopupWidget();
            (front ? front : QApplication::activeModalWidget())->close();
            QCoreApplication::processEvents();
        }
    }

    void step()
    {
        const QList<Qt::KeyboardModifiers> modifiers{Qt::NoModifier, Qt::NoModifier, Qt::ShiftModifier,
                                                     Qt::ControlModifier, Qt::AltModifier};
        const QList<Qt::MouseButton> buttons{Qt::LeftButton, Qt::LeftButton, Qt::RightButton,
                                             Qt::MiddleButton};
        const int which = number(0, 5);
        QWidget* widget = which < 2 ? &window().view() : which == 2 ? &window().graphView() : target();
        switch (number(0, 10)) {
        case 0:
        case 1:
        case 2:
            QTest::mouseClick(widget, choice(buttons), choice(modifiers), pointIn(widget));
            break;
        case 3:
        case 4: {
            const QPointer<QWidget> alive(widget);
            const Qt::MouseButton button = choice(buttons);
            QTest::mousePress(widget, button, choice(modifiers), pointIn(widget));
            for (int i = 0; i < 3 && alive; ++i) {
                QTest::mouseMove(widget, pointIn(widget));
            }
            if (alive) {
                QTest::mouseRelease(widget, button, {}, pointIn(widget));
            }
            break;
        }
        case 5: {
            static const QList<Qt::Key> keys{Qt::Key_W,      Qt::Key_A,      Qt::Key_S,        Qt::Key_D,
                                             Qt::Key_F,      Qt::Key_H,      Qt::Key_0,        Qt::Key_1,
                                             Qt::Key_Up,     Qt::Key_Down,   Qt::Key_Tab,      Qt::Key_Space,
                                             Qt::Key_Delete, Qt::Key_5,      Qt::Key_Question, Qt::Key_Left,
                                             Qt::Key_Right,  Qt::Key_Return, Qt::Key_Insert,   Qt::Key_F6};
            QTest::keyClick(widget, choice(keys));
            break;
        }
        case 6: {
            QWheelEvent event(QPointF(pointIn(widget)), widget->mapToGlobal(QPointF(pointIn(widget))), {},
                              {0, 120 * number(-3, 3)}, {}, choice(modifiers), Qt::NoScrollPhase, false);
            QCoreApplication::sendEvent(widget, &event);
            break;
        }
        case 7:
            (number(0, 1) == 0 ? window().document().undoStack().undo()
                               : window().document().undoStack().redo());
            break;
        case 8:
            window().view().setFixedSize(number(64, 400), number(64, 300));
            break;
        case 9:
            animate();
            break;
        default:
            changeFile();
            break;
        }
        QCoreApplication::processEvents();
        if (number(0, 4) == 0) {
            closeDialogs();
        }
    }

    /// Replaces, damages or opens a graph or a shader.
    void changeFile()
    {
        static const QStringList graphs{u"fxaa"_s,     u"glow"_s,    u"shader"_s,
                                        u"exposure"_s, u"gbuffer"_s, u"rack-focus"_s};
        const QString source = u"examples/graphs/%1.json"_s.arg(choice(graphs));
        const QString target = folder().path(u"graphs/%1.json"_s.arg(choice(graphs)));
        switch (number(0, 3)) {
        case 0:
            QFile::remove(target);
            QFile::copy(sourcePath(source), target);
            break;
        case 1: {
            QFile file(target);
            if (file.open(QIODevice::ReadWrite)) {
                file.resize(number(0, static_cast<int>(file.size())));
            }
            break;
        }
        case 2: {
            QFile file(folder().path(u"graphs/shaders/film.frag"_s));
            if (file.open(QIODevice::WriteOnly | QIODevice::Append)) {
                file.write(number(0, 1) == 0 ? "\n// again\n" : "\nnot GLSL\n");
            }
            break;
        }
        default:
            window().open(target);
            break;
        }
    }

    /// Plays the animation of the graph, or saves the graph or its animation.
    void animate()
    {
        switch (number(0, 3)) {
        case 0:
            window().timeLine().setPlaying(!window().timeLine().isPlaying());
            break;
        case 1:
            window().timeLine().goTo(number(0, 20));
            break;
        case 2:
            window().save(folder().path(u"graphs/saved.json"_s));
            break;
        default:
            window().saveAnimation(folder().path(u"saved.png"_s));
            break;
        }
    }

    QString goodGraph() const { return folder().path(u"graphs/good.json"_s); }

    /// Shows a good graph, as after the start.
    void rest()
    {
        closeDialogs();
        window().document().undoStack().setClean();
        window().view().setFollowsWindow(true);
        window().view().setContinuous(false);
        find<QComboBox>(u"compareWith"_s)->setCurrentIndex(0);
        window().view().setComparison({});
        window().view().setZoom(0.0);
        // A copy, because the robot finds it among the recent files and may change and save it.
        QFile::remove(goodGraph());
        QFile::copy(sourcePath(u"examples/graphs/fxaa.json"_s), goodGraph());
        open(goodGraph());
        EXPECT_EQ(window().document().graph().file, goodGraph());
        window().view().setDisplay({});
        ASSERT_TRUE(
            waitFor([&] { return window().errors().isEmpty() && !window().session().isFrameNeeded(); }));
        // A snapshot is there, the pool has given back what is not used, and the panels have followed.
        QPixmapCache::clear();
        window().view().takeSnapshot();
        window().session().requestFrames(12);
        settle();
        QTest::qWait(500);
    }

    struct Level
    {
        /// GL objects by kind: textures, framebuffers, programs, ...
        std::map<int, int> numObjects;
        size_t numBytes = 0;
    };
    Level level()
    {
        Level level;
        window().view().withContext([&] {
            // Drivers give ever new names.
            constexpr unsigned int highestName = 1U << 18U;
            for (const auto& [kind, name] : liveObjects(highestName)) {
                ++level.numObjects[kind];
            }
        });
        level.numBytes = numAllocatedBytes();
        std::printf("MiB %.1f, GL objects", static_cast<double>(level.numBytes) / 1048576.0);
        for (const auto& [kind, number] : level.numObjects) {
            std::printf(" %d:%d", kind, number);
        }
        std::printf("\n");
        std::fflush(stdout);
        return level;
    }

    std::mt19937 m_random;
};

} // namespace

TEST_F(Robot, SurvivesRandomUse)
{
    const int numSteps = qEnvironmentVariableIntValue("QEL_ROBOT_STEPS") > 0
                             ? qEnvironmentVariableIntValue("QEL_ROBOT_STEPS")
                             : 200;
    const int seed = qEnvironmentVariableIntValue("QEL_ROBOT_SEED");
    m_random.seed(static_cast<unsigned int>(seed));
    const QString graph = copyExamples(u"shader.json"_s);
    qputenv("VISUAL", "true");
    const auto use = [&](int number) {
        open(graph);
        for (int i = 0; i < number; ++i) {
            step();
            for (const QString& error : window().errors()) {
                ASSERT_FALSE(error.contains(u"OpenGL"_s)) << "step " << i << ": " << qPrintable(error);
            }
        }
        ASSERT_TRUE(window().isVisible());
        rest();
    };
    // A dragged label waits for a drop that does not come.
    QTimer drags;
    QObject::connect(&drags, &QTimer::timeout, &drags, [] { QDrag::cancel(); });
    drags.start(200);
    rest();
    const Level start = level();
    use(numSteps / 2);
    const Level middle = level();
    use(numSteps / 2);
    const Level end = level();
    // The context keeps 64 programs for later, and the painter 16.
    constexpr int programs = 2;
    constexpr int numKeptPrograms = 64 + 16;
    for (const auto& [kind, number] : end.numObjects) {
        EXPECT_LE(number, start.numObjects.at(kind) + (kind == programs ? numKeptPrograms : 0)) << kind;
    }
    // Most of what the first half adds is the software rasteriser's code for the programs that are kept, some
    // 1.1 MiB each. Caches of the toolkit grow by a few MiB, whatever the number of steps.
    const auto growth = [](const Level& from, const Level& to) {
        return static_cast<double>(to.numBytes) - static_cast<double>(from.numBytes);
    };
    const auto numNew = [&](const Level& from, const Level& to) {
        return std::max(to.numObjects.at(programs) - from.numObjects.at(programs), 0);
    };
    const double perProgram = growth(start, middle) / std::max(numNew(start, middle), 1);
    EXPECT_LT(growth(middle, end), 4.0 * 1048576.0 + perProgram * numNew(middle, end));
    // After all that a good graph is shown as ever.
    EXPECT_EQ(shown(), rendered(goodGraph()));
}

} // namespace Morvane::Qel::Test
