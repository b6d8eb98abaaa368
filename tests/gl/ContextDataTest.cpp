#include <epoxy/gl.h>

#include "support/GLTest.h"
#include <Qel/gl/BufferObject.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel::Test {
namespace {

QStringList deleted;

template<int number>
struct Data : ContextData
{
    ~Data() override
    {
        deleted.append(u"%1 %2"_s.arg(number).arg(OpenGLDeviceContext::current() != nullptr));
    }
    BufferObject buffer{GL_ARRAY_BUFFER};
};

std::unique_ptr<HeadlessContext> makeContext()
{
    HeadlessContext::Options options;
    options.device = HeadlessContext::Device::Software;
    return HeadlessContext::create(options, nullptr);
}

using ContextDataTest = GLTest;

TEST_F(ContextDataTest, GoesWithItsContext)
{
    deleted.clear();
    const unsigned int own = context().data<Data<1>>().buffer.getBO();
    auto other = makeContext();
    EXPECT_NE(&other->data<Data<1>>(), &context().data<Data<1>>());
    EXPECT_NE(static_cast<ContextData*>(&other->data<Data<2>>()), &other->data<Data<1>>());
    EXPECT_EQ(other->data<Data<1>>().buffer.getBO(), own);
    // In reverse order, and while the context is current.
    other.reset();
    EXPECT_EQ(deleted, (QStringList{u"2 1"_s, u"1 1"_s}));
}

TEST_F(ContextDataTest, ATwinOfAnotherContextSurvives)
{
    // The context does not own its native context, which stays current throughout.
    auto other = std::make_unique<OpenGLDeviceContext>();
    other->makeCurrent();
    const unsigned int name = other->data<Data<1>>().buffer.getBO();
    other->data<Data<1>>().buffer.upload(nullptr, 1, GL_STATIC_DRAW);
    context().makeCurrent();
    deleted.clear();
    other.reset();
    EXPECT_EQ(deleted, QStringList{u"1 0"_s});
    EXPECT_EQ(OpenGLDeviceContext::current(), &context());
    EXPECT_TRUE(glIsBuffer(name));
}

} // namespace
} // namespace Morvane::Qel::Test
