#pragma once

#include <QColor>
#include <QMatrix4x4>
#include <QObject>
#include <QStringList>
#include <QVariant>
#include <QVector2D>
#include <QVector3D>
#include <QVector4D>
#include <QVector>

#include <memory>
#include <vector>

#include <Qel/gl/Bindable.h>
#include <Qel/gl/Uniform.h>

namespace Morvane::Qel {

/// How messages and file names write a stage.
struct StageName
{
    /// Such as "fragment"; "unknown" if the stage is not one of GL's.
    QLatin1StringView name;
    /// The usual ending of its source files, such as "frag".
    QLatin1StringView fileEnding;
};
/// Returns the name of a stage (GL_VERTEX_SHADER, ...).
QEL_GL_EXPORT StageName stageName(unsigned int stage);

class GLSLMacroProcessor;
struct AttributeLayout;

/// A GLSL program. Stages are added as source text or files; the first bind preprocesses, compiles and links
/// them.
///
/// Every source is preprocessed, by the macro processor that was set or by a default one that finds includes
/// in ":/Media/Shaders". The binding points of instance-data blocks and the texture units of material
/// textures are the same in every program. Attributes may have any locations: vertex arrays match them by
/// name.
///
/// When a ShaderProgram is destroyed, its context keeps the linked program for a while. The next
/// ShaderProgram with the same sources reuses it instead of compiling, with all uniforms back at their
/// initial values, so switching back to an earlier program is cheap.
///
/// A program that fails to build is logged once on the critical channel, with the driver's line numbers
/// mapped back to file and line. Binding it then makes no program current, and nothing is drawn with it.
class QEL_GL_EXPORT ShaderProgram : public QObject, public Bindable
{
    Q_OBJECT
public:
    explicit ShaderProgram(QObject* parent = nullptr);
    ~ShaderProgram() override;

    void bind() override;
    void release() override;

    /// Adds a source to a stage (GL_VERTEX_SHADER, ...). Several sources of one stage are compiled separately
    /// and linked together. Sources cannot be added after the build. `name` appears in messages; if empty,
    /// the stage's name does.
    void addShader(unsigned int stage, const QString& source, const QString& name);
    /// Adds a source file to a stage: a path, a resource path, or a name to be searched for in the macro
    /// processor's include paths and in ":/Media/Shaders". An unreadable file makes the build fail.
    void addShaderFromFile(unsigned int stage, const QString& path);
    /// Sets the macro processor for all sources, already added or not; null selects the default one. Not
    /// owned; it must live until the program is built and has no effect after that.
    void setMacroProcessor(GLSLMacroProcessor* processor);
    /// Binds fragment output i to draw buffer i. Names that the program does not write are ignored.
    void setFragDataLocations(const QStringList& names);

    /// Whether the program is built and usable; builds it if that has not been tried yet.
    bool isValid();
    bool hasUniform(const QString& name) const;
    /// The location of an active uniform, -1 if the built program has none of this name.
    int getUniformLocation(const QString& name) const;
    /// Sets a uniform from a bool, number, colour (as vec4, 0 to 1), point, size, rectangle (as vec4: x, y,
    /// width, height), vector, matrix or QVector<float>.
    ///
    /// The value is converted to the declared type as by a GLSL constructor: surplus components are dropped,
    /// and a smaller matrix takes the upper left part. Unknown names and values with too few components are
    /// ignored. The program is bound for the call if it is not current.
    void setUniform(const QString& name, const QVariant& value);
    /// Sets the first elements of a uniform array, as many as are both given and declared.
    void setUniform(const QString& name, const QVector<float>& values);
    /// An active uniform of the built program; its location is -1 if the program has none of this name.
    ActiveUniform activeUniform(const QString& name) const;
    /// The names of all active uniforms outside blocks, in alphabetical order.
    QStringList activeUniforms() const;
    /// \name Setters for steady frames
    /// They convert as the setters by name do, but look nothing up and allocate nothing. The program must be
    /// bound.
    /// @{
    void setUniform(Uniform& uniform, bool value);
    void setUniform(Uniform& uniform, int value);
    void setUniform(Uniform& uniform, float value);
    void setUniform(Uniform& uniform, const QVector2D& value);
    void setUniform(Uniform& uniform, const QVector3D& value);
    void setUniform(Uniform& uniform, const QVector4D& value);
    void setUniform(Uniform& uniform, const QColor& value);
    void setUniform(Uniform& uniform, const QMatrix4x4& value);
    void setUniform(Uniform& uniform, const QVector<float>& values);
    void setUniform(Uniform& uniform, const QVariant& value);
    /// @}

    /// A source as the driver gets it.
    struct Source
    {
        unsigned int stage;
        QString text;
    };
    /// The sources after preprocessing, in the order in which they were added; none before the build.
    const std::vector<Source>& composedSources() const;
    /// Makes the current context write the composed sources of every program that is built from now on into
    /// a folder, for inspection and validators; an empty path ends that. Each program gets a subfolder
    /// NAME.N with files such as 0.vert and 1.frag; NAME is the context's label prefix, or "program" without
    /// one, and N a number from 1 on. A file that cannot be written is reported.
    static void writeSourcesTo(const QString& folder);
    /// Whether a file for writeSourcesTo could not be written on the current context.
    static bool hasUnwrittenSources();
    /// Whether the program has a tessellation stage, so that it draws patches.
    bool hasTessellation() const;

    /// The number of programs that have failed to build on the current context so far.
    static quint64 numFailedBuilds();

    /// The compile and link log, mapped to files and lines; empty if the driver had nothing to say.
    QString log() const;
    /// The GL name; 0 before the build and after a failed one.
    unsigned int programID() const;
    /// The attributes that the program reads: bit i stands for one whose first location is i.
    unsigned int attributeMask() const;
    /// The names and locations of the attributes, for vertex arrays; null before the build and after a failed
    /// one.
    const std::shared_ptr<const AttributeLayout>& attributes() const;
    /// The index of an active uniform block, -1 if the program has none of this name.
    int uniformBlockIndex(const char* name) const;

private:
    struct Private;
    void build();
    void connectInterface();
    QString description() const;
    const ActiveUniform& resolve(Uniform& uniform) const;
    template<class Value>
    void setUniformByName(const QString& name, const Value& value);

    std::unique_ptr<Private> d;
};

} // namespace Morvane::Qel
