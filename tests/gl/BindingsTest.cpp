#include <QPointer>

#include <array>
#include <memory>
#include <thread>
#include <vector>

#include <epoxy/egl.h>
#include <epoxy/gl.h>

#include <Qel/gl/BindingRecord.h>
#include <Qel/gl/BufferObject.h>
#include <Qel/gl/DrawBuffers.h>
#include <Qel/gl/FramebufferObject.h>
#include <Qel/gl/GLErrors.h>
#include <Qel/gl/Guards.h>
#include <Qel/gl/ResourceScope.h>
#include <Qel/gl/Texture.h>
#include <Qel/gl/VertexArrayObject.h>

#include "support/GLState.h"
#include "support/GLTest.h"
#include "support/ScreenProgram.h"

using namespace Qt::StringLiterals;

namespace Morvane::Qel::Test {

namespace {

std::unique_ptr<Texture> makeTexel()
{
    return makeTexture(Pixels::filled(1, 1, {}), GL_RGBA8);
}

std::unique_ptr<ShaderProgram> makeWhiteProgram()
{
    return makeScreenProgram({u"#version 150\nout vec4 o;\nvoid main() { o = vec4(1.0); }\n"_s});
}

using Bindings = GLTest;

/// Checks the textures of the first units, null for none.
void expectUnits(const std::vector<Texture*>& textures)
{
    for (size_t i = 0; i < textures.size(); ++i) {
        Texture* texture = textures[i];
        EXPECT_EQ(textureAt(static_cast<int>(i)), texture ? texture->textureID() : 0U) << "unit " << i;
    }
}

int widthInGL(Texture& texture)
{
    int width = 0;
    const AutoBinder binder(&texture);
    glGetTexLevelParameteriv(GL_TEXTURE_2D, 0, GL_TEXTURE_WIDTH, &width);
    return width;
}

TEST_F(Bindings, TexturesTakeUnitsLikeAStack)
{
    const auto a = makeTexel();
    const auto b = makeTexel();
    a->bind();
    b->bind();
    {
        // A texture that is bound again has two units and returns to the earlier one.
        const AutoBinder binder(a.get());
        expectUnits({a.get(), b.get(), a.get()});
        EXPECT_EQ(a->unit(), 2);
    }
    expectUnits({a.get(), b.get(), nullptr});
    EXPECT_EQ(a->unit(), 0);

    // A release out of order leaves the later textures on their units; another release does nothing.
    a->release();
    a->release();
    EXPECT_EQ(a->unit(), -1);
    expectUnits({nullptr, b.get()});

    // Changing a texture does not disturb the bindings.
    a->setFilter(GL_LINEAR, GL_LINEAR);
    a->setImage2D(0, GL_RGBA8, 2, 2, GL_RGBA, GL_UNSIGNED_BYTE, nullptr);
    expectUnits({nullptr, b.get(), nullptr});
    b->release();

    // A texture of another target is deleted while bound twice.
    auto cube = std::make_unique<Texture>();
    cube->setTarget(GL_TEXTURE_CUBE_MAP);
    cube->bind();
    cube->bind();
    cube.reset();
    const AutoBinder binder(a.get());
    expectUnits({a.get()});
    EXPECT_EQ(stateInGL(GL_TEXTURE_BINDING_CUBE_MAP), 0U);
}

TEST_F(Bindings, MoreTexturesThanUnitsAreReportedAndLeaveTheBindings)
{
    std::vector<std::unique_ptr<Texture>> owners;
    std::vector<Texture*> textures;
    for (int i = 0; i < BindingRecord::numUnits; ++i) {
        textures.push_back(owners.emplace_back(makeTexel()).get());
        textures.back()->bind();
    }
    Texture extra;
    {
        // A new texture, and one that already has a unit.
        const AutoBinder newBinder(&extra);
        EXPECT_EQ(extra.unit(), -1);
        const AutoBinder againBinder(textures[3]);
    }
    EXPECT_EQ(messages().failures.size(), 2);
    expectMessage(u"all %1 texture units are in use"_s.arg(BindingRecord::numUnits));
    expectUnits(textures);
    // Changes need no free unit.
    extra.setImage2D(0, GL_RGBA8, 2, 2, GL_RGBA, GL_UNSIGNED_BYTE, nullptr);
    expectUnits(textures);
    for (Texture* texture : textures) {
        texture->release();
        EXPECT_EQ(widthInGL(*texture), 1);
    }
    EXPECT_EQ(widthInGL(extra), 2);
    const AutoBinder binder(&extra);
    expectUnits({&extra, nullptr, nullptr, nullptr});
}

TEST_F(Bindings, ProgramsAndVertexArraysNest)
{
    const auto outer = makeWhiteProgram();
    auto inner = makeWhiteProgram();
    VertexArrayObject outerArray;
    auto innerArray = std::make_unique<VertexArrayObject>();
    const auto expectBound = [](unsigned int program, unsigned int vertexArray) {
        EXPECT_EQ(stateInGL(GL_CURRENT_PROGRAM), program);
        EXPECT_EQ(stateInGL(GL_VERTEX_ARRAY_BINDING), vertexArray);
    };
    {
        const AutoBinder nothing(static_cast<Bindable*>(nullptr));
        const AutoBinder outerBinder(outer.get());
        const AutoBinder arrayBinder(&outerArray);
        {
            const AutoBinder innerBinder(inner.get());
            const AutoBinder innerArrayBinder(innerArray.get());
            expectBound(inner->programID(), innerArray->getVAO());
        }
        expectBound(outer->programID(), outerArray.getVAO());

        // Destroyed while bound.
        inner->bind();
        innerArray->bind();
        inner.reset();
        innerArray.reset();
        expectBound(outer->programID(), outerArray.getVAO());
    }
    expectBound(0, 0);
}

TEST_F(Bindings, CapabilitiesAreRestoredAsTheyWere)
{
    // One that the context records and one for which it queries GL.
    for (const GLenum capability : {GL_BLEND, GL_SAMPLE_ALPHA_TO_COVERAGE}) {
        const auto expectEnabled = [&](bool isEnabled) {
            EXPECT_EQ(glIsEnabled(capability) == GL_TRUE, isEnabled);
            EXPECT_EQ(context().isEnabled(capability), isEnabled);
        };
        for (const bool before : {false, true}) {
            context().setEnabled(capability, before);
            {
                const AutoEnabler enabler(capability);
                expectEnabled(true);
                {
                    const AutoDisabler disabler(capability);
                    expectEnabled(false);
                }
                expectEnabled(true);
            }
            expectEnabled(before);
        }
    }
}

TEST_F(Bindings, MakeCurrentReadsTheStateThatTheApplicationChanged)
{
    const auto color = makeTexel();
    const auto program = makeWhiteProgram();
    const auto applicationProgram = makeWhiteProgram();
    VertexArrayObject vertexArray;
    VertexArrayObject applicationArray;
    FramebufferObject framebuffer;
    framebuffer.attach(color.get(), GL_COLOR_ATTACHMENT0, 0);
    FramebufferObject applicationFramebuffer;
    color->bind();
    program->bind();
    framebuffer.bind();
    context().disable(GL_DEPTH_TEST);
    context().enable(GL_BLEND);

    glEnable(GL_DEPTH_TEST);
    glDisable(GL_BLEND);
    glViewport(7, 8, 9, 10);
    ASSERT_TRUE(applicationProgram->isValid());
    glUseProgram(applicationProgram->programID());
    glBindVertexArray(applicationArray.getVAO());
    glBindFramebuffer(GL_FRAMEBUFFER, applicationFramebuffer.getFBO());
    context().makeCurrent();

    // Otherwise a pass would take it for its own.
    glEnable(GL_RGBA);
    context().makeCurrent();
    EXPECT_FALSE(hasGLError("Core/A", 1));
    expectMessage(u"^\\[GL calls of the application:0\\] OpenGL error GL_INVALID_ENUM"_s);
    expectMessage(u"^OpenGL: "_s);

    EXPECT_TRUE(context().isEnabled(GL_DEPTH_TEST));
    EXPECT_FALSE(context().isEnabled(GL_BLEND));
    EXPECT_EQ(color->unit(), -1);
    {
        const AutoEnabler blend(GL_BLEND);
        const AutoBinder programBinder(program.get());
        const AutoBinder arrayBinder(&vertexArray);
        const AutoBinder framebufferBinder(&framebuffer);
        framebuffer.setDrawBuffers();
    }
    EXPECT_FALSE(glIsEnabled(GL_BLEND));
    EXPECT_EQ(stateInGL(GL_CURRENT_PROGRAM), applicationProgram->programID());
    EXPECT_EQ(stateInGL(GL_VERTEX_ARRAY_BINDING), applicationArray.getVAO());
    EXPECT_EQ(stateInGL(GL_DRAW_FRAMEBUFFER_BINDING), applicationFramebuffer.getFBO());
    EXPECT_EQ(viewportInGL(), QRect(7, 8, 9, 10));
}

TEST_F(Bindings, ObjectsFollowGLCallsOfTheApplication)
{
    // A texture that only GL calls give an image; they replace it later by another.
    Texture foreign;
    FramebufferObject framebuffer;
    for (const int width : {4, 6}) {
        glBindTexture(GL_TEXTURE_2D, foreign.textureID());
        glTexImage2D(GL_TEXTURE_2D, 0, GL_R32UI, width, 2, 0, GL_RED_INTEGER, GL_UNSIGNED_INT, nullptr);
        glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_S, GL_CLAMP_TO_EDGE);
        context().makeCurrent();
        EXPECT_EQ(foreign.parameter(GL_TEXTURE_WRAP_S), GL_CLAMP_TO_EDGE);
        EXPECT_EQ(foreign.internalFormat(), static_cast<unsigned int>(GL_R32UI));
        framebuffer.attach(&foreign, GL_COLOR_ATTACHMENT0, 0);
        const AutoBinder binder(&framebuffer);
        framebuffer.setDrawBuffers();
        EXPECT_EQ(viewportInGL(), QRect(0, 0, width, 2));
    }
}

TEST_F(Bindings, LongNamesAreCutForTheDriver)
{
    // Letters of two bytes, where the limit is odd.
    const auto texture = makeTexel();
    context().label(GL_TEXTURE, texture->textureID(), QString(300, u'\u00e4'));
    std::array<char, 1000> label{};
    glGetObjectLabel(GL_TEXTURE, texture->textureID(), 1000, nullptr, label.data());
    EXPECT_EQ(QString::fromUtf8(label.data()), QString(127, u'\u00e4'));
    context().pushDebugGroup(QByteArray(10000, 'a').constData());
    context().popDebugGroup();
}

TEST_F(Bindings, AScopeDeletesTheObjectsThatAreLeftToIt)
{
    QObject parent;
    QPointer<Texture> left;
    QPointer<Texture> withParent;
    unsigned int name = 0;
    {
        ResourceScope scope;
        const ResourceScope::Activation activation(&scope);
        left = makeTexel().release();
        name = left->textureID();
        withParent = new Texture(&parent);
        ResourceScope::leave(left);
        ResourceScope::leave(withParent);
        EXPECT_EQ(scope.numObjects(), 2);
    }
    EXPECT_TRUE(left.isNull());
    EXPECT_FALSE(glIsTexture(name));
    EXPECT_FALSE(withParent.isNull()) << "it belongs to its parent";
}

TEST_F(Bindings, ABatchDrawsOnlyWithAValidProgramAndAVertexArray)
{
    const auto batch = context().fullScreenTriangle();
    EXPECT_FALSE(batch->draw());
    const auto valid = makeWhiteProgram();
    const AutoBinder validBinder(valid.get());
    {
        const auto broken = makeScreenProgram({u"#version 150\nvoid main() { nonsense }\n"_s});
        const AutoBinder brokenBinder(broken.get());
        expectMessage(u"cannot be built"_s);
        EXPECT_FALSE(batch->draw()) << "not with the program bound before either";
    }
    DrawBuffers withoutArray;
    withoutArray.setVertexCount(3);
    EXPECT_FALSE(withoutArray.draw());
    const AutoBinder batchBinder(batch);
    EXPECT_TRUE(batch->draw());
}

TEST_F(Bindings, AnIndexedTargetBindsItsRange)
{
    const auto alignment = static_cast<int>(stateInGL(GL_UNIFORM_BUFFER_OFFSET_ALIGNMENT));
    BufferObject buffer(GL_ARRAY_BUFFER);
    buffer.uploadBytes(nullptr, 4 * static_cast<qsizetype>(alignment), GL_STATIC_DRAW);
    const auto range = [](unsigned int index) {
        std::array<GLint64, 3> values{};
        glGetInteger64i_v(GL_UNIFORM_BUFFER_BINDING, index, &values[0]);
        glGetInteger64i_v(GL_UNIFORM_BUFFER_START, index, &values[1]);
        glGetInteger64i_v(GL_UNIFORM_BUFFER_SIZE, index, &values[2]);
        return values;
    };
    const GLint64 name = buffer.getBO();
    buffer.setIndexedTarget(GL_UNIFORM_BUFFER, 5, alignment, 2 * static_cast<qsizetype>(alignment));
    {
        const AutoBinder binder(&buffer);
        EXPECT_EQ(range(5), (std::array<GLint64, 3>{name, alignment, 2 * alignment}));
        EXPECT_EQ(range(4)[0], 0);
    }
    EXPECT_EQ(range(5)[0], 0);

    // An ordinary target again.
    buffer.setTarget(GL_ARRAY_BUFFER);
    const AutoBinder binder(&buffer);
    EXPECT_EQ(stateInGL(GL_ARRAY_BUFFER_BINDING), buffer.getBO());
    EXPECT_EQ(range(5)[0], 0);
}

TEST_F(Bindings, GLErrorsAreReportedWithTheirPlace)
{
    EXPECT_FALSE(hasGLError("Core/A", 1));
    EXPECT_TRUE(messages().failures.isEmpty());
    glEnable(GL_RGBA);
    EXPECT_TRUE(hasGLError("Core/A", 23));
    EXPECT_FALSE(hasGLError("Core/A", 24)) << "the error was consumed";
    glBufferData(GL_ARRAY_BUFFER, 4, nullptr, GL_STATIC_DRAW);
    checkGLError("Core/B", 25);
    expectMessage(u"^\\[Core/A:23\\] OpenGL error GL_INVALID_ENUM"_s);
    expectMessage(u"^\\[Core/B:25\\] OpenGL error GL_INVALID_OPERATION"_s);
    // The debug context reports the errors too.
    expectMessage(u"^OpenGL: "_s);
}

QStringList destroyed;

template<int number>
struct Data : ContextData
{
    ~Data() override
    {
        destroyed.append(QString::number(number) +
                         (OpenGLDeviceContext::current() ? u" current"_s : u" detached"_s));
    }
    BufferObject buffer{GL_ARRAY_BUFFER};
};

TEST_F(Bindings, AContextDestroysItsData)
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
        EXPECT_EQ(destroyed.join(u", "), isCurrent ? u"2 current, 1 current" : u"2 detached, 1 detached");
        EXPECT_EQ(OpenGLDeviceContext::current(), isCurrent ? nullptr : &context());
        EXPECT_EQ(glIsBuffer(name), isCurrent ? GL_FALSE : GL_TRUE);
        context().makeCurrent();
    }
}

TEST_F(Bindings, ContextsAreMadeCurrentNativelyAndDoNotDisturbEachOther)
{
    EGLContext native = eglGetCurrentContext();
    auto other = HeadlessContext::create({}, nullptr);
    EGLContext otherNative = eglGetCurrentContext();
    EXPECT_TRUE(context().resize({8, 8}));
    EXPECT_EQ(eglGetCurrentContext(), otherNative);
    context().makeCurrent();
    EXPECT_EQ(eglGetCurrentContext(), native);
    std::thread([&] {
        context().makeCurrent();
        EXPECT_EQ(OpenGLDeviceContext::current(), nullptr);
        other->makeCurrent();
        EXPECT_EQ(eglGetCurrentContext(), otherNative);
        other->doneCurrent();
        EXPECT_EQ(eglGetCurrentContext(), EGL_NO_CONTEXT);
    }).join();
    expectMessage(u"cannot be made current .*; if it is current on another thread"_s);
    other.reset();
    EXPECT_EQ(eglGetCurrentContext(), native);
}

TEST_F(Bindings, ObjectsAreUsedAndDeletedOnTheirOwnContextOnly)
{
    const auto program = makeWhiteProgram();
    ASSERT_TRUE(program->isValid());
    auto texture = makeTexel();
    const auto other = HeadlessContext::create({}, nullptr);
    const auto sameName = makeTexel();
    {
        const AutoBinder textureBinder(texture.get());
        EXPECT_EQ(textureAt(texture->unit()), 0U);
        const AutoBinder programBinder(program.get());
        EXPECT_FALSE(other->fullScreenTriangle()->draw());
    }
    expectMessage(u"a texture of another OpenGL context is used"_s);
    expectMessage(u"program .* was built on another OpenGL context"_s);
    const unsigned int name = sameName->textureID();
    texture.reset();
    EXPECT_TRUE(glIsTexture(name));
    context().makeCurrent();
    EXPECT_FALSE(glIsTexture(name));
}

} // namespace

} // namespace Morvane::Qel::Test
