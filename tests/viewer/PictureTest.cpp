#include "ViewerTest.h"

#include "support/Paths.h"

using namespace Qt::StringLiterals;

namespace Morvane::Qel::Test {

using Picture = ViewerTest;

TEST_F(Picture, IsWhatQelRenders)
{
    // 8 bits, half floats, floats that lie at the limits between two bytes, and transparent parts.
    for (const QString& name : {u"fxaa"_s, u"glow"_s, u"depth-of-field"_s, u"forward"_s}) {
        const QString graph = sourcePath(u"examples/graphs/%1.json"_s.arg(name));
        open(graph);
        EXPECT_EQ(shown(), rendered(graph)) << qPrintable(name);
    }
    // A change of size is a frame of the new size.
    window().view().setFixedSize(301, 222);
    EXPECT_EQ(shown(), rendered(sourcePath(u"examples/graphs/forward.json"_s)));

    const quint64 frames = window().session().numFrames();
    QTest::qWait(300);
    EXPECT_EQ(window().session().numFrames(), frames) << "an idle window renders";
}

} // namespace Morvane::Qel::Test
