#include <QPointer>

#include <algorithm>
#include <array>
#include <memory>
#include <vector>

#include <epoxy/gl.h>

#include <Qel/gl/BindingRecord.h>
#include <Qel/gl/BufferObject.h>
#include <Qel/gl/DrawBuffers.h>
#include <Qel/gl/FramebufferObject.h>
#include <Qel/gl/GLErrors.h>
#include <Qel/gl/Guards.h>
#include <Qel/gl/ResourceScope.h>
#include <Qel/gl/ShaderProgram.h>
#include <Qel/gl/Texture.h>
#include <Qel/gl/UniformBlocks.h>
#include <Qel/gl/VertexArrayObject.h>

#include "support/GLState.h"
#include "support/GLTest.h"
#include "support/Pixels.h"

using namespace Qt::StringLiterals;

namespace Morvane::Qel::Test {

namespace {

std::unique_ptr<Texture> makeTexel(const QVector4D& value = {})
{
    return makeTexture(Pixels::filled(1, 1, value), GL_RGBA8);
}

std::unique_ptr<ShaderProgram> makeProgram(const char* fragmentShader)
{
    auto program = std::make_unique<ShaderProgram>();
    program->addShader(GL_VERTEX_SHADER,
                       u"#version 150\nin vec3 va_Vertex;\n"
                       "void main() { gl_Position = vec4(va_Vertex, 1.0); }\n"_s,
                       {});
    program->addShader(GL_FRAGMENT_SHADER, QString::fromLatin1(fragmentShader), {});
    return program;
}

const char* const whiteFragment = "#version 150\nout vec4 o;\nvoid main() { o = vec4(1.0); }\n";

using Bindings = GLTest;

/// Checks the textures of the first units, null for none, and that each knows its latest unit.
void expectUnits(const std::vector<Texture*>& textures)
{
    for (size_t i = 0; i < textures.size(); ++i) {
        Texture* texture = textures[i];
        EXPECT_EQ(textureAt(static_cast<int>(i)), texture ? texture->textureID() : 0U) << "unit " << i;
        if (texture && std::find(textures.begin() + static_cast<int>(i) + 1, textures.end(), texture) ==
                           textures.end()) {
            EXPECT_EQ(texture->unit(), static_cast<int>(i));
        }
    }
}

TEST_F(Bindings, TexturesTakeUnitsLikeAStack)
{
    const auto a = makeTexel();
    const auto b = makeTexel();
    const auto c = makeTexel();
    a->bind();
    b->bind();
    {
        // A texture that is bound again has two units and returns to the earlier one.
        const AutoBinder binder(a.get());
        expectUnits({a.get(), b.get(), a.get()});
    }
    expectUnits({a.get(), b.get(), nullptr});

    // A release out of order leaves the later textures on their units.
    a->release();
    EXPECT_EQ(a->unit(), -1);
    c->bind();
    expectUnits({nullptr, b.get(), c.get()});
    b->release();
    c->release();
    c->release();
    b->bind();
    expectUnits({b.get(), nullptr});

    // Changing a texture does not disturb the bindings.
    a->setFilter(GL_LINEAR, GL_LINEAR);
    a->setImage2D(0, GL_RGBA8, 2, 2, GL_RGBA, GL_UNSIGNED_BYTE, nullptr);
    EXPECT_EQ(a->unit(), -1);
    expectUnits({b.get(), nullptr});
    b->release();

    // A texture of another target is deleted while bound.
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
    const auto numReports = [&] { return messages().failures.filter(u"texture units are in use"_s).size(); };
    std::vector<std::unique_ptr<Texture>> owners;
    std::vector<Texture*> textures;
    for (int i = 0; i < BindingRecord::numUnits; ++i) {
        textures.push_back(owners.emplace_back(makeTexel()).get());
        textures.back()->bind();
    }
    EXPECT_EQ(numReports(), 0);
    Texture extra;
    {
        // A new texture, and one that already has a unit.
        const AutoBinder newBinder(&extra);
        EXPECT_EQ(numReports(), 1);
        EXPECT_EQ(extra.unit(), -1);
        const AutoBinder againBinder(textures[3]);
    }
    EXPECT_EQ(numReports(), 2);
    expectMessage(u"all %1 texture units are in use"_s.arg(BindingRecord::numUnits));
    expectUnits(textures);
    for (Texture* texture : textures) {
        texture->release();
        EXPECT_EQ(texture->unit(), -1);
    }
    const AutoBinder binder(&extra);
    expectUnits({&extra, nullptr, nullptr, nullptr});
}

TEST_F(Bindings, ProgramsAndVertexArraysNest)
{
    const auto outer = makeProgram(whiteFragment);
    auto inner = makeProgram(whiteFragment);
    VertexArrayObject outerArray;
    auto innerArray = std::make_unique<VertexArrayObject>();
    const auto expectBound = [](unsigned int program, unsigned int vertexArray) {
        EXPECT_EQ(stateInGL(GL_CURRENT_PROGRAM), program);
        EXPECT_EQ(stateInGL(GL_VERTEX_ARRAY_BINDING), vertexArray);
    };
    const AutoBinder nothing(static_cast<Bindable*>(nullptr));
    {
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
        for (const bool before : {false, true}) {
            context().setEnabled(capability, before);
            {
                const AutoEnabler enabler(capability);
                EXPECT_TRUE(glIsEnabled(capability));
                EXPECT_TRUE(context().isEnabled(capability));
                {
                    const AutoDisabler disabler(capability);
                    EXPECT_FALSE(glIsEnabled(capability));
                    EXPECT_FALSE(context().isEnabled(capability));
                }
                EXPECT_TRUE(glIsEnabled(capability));
            }
            EXPECT_EQ(glIsEnabled(capability) == GL_TRUE, before);
            EXPECT_EQ(context().isEnabled(capability), before);
        }
    }
}

TEST_F(Bindings, MakeCurrentReadsTheStateThatTheApplicationChanged)
{
    const auto color = makeTexel();
    const auto program = makeProgram(whiteFragment);
    const auto applicationProgram = makeProgram(whiteFragment);
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
    glUseProgram(applicationProgram->programID());
    glBindVertexArray(applicationArray.getVAO());
    glBindFramebuffer(GL_FRAMEBUFFER, applicationFramebuffer.getFBO());
    context().makeCurrent();

    EXPECT_TRUE(context().isEnabled(GL_DEPTH_TEST));
    EXPECT_FALSE(context().isEnabled(GL_BLEND));
    EXPECT_EQ(context().viewport(), QRect(7, 8, 9, 10));
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
    EXPECT_EQ(context().viewport(), QRect(7, 8, 9, 10));
    EXPECT_EQ(viewportInGL(), QRect(7, 8, 9, 10));
    glUseProgram(0);
    glBindVertexArray(0);
    glBindFramebuffer(GL_FRAMEBUFFER, 0);
    context().makeCurrent();
}

TEST_F(Bindings, AScopeDeletesTheObjectsThatAreLeft)
{
    QObject parent;
    QPointer<Texture> left;
    QPointer<FramebufferObject> framebuffer;
    std::array<QPointer<Texture>, 4> others;
    others[0] = new Texture;
    unsigned int name = 0;
    {
        ResourceScope scope(&context());
        {
            const ResourceScope::Activation activation(&context(), &scope);
            left = makeTexel().release();
            name = left->textureID();
            framebuffer = new FramebufferObject;
            framebuffer->bind();
            // Objects with a parent belong to the parent.
            others[1] = new Texture(&parent);
            others[2] = new Texture;
            others[2]->setParent(&parent);
            {
                const ResourceScope::Activation suspension(&context(), nullptr);
                others[3] = new Texture;
            }
            const auto deletedByItsOwner = makeTexel();
            (new Texture)->setParent(left);
            EXPECT_EQ(scope.numObjects(), 5);
        }
        EXPECT_EQ(scope.numObjects(), 4) << "deleted objects leave the scope";
        const Texture after;
        EXPECT_EQ(scope.numObjects(), 4) << "the scope is no longer active";
    }
    EXPECT_TRUE(left.isNull());
    EXPECT_FALSE(glIsTexture(name));
    EXPECT_TRUE(framebuffer.isNull());
    EXPECT_EQ(stateInGL(GL_DRAW_FRAMEBUFFER_BINDING), 0U);
    for (const QPointer<Texture>& other : others) {
        EXPECT_FALSE(other.isNull());
    }
    EXPECT_EQ(context().resourceScope(), nullptr);
    delete others[0].data();
    delete others[3].data();
}

TEST_F(Bindings, ABatchDrawsOnlyWithAValidProgram)
{
    const auto color = makeTexel();
    FramebufferObject framebuffer;
    framebuffer.attach(color.get(), GL_COLOR_ATTACHMENT0, 0);
    const AutoBinder framebufferBinder(&framebuffer);
    framebuffer.setDrawBuffers();
    const auto batch = context().fullScreenTriangle();
    const AutoBinder batchBinder(batch);
    const auto pixel = [&] { return readTexture(color.get()).at(0, 0); };

    EXPECT_FALSE(batch->draw());
    const auto valid = makeProgram(whiteFragment);
    const AutoBinder validBinder(valid.get());
    {
        const auto broken = makeProgram("#version 150\nvoid main() { nonsense }\n");
        const AutoBinder brokenBinder(broken.get());
        expectMessage(u"cannot be built"_s);
        EXPECT_FALSE(batch->draw()) << "nor with the program bound before";
        EXPECT_EQ(pixel(), QVector4D());
    }
    DrawBuffers withoutArray;
    withoutArray.setVertexCount(3);
    EXPECT_FALSE(withoutArray.draw());
    EXPECT_EQ(pixel(), QVector4D());
    EXPECT_TRUE(batch->draw());
    EXPECT_EQ(pixel(), QVector4D(1.0F, 1.0F, 1.0F, 1.0F));
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

TEST_F(Bindings, ShadersReadTheIndirectCommandsOfABatch)
{
    // Writes the five values of two commands to four pixels.
    const auto program = makeProgram(R"(#version 150
struct Command { uint count; uint instanceCount; uint firstIndex; uint baseVertex; uint baseInstance; };
layout(std140) uniform DrawElementsIndirectCommands { Command commands[2]; };
out vec4 o;
void main()
{
    Command c = commands[int(gl_FragCoord.x) / 2];
    o = int(gl_FragCoord.x) % 2 == 0 ? vec4(c.count, c.instanceCount, c.firstIndex, c.baseVertex)
                                     : vec4(c.baseInstance);
})");
    ASSERT_TRUE(program->isValid());
    const auto target = makeTexture(Pixels::filled(4, 1, {}), GL_RGBA32F);
    FramebufferObject framebuffer;
    framebuffer.attach(target.get(), GL_COLOR_ATTACHMENT0, 0);
    const AutoBinder framebufferBinder(&framebuffer);
    framebuffer.setDrawBuffers();
    DrawBuffers batch;
    const std::array<DrawElementsIndirectCommand, 2> commands{{{30, 1, 6, 70, 11}, {12, 2, 36, 90, 13}}};
    batch.setDrawElementsIndirectCommands(commands.data(), 2);
    {
        const AutoBinder programBinder(program.get());
        const AutoBinder blockBinder(batch.getDrawElementsIndirectCommandsUniformBufferObject());
        const auto triangle = context().fullScreenTriangle();
        const AutoBinder triangleBinder(triangle);
        ASSERT_TRUE(triangle->draw());
    }
    const Pixels image = readTexture(target.get());
    EXPECT_EQ(image.values,
              (std::vector<QVector4D>{{30, 1, 6, 70}, {11, 11, 11, 11}, {12, 2, 36, 90}, {13, 13, 13, 13}}));

    // Without commands the block describes the draw call, also after changes.
    const auto countInBlock = [](DrawBuffers& drawn) {
        const auto block = drawn.getDrawElementsIndirectCommandsUniformBufferObject();
        std::array<unsigned int, 2> values{};
        const auto* mapped = static_cast<const unsigned int*>(block->map(GL_READ_ONLY));
        std::copy_n(mapped, values.size(), values.begin());
        block->unmap();
        return values;
    };
    DrawBuffers plain;
    plain.setVertexCount(9);
    EXPECT_EQ(countInBlock(plain), (std::array<unsigned int, 2>{9, 1}));
    plain.setVertexCount(21);
    EXPECT_EQ(countInBlock(plain), (std::array<unsigned int, 2>{21, 1}));
    const auto indices = QSharedPointer<BufferObject>::create(GL_ELEMENT_ARRAY_BUFFER);
    plain.setIndexedDraw(indices, 33, GL_UNSIGNED_INT);
    EXPECT_EQ(countInBlock(plain), (std::array<unsigned int, 2>{33, 1}));
    const auto kept = batch.getDrawElementsIndirectCommandsUniformBufferObject();
    EXPECT_EQ(batch.getDrawElementsIndirectCommandsUniformBufferObject(), kept);
}

TEST_F(Bindings, GLErrorsAreReportedWithTheirPlace)
{
    EXPECT_FALSE(hasGLError("Core/A", 1));
    EXPECT_TRUE(messages().failures.isEmpty());
    glEnable(GL_RGBA);
    EXPECT_TRUE(hasGLError("Core/A", 23));
    EXPECT_TRUE(messages().failures.contains(u"[Core/A:23] OpenGL error GL_INVALID_ENUM"_s));
    EXPECT_FALSE(hasGLError("Core/A", 24)) << "the error was consumed";
    glBindBuffer(GL_ARRAY_BUFFER, 0);
    glBufferData(GL_ARRAY_BUFFER, 4, nullptr, GL_STATIC_DRAW);
    checkGLError("Core/B", 25);
    EXPECT_TRUE(messages().failures.contains(u"[Core/B:25] OpenGL error GL_INVALID_OPERATION"_s));
    expectMessage(u"^\\[Core/[AB]:2[35]\\] OpenGL error "_s);
    // The debug context reports the errors too.
    expectMessage(u"^OpenGL: "_s);
}

} // namespace

} // namespace Morvane::Qel::Test
