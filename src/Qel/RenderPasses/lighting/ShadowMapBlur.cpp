#include <Qel/RenderPasses/lighting/ShadowMapBlur.h>

#include <array>
#include <cmath>

#include <epoxy/gl.h>

#include <Qel/RenderPasses/framework/PassFrame.h>
#include <Qel/gl/BufferObject.h>
#include <Qel/gl/VertexArrayObject.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

/// Number of taps on one side, the centre included.
constexpr int numTaps = 4;

/// %1 is the number of taps on one side; %2, %3 and %4 are the coefficients of the Gaussian.
const QString fragmentSource = uR"(#version 150
uniform sampler2DArray u_FrameSampler;
uniform int u_Index;
uniform vec3 u_Step;
in vec2 vo_TexCoord;
out vec4 out_FragColor;

vec2 momentsAt(vec2 texCoord)
{
    return texture(u_FrameSampler, vec3(texCoord, float(u_Index))).rg;
}

void main()
{
    vec3 coefficients = vec3(%2, %3, %4);
    vec2 sum = momentsAt(vo_TexCoord) * coefficients.x;
    float sumOfWeights = coefficients.x;
    for (int i = 1; i < %1; ++i) {
        coefficients.xy *= coefficients.yz;
        vec2 offset = float(i) * u_Step.xy;
        sum += (momentsAt(vo_TexCoord + offset) + momentsAt(vo_TexCoord - offset)) * coefficients.x;
        sumOfWeights += 2.0 * coefficients.x;
    }
    out_FragColor = vec4(sum / sumOfWeights, 0.0, 0.0);
}
)"_s;

/// The number as GLSL source, with enough digits to be exact in single precision.
QString glslNumber(float number)
{
    constexpr int digits = 16;
    return QString::number(static_cast<double>(number), 'g', digits);
}

} // namespace

std::unique_ptr<ShaderProgram> makeShadowBlurProgram()
{
    const float a = 1.0F / (std::sqrt(2.0F * static_cast<float>(M_PI)) * shadowBlurSigma);
    const float b = std::exp(-0.5F / (shadowBlurSigma * shadowBlurSigma));
    const float c = b * b;
    auto program = std::make_unique<ShaderProgram>();
    buildScreenProgram(*program, {fragmentSource.arg(QString::number(numTaps), glslNumber(a), glslNumber(b),
                                                     glslNumber(c))});
    return program;
}

std::unique_ptr<DrawBuffers> makeShadowBlurQuad(const ShaderProgram& program)
{
    constexpr int numVertices = 6;
    constexpr std::array<float, 3 * numVertices> positions{-1, -1, -1, -1, 1,  -1, 1, -1, -1,
                                                           -1, 1,  -1, 1,  -1, -1, 1, 1,  -1};
    constexpr std::array<float, 2 * numVertices> texCoords{0, 0, 0, 1, 1, 0, 0, 1, 1, 0, 1, 1};
    const auto upload = [](const auto& values) {
        auto buffer = QSharedPointer<BufferObject>::create(GL_ARRAY_BUFFER);
        buffer->upload(values.data(), static_cast<int>(values.size()), GL_STATIC_DRAW);
        return buffer;
    };
    const auto vertexArray = QSharedPointer<VertexArrayObject>::create();
    vertexArray->upload(u"va_Vertex"_s, upload(positions), 3, GL_FLOAT);
    vertexArray->upload(u"va_TexCoord"_s, upload(texCoords), 2, GL_FLOAT);
    auto quad = std::make_unique<DrawBuffers>(nullptr);
    quad->setVAO(vertexArray);
    quad->setPrimitiveType(GL_TRIANGLES);
    quad->setVertexCount(numVertices);
    const AutoBinder binder(quad.get());
    vertexArray->enableShaderProgramArrays(&program);
    return quad;
}

} // namespace Morvane::Qel
