#pragma once

#include <QByteArray>
#include <QColor>
#include <QHash>
#include <QMatrix4x4>
#include <QObject>
#include <QRect>
#include <QSize>
#include <QStringList>
#include <QVariant>
#include <QVector2D>
#include <QVector3D>
#include <QVector4D>
#include <QVector>

#include <variant>
#include <vector>

#include <Qel/gl/Bindable.h>
#include <Qel/gl/ResourceScope.h>

namespace Morvane::Qel {

class GLSLMacroProcessor;
class OpenGLDeviceContext;

/// What a linked program says of one of its uniforms; the location is -1 where it has none of that name.
struct ActiveUniform
{
    int location = -1;
    unsigned int type = 0;
    int arraySize = 0;
};

/// The name of a uniform with what the program that it was last used with knows of it. Passes keep one for
/// each uniform they set, so that a steady frame looks nothing up; it follows a program that is rebuilt or
/// replaced by itself. `name` must outlive it: use a literal.
class QEL_GL_EXPORT Uniform
{
public:
    explicit constexpr Uniform(const char* name)
        : m_name(name)
    {
    }
    const char* name() const { return m_name; }

private:
    friend class ShaderProgram;
    const char* m_name;
    quint64 m_buildSerial = 0;
    ActiveUniform m_active;
};

/// A GLSL program. Stages are added as texts or files; the first bind composes, compiles and links them.
///
/// Every source runs through the macro processor: the one that was set, else a plain one that finds includes
/// in ":/Media/Shaders". Attribute locations, the binding points of instance-data blocks and the units of
/// managed textures are the same in every program.
///
/// The linked program of an object that is destroyed is kept by its context for a while; the next object with
/// the same sources takes it instead of compiling, in the state of a program that was just linked. Replacing
/// a program by one that was there before is therefore cheap.
///
/// A program that fails to build is reported once on the critical channel, with each of the driver's lines
/// mapped back to file and line; bind then makes no program current and nothing is drawn with it.
class QEL_GL_EXPORT ShaderProgram : public QObject, public Bindable
{
    Q_OBJECT
public:
    explicit ShaderProgram(QObject* parent = nullptr);
    ~ShaderProgram() override;

    void bind() override;
    void release() override;

    /// Adds a source to a stage (GL_VERTEX_SHADER, ...); several sources of a stage are compiled apart and
    /// linked together. A program that is built takes no more sources. `name` appears in messages; when it is
    /// empty they name the stage.
    void addShader(unsigned int stage, const QString& source, const QString& name);
    /// The same from a file: a path, a resource path, or a name searched in the macro processor's include
    /// paths and in ":/Media/Shaders". A file that cannot be read makes the build fail.
    void addShaderFromFile(unsigned int stage, const QString& path);
    /// Not owned; must live until the program is built, null stands for the plain processor. Takes effect on
    /// sources added before and after alike until the program is built.
    void setMacroProcessor(GLSLMacroProcessor* processor);
    /// Binds fragment output i to draw buffer i. Names that the program does not write are ignored.
    void setFragDataLocations(const QStringList& names);

    /// Whether the program is built and usable; builds it when that was not tried yet.
    bool isValid();
    bool hasUniform(const QString& name) const;
    /// -1 when the built program has no active uniform of this name.
    int getUniformLocation(const QString& name) const;
    /// Sets a uniform from a bool, number, colour (as vec4, 0 to 1), point, size, rectangle (as vec4: x, y,
    /// width, height), vector, matrix or QVector<float>, converted to the type that the shader declares as
    /// GLSL's constructors convert: surplus components are dropped, smaller matrices take the upper left
    /// part. Unknown names and values with too few components are ignored. Binds the program for the call
    /// when it is not current.
    void setUniform(const QString& name, const QVariant& value);
    /// Sets as many elements of an array as there are values for and the shader declares.
    void setUniform(const QString& name, const QVector<float>& values);
    /// \name The same without look-up and allocation
    /// The program must be bound.
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
    /// By the type of the value, as the overload that takes a name does.
    void setUniform(Uniform& uniform, const QVariant& value);
    /// @}

    /// How many programs of this process have failed to build so far.
    static quint64 numFailedBuilds();

    /// What compiler and linker said, mapped to files and lines; empty when they said nothing.
    QString log() const;
    /// The GL name; 0 before the build and after a failed one.
    unsigned int programID() const { return m_linked.name; }
    /// Bit i is set when the program reads the attribute of location i.
    unsigned int attributeMask() const { return m_linked.attributeMask; }
    /// Index of an active uniform block, -1 when the program has none of this name.
    int uniformBlockIndex(const char* name) const;

private:
    friend class ProgramCache;
    /// The value of a uniform, element by element, in a program that was just linked.
    struct InitialValue
    {
        ActiveUniform uniform;
        std::variant<std::vector<float>, std::vector<int>, std::vector<unsigned int>> elements;
    };
    /// What a successful build yields: enough to use the program again for the same sources.
    struct Linked
    {
        /// The GL name.
        unsigned int name = 0;
        unsigned int attributeMask = 0;
        QHash<QByteArray, ActiveUniform> uniforms;
        std::vector<InitialValue> initialValues;
        QString log;
    };
    struct Source
    {
        unsigned int stage;
        /// The GLSL, or the path of a file that holds it.
        QString text;
        QString name;
        bool isFile;
    };
    class Builder;
    void build();
    void readInterface();
    void readInitialValues();
    void restoreInitialValues();
    void connectInterface();
    QString description() const;
    const ActiveUniform& resolve(Uniform& uniform) const;
    template<class Value>
    void setUniformByName(const QString& name, const Value& value);

    ResourceScope::Membership m_membership;
    std::vector<Source> m_sources;
    QStringList m_fragDataLocations;
    GLSLMacroProcessor* m_macroProcessor = nullptr;
    bool m_built = false;
    quint64 m_buildSerial = 0;
    Linked m_linked;
    /// Where the program was built, and its key in the cache there.
    OpenGLDeviceContext* m_context = nullptr;
    QByteArray m_cacheKey;
};

} // namespace Morvane::Qel
