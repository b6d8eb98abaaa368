#include "ShownTextures.h"

#include <QMatrix4x4>

#include <algorithm>
#include <cmath>

#include <epoxy/gl.h>

#include <Qel/RenderPasses/framework/PassFrame.h>
#include <Qel/core/MetaTypes.h>
#include <Qel/graph/ValueJson.h>
#include <Qel/model/ShadowMapManager.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel::Viewer {

namespace {

const QString rowSource = uR"(#version 150
uniform PREFIXsamplerBuffer u_Texels;
uniform int u_RowLength;
out PREFIXvec4 out_FragColor;
void main()
{
    ivec2 p = ivec2(gl_FragCoord.xy);
    int index = p.y * u_RowLength + p.x;
    out_FragColor = index < textureSize(u_Texels) ? texelFetch(u_Texels, index) : PREFIXvec4(0);
}
)"_s;

struct RowFormat
{
    /// Of the sampler and the vector type in GLSL.
    QString prefix;
    GLenum internalFormat;
    GLenum format;
    GLenum type;
};

/// The format that keeps the values of the buffer texture that is bound and can be rendered into.
RowFormat rowFormatOfBound()
{
    const auto parameter = [](GLenum name) {
        int value = 0;
        glGetTexLevelParameteriv(GL_TEXTURE_BUFFER, 0, name, &value);
        return value;
    };
    const bool isSingle = parameter(GL_TEXTURE_GREEN_SIZE) == 0;
    switch (parameter(GL_TEXTURE_RED_TYPE)) {
    case GL_INT:
        return isSingle ? RowFormat{u"i"_s, GL_R32I, GL_RED_INTEGER, GL_INT}
                        : RowFormat{u"i"_s, GL_RGBA32I, GL_RGBA_INTEGER, GL_INT};
    case GL_UNSIGNED_INT:
        return isSingle ? RowFormat{u"u"_s, GL_R32UI, GL_RED_INTEGER, GL_UNSIGNED_INT}
                        : RowFormat{u"u"_s, GL_RGBA32UI, GL_RGBA_INTEGER, GL_UNSIGNED_INT};
    default:
        return isSingle ? RowFormat{{}, GL_R32F, GL_RED, GL_FLOAT}
                        : RowFormat{{}, GL_RGBA32F, GL_RGBA, GL_FLOAT};
    }
}

} // namespace

Texture* ShownTextures::of(const QVariant& value)
{
    if (const auto* shadows = pointerFromVariant<ShadowMapManager::RenderData>(value)) {
        return shadows->projectionTexture();
    }
    auto* texture = pointerFromVariant<Texture>(value);
    return texture && texture->target() == GL_TEXTURE_BUFFER ? rowsOf(*texture) : texture;
}

Texture* ShownTextures::rowsOf(Texture& buffer)
{
    const AutoBinder texels(&buffer);
    int numTexels = 0;
    glGetTexLevelParameteriv(GL_TEXTURE_BUFFER, 0, GL_TEXTURE_WIDTH, &numTexels);
    if (numTexels == 0) {
        return nullptr;
    }
    const RowFormat format = rowFormatOfBound();
    const int width = std::max(rowLength, static_cast<int>(std::ceil(std::sqrt(numTexels))));
    const QSize size(std::min(width, numTexels), (numTexels + width - 1) / width);
    Rows& rows = m_rows[buffer.serial()];
    if (!rows.texture || rows.texture->size() != size ||
        rows.texture->internalFormat() != format.internalFormat) {
        rows.texture.reset(makeTarget(size, format.internalFormat, format.format, format.type));
    }
    Program& used = m_programs[format.prefix];
    provideScreenProgram(used.program, used.batch, {QString(rowSource).replace(u"PREFIX"_s, format.prefix)});
    const BoundTarget target(provide(rows.framebuffer), rows.texture.get());
    const AutoBinder program(used.program.get());
    used.program->setUniform(used.texels, buffer.unit());
    used.program->setUniform(u"u_RowLength"_s, size.width());
    drawBatch(used.batch);
    return rows.texture.get();
}

void ShownTextures::release()
{
    m_rows.clear();
    m_programs.clear();
}

QString tableFromValue(const QVariant& value)
{
    if (value.typeId() != QMetaType::QMatrix4x4) {
        return textFromValue(value).remove(u"Morvane::Qel::"_s).remove(u'"');
    }
    const auto matrix = value.value<QMatrix4x4>();
    constexpr int columnWidth = 12;
    QStringList lines;
    for (int row = 0; row < 4; ++row) {
        lines.append(QString());
        for (int column = 0; column < 4; ++column) {
            lines.last() += u"%1"_s.arg(static_cast<double>(matrix(row, column)), columnWidth, 'g', 5);
        }
    }
    return lines.join(u'\n');
}

} // namespace Morvane::Qel::Viewer
