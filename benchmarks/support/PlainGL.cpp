#include "support/PlainGL.h"

#include <QtGlobal>

#include <array>

#include <epoxy/gl.h>

#include <Qel/gl/OpenGLDeviceContext.h>

namespace Morvane::Qel::Bench {

unsigned int linkProgram(const std::string& vertexSource, const std::string& fragmentSource,
                         const std::vector<const char*>& attributes, const std::vector<const char*>& outputs)
{
    const unsigned int program = glCreateProgram();
    const auto addStage = [&](unsigned int stage, const std::string& source) {
        const unsigned int shader = glCreateShader(stage);
        const char* text = source.c_str();
        glShaderSource(shader, 1, &text, nullptr);
        glCompileShader(shader);
        glAttachShader(program, shader);
        glDeleteShader(shader);
    };
    addStage(GL_VERTEX_SHADER, vertexSource);
    addStage(GL_FRAGMENT_SHADER, fragmentSource);
    for (unsigned int i = 0; i < attributes.size(); ++i) {
        glBindAttribLocation(program, i, attributes[i]);
    }
    for (unsigned int i = 0; i < outputs.size(); ++i) {
        glBindFragDataLocation(program, i, outputs[i]);
    }
    glLinkProgram(program);
    int linked = GL_FALSE;
    glGetProgramiv(program, GL_LINK_STATUS, &linked);
    if (linked == GL_FALSE) {
        std::array<char, 2000> log{};
        glGetProgramInfoLog(program, static_cast<int>(log.size()), nullptr, log.data());
        qFatal("a program of the benchmarks does not build: %s\n%s", log.data(), fragmentSource.c_str());
    }
    return program;
}

const char* const fullScreenVertexSource = R"(#version 150
out vec2 uv;
void main()
{
    uv = vec2(gl_VertexID == 1 ? 2.0 : 0.0, gl_VertexID == 2 ? 2.0 : 0.0);
    gl_Position = vec4(uv * 2.0 - 1.0, 0.0, 1.0);
})";

unsigned int makeTexture(const QSize& size, unsigned int internalFormat, unsigned int format,
                         unsigned int type, unsigned int filter, const void* texels)
{
    unsigned int texture = 0;
    glGenTextures(1, &texture);
    glBindTexture(GL_TEXTURE_2D, texture);
    glTexImage2D(GL_TEXTURE_2D, 0, static_cast<int>(internalFormat), size.width(), size.height(), 0, format,
                 type, texels);
    for (const GLenum name : {GLenum{GL_TEXTURE_MIN_FILTER}, GLenum{GL_TEXTURE_MAG_FILTER}}) {
        glTexParameteri(GL_TEXTURE_2D, name, static_cast<int>(filter));
    }
    for (const GLenum name : {GLenum{GL_TEXTURE_WRAP_S}, GLenum{GL_TEXTURE_WRAP_T}}) {
        glTexParameteri(GL_TEXTURE_2D, name, GL_CLAMP_TO_EDGE);
    }
    return texture;
}

unsigned int makeFramebuffer(const std::vector<unsigned int>& colours, unsigned int depth)
{
    unsigned int framebuffer = 0;
    glGenFramebuffers(1, &framebuffer);
    glBindFramebuffer(GL_FRAMEBUFFER, framebuffer);
    std::vector<unsigned int> drawBuffers;
    for (const unsigned int colour : colours) {
        drawBuffers.push_back(GL_COLOR_ATTACHMENT0 + static_cast<unsigned int>(drawBuffers.size()));
        glFramebufferTexture(GL_FRAMEBUFFER, drawBuffers.back(), colour, 0);
    }
    glFramebufferTexture(GL_FRAMEBUFFER, GL_DEPTH_ATTACHMENT, depth, 0);
    glDrawBuffers(static_cast<int>(drawBuffers.size()), drawBuffers.data());
    glBindFramebuffer(GL_FRAMEBUFFER, 0);
    return framebuffer;
}

std::unique_ptr<Texture> makeLinearTexture(const QSize& size, const void* texels, unsigned int internalFormat,
                                           unsigned int format)
{
    auto texture = std::make_unique<Texture>();
    texture->setFilter(GL_LINEAR, GL_LINEAR);
    texture->setWrap(GL_CLAMP_TO_EDGE);
    texture->setImage2D(0, internalFormat, size.width(), size.height(), format, GL_UNSIGNED_BYTE, texels);
    return texture;
}

void applyBaseState()
{
    OpenGLDeviceContext::current()->makeCurrent();
    OpenGLDeviceContext::current()->applyBaseState();
}

} // namespace Morvane::Qel::Bench
