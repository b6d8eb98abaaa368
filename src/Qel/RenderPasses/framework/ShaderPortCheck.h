#pragma once

#include <QString>
#include <QStringList>

#include <vector>

#include <Qel/RenderPasses/framework/ShaderRenderPass.h>

namespace Morvane::Qel {

/// Compares the ports of a ShaderRenderPass with its program and collects what GL accepts silently although
/// it is probably a mistake. Private to this library.
class ShaderPortCheck
{
public:
    explicit ShaderPortCheck(const ShaderProgram& program);

    /// Checks the sampler of a texture input; the texture is the one that the pass binds in its first frame.
    void checkTexture(const QString& port, const QString& sampler, const Texture& texture);
    /// Checks the uniform of an input of a plain type. Inputs of other types set no uniform.
    void checkPlain(const QString& port);
    /// A texture output of the pass.
    struct Output
    {
        QString port;
        /// The variable of the fragment stage.
        QString variable;
        /// The name of the format, such as "r32ui".
        QString format;
        /// What the GLSL type of the variable begins with: "u" and "i" for integers, nothing otherwise.
        QString prefix;
    };
    /// Checks the fragment outputs of the texture outputs, in the order of the draw buffers.
    void checkOutputs(const std::vector<Output>& outputs);
    /// Checks that every stage writes what the next one reads.
    void checkVaryings();

    /// Returns the notices; those about missing uniforms name the uniforms that no port sets.
    std::vector<ShaderRenderPass::Notice> takeNotices();

private:
    struct Stage
    {
        unsigned int stage;
        /// Without comments.
        QString text;
    };
    const Stage* find(unsigned int stage) const;
    void checkType(const Output& output, const QString& variable, const QString& type);
    bool isActive(const QString& port, const QString& uniform, const char* kind);
    void add(const QString& port, const QString& text);

    const ShaderProgram& m_program;
    /// In the order of the pipeline.
    std::vector<Stage> m_stages;
    QStringList m_known;
    std::vector<ShaderRenderPass::Notice> m_notices;
    /// Indices into m_notices.
    std::vector<size_t> m_missing;
};

} // namespace Morvane::Qel
