#pragma once

#include <QEvent>
#include <QImage>
#include <QTest>
#include <QWidget>

#include <functional>
#include <memory>

#include <gtest/gtest.h>

#include <MainWindow.h>

#include "support/Folder.h"

namespace Morvane::Qel::Test {

/// Counts the events of a type that a widget receives.
class EventCount : public QObject
{
public:
    EventCount(QWidget* widget, QEvent::Type type)
        : m_type(type)
    {
        widget->installEventFilter(this);
    }
    bool eventFilter(QObject* /*object*/, QEvent* event) override
    {
        number += event->type() == m_type ? 1 : 0;
        return false;
    }

    int number = 0;

private:
    QEvent::Type m_type;
};

/// A test that drives the window of the viewer.
class ViewerTest : public testing::Test
{
protected:
    void SetUp() override;
    /// Fails the test if the window reports an error that it did not expect.
    void TearDown() override;

    /// Opens a graph in a picture of this size, and waits for its first frame.
    void open(const QString& graph, const QSize& size = {320, 180});
    /// Handles events until a condition holds, for 20 s at most.
    static bool waitFor(const std::function<bool()>& condition);
    /// Handles events until the window has rendered what it has to.
    void settle();
    /// Copies the example graphs, their shaders and the scenes into the folder of the test, and returns the
    /// path of one of the graphs.
    QString copyExamples(const QString& graph);

    /// The picture on the screen.
    QImage shown();
    /// What `qel render` makes of a graph at the size of `shown`.
    QImage rendered(const QString& graph, const QStringList& arguments = {});

    Viewer::MainWindow& window() { return *m_window; }
    template<class Widget>
    Widget* find(const QString& name)
    {
        return m_window->findChild<Widget*>(name);
    }
    const Folder& folder() const { return m_folder; }

private:
    Folder m_folder;
    std::unique_ptr<Viewer::MainWindow> m_window;
};

} // namespace Morvane::Qel::Test
