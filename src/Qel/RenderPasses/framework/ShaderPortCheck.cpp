#include <Qel/RenderPasses/framework/ShaderPortCheck.h>

#include <QRegularExpression>

#include <algorithm>
#include <array>

#include <epoxy/gl.h>

#include <Qel/core/PassDescription.h>
#include <Qel/gl/Formats.h>
#include <Qel/gl/ShaderProgram.h>
#include <Qel/gl/Texture.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

struct GlslType
{
    unsigned int type;
    QLatin1StringView name;
};

constexpr std::array glslTypes{
    GlslType{GL_FLOAT, QLatin1StringView("float")},
    GlslType{GL_FLOAT_VEC2, QLatin1StringView("vec2")},
    GlslType{GL_FLOAT_VEC3, QLatin1StringView("vec3")},
    GlslType{GL_FLOAT_VEC4, QLatin1StringView("vec4")},
    GlslType{GL_INT, QLatin1StringView("int")},
    GlslType{GL_INT_VEC2, QLatin1StringView("ivec2")},
    GlslType{GL_INT_VEC3, QLatin1StringView("ivec3")},
    GlslType{GL_INT_VEC4, QLatin1StringView("ivec4")},
    GlslType{GL_UNSIGNED_INT, QLatin1StringView("uint")},
    GlslType{GL_UNSIGNED_INT_VEC2, QLatin1StringView("uvec2")},
    GlslType{GL_UNSIGNED_INT_VEC3, QLatin1StringView("uvec3")},
    GlslType{GL_UNSIGNED_INT_VEC4, QLatin1StringView("uvec4")},
    GlslType{GL_BOOL, QLatin1StringView("bool")},
    GlslType{GL_BOOL_VEC2, QLatin1StringView("bvec2")},
    GlslType{GL_BOOL_VEC3, QLatin1StringView("bvec3")},
    GlslType{GL_BOOL_VEC4, QLatin1StringView("bvec4")},
    GlslType{GL_FLOAT_MAT2, QLatin1StringView("mat2")},
    GlslType{GL_FLOAT_MAT3, QLatin1StringView("mat3")},
    GlslType{GL_FLOAT_MAT4, QLatin1StringView("mat4")},
    GlslType{GL_SAMPLER_2D, QLatin1StringView("sampler2D")},
    GlslType{GL_INT_SAMPLER_2D, QLatin1StringView("isampler2D")},
    GlslType{GL_UNSIGNED_INT_SAMPLER_2D, QLatin1StringView("usampler2D")},
    GlslType{GL_SAMPLER_2D_SHADOW, QLatin1StringView("sampler2DShadow")},
    GlslType{GL_SAMPLER_CUBE, QLatin1StringView("samplerCube")},
    GlslType{GL_INT_SAMPLER_CUBE, QLatin1StringView("isamplerCube")},
    GlslType{GL_UNSIGNED_INT_SAMPLER_CUBE, QLatin1StringView("usamplerCube")},
    GlslType{GL_SAMPLER_2D_ARRAY, QLatin1StringView("sampler2DArray")},
    GlslType{GL_INT_SAMPLER_2D_ARRAY, QLatin1StringView("isampler2DArray")},
    GlslType{GL_UNSIGNED_INT_SAMPLER_2D_ARRAY, QLatin1StringView("usampler2DArray")},
    GlslType{GL_SAMPLER_3D, QLatin1StringView("sampler3D")},
    GlslType{GL_SAMPLER_1D, QLatin1StringView("sampler1D")},
    GlslType{GL_SAMPLER_2D_RECT, QLatin1StringView("sampler2DRect")},
    GlslType{GL_SAMPLER_BUFFER, QLatin1StringView("samplerBuffer")},
};

QString nameOf(unsigned int type)
{
    const auto* found = std::find_if(glslTypes.begin(), glslTypes.end(),
                                     [=](const GlslType& candidate) { return candidate.type == type; });
    return found == glslTypes.end() ? u"value of another type"_s : QString(found->name);
}

/// The types of uniforms that take a port's value without losing any of it, the best one first. A colour may
/// lose its alpha, and a matrix may be cut to the part that turns directions.
QStringList suitableTypes(const QString& portType)
{
    static const QHash<QString, QStringList> types{
        {u"bool"_s, {u"bool"_s, u"int"_s, u"uint"_s, u"float"_s}},
        {u"Bool"_s, {u"bool"_s, u"int"_s, u"uint"_s, u"float"_s}},
        {u"int"_s, {u"int"_s, u"uint"_s, u"float"_s}},
        {u"float"_s, {u"float"_s}},
        {u"double"_s, {u"float"_s}},
        {u"QVector2D"_s, {u"vec2"_s}},
        {u"QVector3D"_s, {u"vec3"_s}},
        {u"QVector4D"_s, {u"vec4"_s}},
        {u"QColor"_s, {u"vec4"_s, u"vec3"_s}},
        {u"QRect"_s, {u"vec4"_s, u"ivec4"_s}},
        {u"QSize"_s, {u"vec2"_s, u"ivec2"_s}},
        {u"QMatrix4x4"_s, {u"mat4"_s, u"mat3"_s}},
    };
    return types.value(portType);
}

/// The sampler that a texture needs.
QString samplerFor(const Texture& texture)
{
    const bool isInteger = isIntegerFormat(texture.internalFormat());
    const unsigned int type = typeFromInternalFormat(texture.internalFormat());
    const bool isSigned = type == GL_BYTE || type == GL_SHORT || type == GL_INT;
    const QString prefix = !isInteger ? u""_s : isSigned ? u"i"_s : u"u"_s;
    switch (texture.target()) {
    case GL_TEXTURE_CUBE_MAP:
        return prefix + u"samplerCube"_s;
    case GL_TEXTURE_2D_ARRAY:
        return prefix + u"sampler2DArray"_s;
    case GL_TEXTURE_3D:
        return prefix + u"sampler3D"_s;
    case GL_TEXTURE_BUFFER:
        return prefix + u"samplerBuffer"_s;
    default:
        return prefix + u"sampler2D"_s;
    }
}

bool isDepth(const Texture& texture)
{
    const unsigned int format = formatFromInternalFormat(texture.internalFormat());
    return format == GL_DEPTH_COMPONENT || format == GL_DEPTH_STENCIL;
}

int numOccurrences(const QString& text, const QString& name)
{
    return static_cast<int>(
        text.count(QRegularExpression(u"\\b%1\\b"_s.arg(QRegularExpression::escape(name)))));
}

struct Variable
{
    QString name;
    QString type;
};

/// The variables that a stage declares as `in` or `out` outside blocks and without an explicit location.
std::vector<Variable> declaredVariables(const QString& text, const QString& direction)
{
    static const QString pattern =
        uR"((?:^|(?<=[;}]))\s*(?:(?:flat|smooth|noperspective|centroid|sample|patch)\s+)*)"
        R"(%1\s+(?:(?:highp|mediump|lowp)\s+)?(\w+)\s+(\w[^;{}()]*);)"_s;
    const QRegularExpression declaration(pattern.arg(direction), QRegularExpression::MultilineOption);
    std::vector<Variable> variables;
    for (auto matches = declaration.globalMatch(text); matches.hasNext();) {
        const QRegularExpressionMatch match = matches.next();
        // The list may hold several names, arrays among them.
        for (const QString& variable : match.captured(2).split(u',')) {
            variables.push_back({variable.section(u'[', 0, 0).trimmed(), match.captured(1)});
        }
    }
    return variables;
}

QStringList declared(const QString& text, const QString& direction)
{
    QStringList names;
    for (const Variable& variable : declaredVariables(text, direction)) {
        names.append(variable.name);
    }
    return names;
}

QString stageText(unsigned int stage)
{
    switch (stage) {
    case GL_VERTEX_SHADER:
        return u"vertex stage"_s;
    case GL_TESS_CONTROL_SHADER:
        return u"tessellation control stage"_s;
    case GL_TESS_EVALUATION_SHADER:
        return u"tessellation evaluation stage"_s;
    case GL_GEOMETRY_SHADER:
        return u"geometry stage"_s;
    default:
        return u"fragment stage"_s;
    }
}

} // namespace

ShaderPortCheck::ShaderPortCheck(const ShaderProgram& program)
    : m_program(program)
{
    static const QRegularExpression comment(u"//[^\n]*|/\\*.*?\\*/"_s,
                                            QRegularExpression::DotMatchesEverythingOption);
    for (const unsigned int stage : {GL_VERTEX_SHADER, GL_TESS_CONTROL_SHADER, GL_TESS_EVALUATION_SHADER,
                                     GL_GEOMETRY_SHADER, GL_FRAGMENT_SHADER}) {
        QString text;
        for (const ShaderProgram::Source& source : program.composedSources()) {
            text += source.stage == stage ? QString(source.text).remove(comment) : QString();
        }
        if (!text.isEmpty()) {
            m_stages.push_back({stage, text});
        }
    }
}

const ShaderPortCheck::Stage* ShaderPortCheck::find(unsigned int stage) const
{
    const auto found = std::find_if(m_stages.begin(), m_stages.end(),
                                    [=](const Stage& candidate) { return candidate.stage == stage; });
    return found == m_stages.end() ? nullptr : &*found;
}

void ShaderPortCheck::add(const QString& port, const QString& text)
{
    m_notices.push_back({port, text});
}

/// Whether the program has the uniform of a port; adds a notice if not.
bool ShaderPortCheck::isActive(const QString& port, const QString& uniform, const char* kind)
{
    m_known.append(uniform);
    if (m_program.hasUniform(uniform)) {
        return true;
    }
    const bool occurs = std::any_of(m_stages.begin(), m_stages.end(), [&](const Stage& stage) {
        return numOccurrences(stage.text, uniform) > 0;
    });
    m_missing.push_back(m_notices.size());
    add(port, (occurs ? u"the %1 %2 does not affect the result, so the driver removed it"_s
                      : u"no stage has the %1 %2"_s)
                  .arg(QLatin1StringView(kind), uniform));
    return false;
}

void ShaderPortCheck::checkTexture(const QString& port, const QString& sampler, const Texture& texture)
{
    if (!isActive(port, sampler, "sampler")) {
        return;
    }
    const QString type = nameOf(m_program.activeUniform(sampler).type);
    const QString needed = samplerFor(texture);
    if (type != needed && !(type == needed + u"Shadow"_s && isDepth(texture))) {
        add(port, u"%1 is declared as %2, but the texture needs %3"_s.arg(sampler, type, needed));
    }
}

void ShaderPortCheck::checkPlain(const QString& port)
{
    const QStringList suitable = suitableTypes(PortName::parse(port).type);
    if (suitable.isEmpty() || !isActive(port, port, "uniform")) {
        return;
    }
    const QString type = nameOf(m_program.activeUniform(port).type);
    if (!suitable.contains(type)) {
        add(port, u"the uniform %1 is declared as %2, which does not suit the value; declare it as %3"_s.arg(
                      port, type, suitable.join(u" or "_s)));
    }
}

/// Checks that a fragment output is of the kind that the format of its texture holds: GL leaves the texels
/// undefined otherwise.
void ShaderPortCheck::checkType(const Output& output, const QString& variable, const QString& type)
{
    const QString prefix = type.startsWith(u'u') ? u"u"_s : type.startsWith(u'i') ? u"i"_s : QString();
    if (prefix != output.prefix) {
        add(output.port, u"%1 is declared as %2, but the format %3 needs %4"_s.arg(
                             variable, type, output.format, output.prefix + u"vec4"_s));
    }
}

void ShaderPortCheck::checkOutputs(const std::vector<Output>& outputs)
{
    const Stage* fragment = find(GL_FRAGMENT_SHADER);
    const std::vector<Variable> variables =
        fragment ? declaredVariables(fragment->text, u"out"_s) : std::vector<Variable>();
    QStringList expected;
    for (const Output& output : outputs) {
        expected.append(output.variable);
    }
    QStringList others;
    for (const Variable& variable : variables) {
        const qsizetype index = expected.indexOf(variable.name);
        if (index >= 0) {
            checkType(outputs[static_cast<size_t>(index)], variable.name, variable.type);
        } else {
            others.append(variable.name);
        }
    }
    // Without outputs nothing is kept. A single output of any name goes to the only draw buffer.
    if (outputs.size() == 1 && variables.size() == 1 && others.size() == 1) {
        checkType(outputs.front(), variables.front().name, variables.front().type);
    }
    if (outputs.empty() || (outputs.size() == 1 && others.size() < 2)) {
        return;
    }
    for (const Output& output : outputs) {
        const QByteArray name = output.variable.toUtf8();
        if (glGetFragDataLocation(m_program.programID(), name.constData()) < 0) {
            add(output.port, u"the fragment stage writes no %1"_s.arg(output.variable));
        }
    }
    for (const QString& name : others) {
        add({}, u"the fragment output %1 belongs to no port; the outputs are %2"_s.arg(
                    name, expected.join(u", "_s)));
    }
}

void ShaderPortCheck::checkVaryings()
{
    for (size_t i = 1; i < m_stages.size(); ++i) {
        const Stage& writer = m_stages[i - 1];
        const Stage& reader = m_stages[i];
        const QStringList written = declared(writer.text, u"out"_s);
        for (const QString& name : declared(reader.text, u"in"_s)) {
            // A name that occurs once is only declared. Names of blocks and with a location match otherwise.
            const bool isWritten = written.contains(name) ? numOccurrences(writer.text, name) > 1
                                                          : numOccurrences(writer.text, name) > 0;
            if (!isWritten && numOccurrences(reader.text, name) > 1) {
                add({}, u"the %1 reads %2, which the %3 does not write%4"_s.arg(
                            stageText(reader.stage), name, stageText(writer.stage),
                            written.isEmpty() ? QString() : u"; it has %1"_s.arg(written.join(u", "_s))));
            }
        }
    }
}

std::vector<ShaderRenderPass::Notice> ShaderPortCheck::takeNotices()
{
    QStringList others = m_program.activeUniforms();
    others.removeIf([&](const QString& name) {
        return m_known.contains(name) || name.startsWith(u"u_ManagedTexture"_s) || name == u"u_DrawID"_s;
    });
    if (!others.isEmpty()) {
        for (const size_t i : m_missing) {
            m_notices[i].text += u"; no port sets %1"_s.arg(others.join(u", "_s));
        }
    }
    return std::move(m_notices);
}

} // namespace Morvane::Qel
