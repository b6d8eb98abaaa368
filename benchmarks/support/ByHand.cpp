#include "support/ByHand.h"

#include <QtGlobal>

#include <array>

#include <epoxy/gl.h>

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

} // namespace Morvane::Qel::Bench
