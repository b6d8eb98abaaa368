#include <epoxy/gl.h>

#include "support/GLTest.h"
#include <Qel/gl/BufferObject.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel::Test {
namespace {

QStringList destroyed;

template<int number>
struct Data : ContextData
{
    ~Data() override
    {
        destroyed.append(
            u"%1 %2"_s.arg(number).arg(OpenGLDeviceContext::current() ? u"current" : u"not current"));
    }
    BufferObject buffer{GL_ARRAY_BUFFER};
};

using ContextDataTest = GLTest;

TEST_F(ContextDataTest, IsDestroyedWithItsContext)
{
    for (const bool isCurrent : {true, false}) {
        // Wraps the native context of the fixture without owning it.
        auto other = std::make_unique<OpenGLDeviceContext>();
        other->makeCurrent();
        EXPECT_NE(&other->data<Data<1>>(), &context().data<Data<1>>());
        BufferObject& buffer = other->data<Data<2>>().buffer;
        buffer.upload(nullptr, 1, GL_STATIC_DRAW);
        const unsigned int name = buffer.getBO();
        if (!isCurrent) {
            context().makeCurrent();
        }
        destroyed.clear();
        other.reset();
        EXPECT_EQ(destroyed.join(u", "),
                  isCurrent ? u"2 current, 1 current" : u"2 not current, 1 not current");
        EXPECT_EQ(OpenGLDeviceContext::current(), isCurrent ? nullptr : &context());
        EXPECT_EQ(glIsBuffer(name), isCurrent ? GL_FALSE : GL_TRUE);
        context().makeCurrent();
    }
}

} // namespace
} // namespace Morvane::Qel::Test
