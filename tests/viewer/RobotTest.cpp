// Before the GL header of the toolkit.
#include "support/GLState.h"

#include "ViewerTest.h"

#include <QApplication>
#include <QComboBox>
#include <QDir>
#include <QFile>
#include <QMenu>

#include <algorithm>
#include <cstdio>
#include <random>

#include <malloc.h>

#include <GraphEdits.h>
#include <GraphView.h>
#include <TimeLine.h>

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
                                                   : mallinfo2().uordblks;
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
        QWidget* widget = number(0, 2) == 0 ? &window().view() : target();
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
            static const QList<Qt::Key> keys{Qt::Key_W,      Qt::Key_A,    Qt::Key_S,       Qt::Key_D,
                                             Qt::Key_F,      Qt::Key_H,    Qt::Key_0,       Qt::Key_1,
                                             Qt::Key_Up,     Qt::Key_Down, Qt::Key_Tab,     Qt::Key_Space,
                                             Qt::Key_Delete, Qt::Key_5,    Qt::Key_Question};
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

    /// Shows a good graph, as after the start.
    void rest()
    {
        closeDialogs();
        window().document().undoStack().setClean();
        window().view().setFollowsWindow(true);
        window().view().setContinuous(false);
        window().view().setComparison({});
        window().view().setZoom(0.0);
        open(sourcePath(u"examples/graphs/fxaa.json"_s));
        window().view().setDisplay({});
        ASSERT_TRUE(
            waitFor([&] { return window().errors().isEmpty() && !window().session().isFrameNeeded(); }));
        QTest::qWait(500); // The panels follow.
    }

    /// The number of GL objects, and the bytes that are allocated.
    std::pair<size_t, size_t> level()
    {
        size_t numObjects = 0;
        window().view().withContext([&] { numObjects = liveObjects().size(); });
        return {numObjects, numAllocatedBytes()};
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
    // All that a use leaves behind, such as the programs of the painter, is there once.
    open(graph);
    for (int i = 0; i < std::min(numSteps, 100); ++i) {
        step();
    }
    rest();
    const auto before = level();
    open(graph);
    for (int i = 0; i < numSteps; ++i) {
        step();
        for (const QString& error : window().errors()) {
            ASSERT_FALSE(error.contains(u"OpenGL"_s)) << "step " << i << ": " << qPrintable(error);
        }
    }
    ASSERT_TRUE(window().isVisible());
    rest();
    const auto after = level();
    std::printf("GL objects %zu, then %zu; MiB %.1f, then %.1f\n", before.first, after.first,
                static_cast<double>(before.second) / 1048576.0,
                static_cast<double>(after.second) / 1048576.0);
    // Programs of the painter for other kinds of textures, and a snapshot.
    constexpr size_t numObjects = 60;
    EXPECT_LT(after.first, before.first + numObjects);
    constexpr size_t numBytes = size_t{48} << 20;
    EXPECT_LT(after.second, before.second + numBytes);
    // After all that a good graph is shown as ever.
    EXPECT_EQ(shown(), rendered(sourcePath(u"examples/graphs/fxaa.json"_s)));
}

} // namespace Morvane::Qel::Test
