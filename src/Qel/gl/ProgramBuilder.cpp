#include <Qel/gl/ProgramBuilder.h>

#include <QCryptographicHash>
#include <QFile>
#include <QRegularExpression>

#include <algorithm>

#include <epoxy/gl.h>

#include <Qel/gl/AttributeLayout.h>
#include <Qel/gl/InstanceData.h>
#include <Qel/gl/OpenGLDeviceContext.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

QString infoLog(unsigned int object, decltype(glGetShaderiv) getParameter,
                decltype(glGetShaderInfoLog) getLog)
{
    int length = 0;
    getParameter(object, GL_INFO_LOG_LENGTH, &length);
    QByteArray log(length, '\0');
    getLog(object, length, &length, log.data());
    log.truncate(length);
    return QString::fromUtf8(log).trimmed();
}

/// A line of a driver's log that refers to a line of the source.
struct DriverMessage
{
    /// From 1 on; 0 if the message refers to no line.
    int composedLine;
    /// Everything after the line number, separator included: ":5: error: ..." if the driver reports columns.
    QString text;
};

/// Parses the formats that drivers use: "0:12(5): error: text", "0(12) : error text" and "ERROR: 0:12: text".
DriverMessage parseLogLine(const QString& logLine)
{
    static const QRegularExpression withColumn(uR"(^\d+:(\d+)\((\d+)\): (.*)$)"_s);
    static const QRegularExpression inParentheses(uR"(^\d+\((\d+)\) ?: (.*)$)"_s);
    static const QRegularExpression severityFirst(uR"(^(ERROR|WARNING): \d+:(\d+): (.*)$)"_s);
    if (const auto match = withColumn.match(logLine); match.hasMatch()) {
        return {match.captured(1).toInt(), u":%1: %2"_s.arg(match.captured(2), match.captured(3))};
    }
    if (const auto match = inParentheses.match(logLine); match.hasMatch()) {
        return {match.captured(1).toInt(), u": "_s + match.captured(2)};
    }
    if (const auto match = severityFirst.match(logLine); match.hasMatch()) {
        return {match.captured(2).toInt(), u": %1: %2"_s.arg(match.captured(1).toLower(), match.captured(3))};
    }
    return {0, logLine};
}

/// The lines around a line of a composed source, numbered as in the file they come from.
QString excerpt(const GLSLMacroProcessor::Result& composed, int composedLine)
{
    constexpr int reach = 2;
    QStringList lines = composed.source.split(u'\n');
    if (lines.last().isEmpty()) {
        lines.removeLast();
    }
    const int file = composed.origin(composedLine).file;
    QStringList excerpted;
    for (int i = composedLine - reach; i <= composedLine + reach; ++i) {
        if (i >= 1 && i <= lines.size() && composed.origin(i).file == file) {
            excerpted.append(u"%1%2 | %3"_s.arg(i == composedLine ? QChar(u'>') : QChar(u' '))
                                 .arg(composed.origin(i).line, 5)
                                 .arg(lines[i - 1]));
        }
    }
    return excerpted.join(u'\n');
}

} // namespace

StageName stageName(unsigned int stage)
{
    switch (stage) {
    case GL_VERTEX_SHADER:
        return {"vertex"_L1, "vert"_L1};
    case GL_TESS_CONTROL_SHADER:
        return {"tessellation control"_L1, "tesc"_L1};
    case GL_TESS_EVALUATION_SHADER:
        return {"tessellation evaluation"_L1, "tese"_L1};
    case GL_GEOMETRY_SHADER:
        return {"geometry"_L1, "geom"_L1};
    case GL_FRAGMENT_SHADER:
        return {"fragment"_L1, "frag"_L1};
    case GL_COMPUTE_SHADER:
        return {"compute"_L1, "comp"_L1};
    default:
        return {"unknown"_L1, "glsl"_L1};
    }
}

bool isTessellation(unsigned int stage)
{
    return stage == GL_TESS_CONTROL_SHADER || stage == GL_TESS_EVALUATION_SHADER;
}

void ProgramBuilder::preprocess(const ProgramSource& source)
{
    QString text = source.text;
    QString name = source.name;
    if (source.isFile) {
        const QString found = m_processor.findFile(source.text);
        QFile file(found.isEmpty() ? source.text : found);
        if (!file.open(QIODevice::ReadOnly)) {
            fail(u"%1: cannot read this %2 shader: %3"_s.arg(source.text, stageName(source.stage).name,
                                                             file.errorString()));
            return;
        }
        text = QString::fromUtf8(file.readAll());
        name = file.fileName();
    }
    GLSLMacroProcessor::Result composed =
        m_processor.process(text, name.isEmpty() ? stageName(source.stage).name + " shader"_L1 : name,
                            InstanceDataRegistry::Instance()->prototypes());
    if (!composed.errors.isEmpty()) {
        fail(composed.errors.join(u'\n'));
        return;
    }
    m_sources.push_back({source.stage, std::move(composed)});
}

QByteArray ProgramBuilder::hash() const
{
    QCryptographicHash hash(QCryptographicHash::Blake2b_256);
    for (const Composed& source : m_sources) {
        hash.addData(QByteArray::number(source.stage) + '\n');
        hash.addData(source.result.source.toUtf8());
        // Marks the end of the source, which contains no such character.
        hash.addData(QByteArray(1, '\0'));
    }
    return hash.result();
}

std::vector<ShaderProgram::Source> ProgramBuilder::composedSources() const
{
    std::vector<ShaderProgram::Source> sources;
    for (const Composed& composed : m_sources) {
        sources.push_back({composed.stage, composed.result.source});
    }
    return sources;
}

void ProgramBuilder::compile(const Composed& source)
{
    const GLSLMacroProcessor::Result& composed = source.result;
    const unsigned int shader = glCreateShader(source.stage);
    if (shader == 0) {
        fail(u"%1: the context has no %2 shaders"_s.arg(composed.files[0], stageName(source.stage).name));
        return;
    }
    const QByteArray utf8 = composed.source.toUtf8();
    const char* data = utf8.constData();
    glShaderSource(shader, 1, &data, nullptr);
    glCompileShader(shader);
    addDriverLog(infoLog(shader, glGetShaderiv, glGetShaderInfoLog), composed);
    int compiled = 0;
    glGetShaderiv(shader, GL_COMPILE_STATUS, &compiled);
    if (compiled == 0) {
        m_failed = true;
    }
    glAttachShader(m_program, shader);
    // GL deletes it once it is detached.
    glDeleteShader(shader);
    m_shaders.push_back(shader);
}

unsigned int ProgramBuilder::link(const QStringList& fragDataLocations)
{
    m_program = glCreateProgram();
    const OpenGLDeviceContext* context = OpenGLDeviceContext::current();
    const bool tessellates = std::any_of(m_sources.begin(), m_sources.end(),
                                         [](const Composed& source) { return isTessellation(source.stage); });
    if (tessellates && context->version() < 40 && !context->hasExtension("ARB_tessellation_shader")) {
        fail(u"tessellation stages need OpenGL 4.0 or GL_ARB_tessellation_shader; this context has %1"_s.arg(
            context->versionString()));
        return m_program;
    }
    for (const Composed& source : m_sources) {
        compile(source);
    }
    if (m_shaders.empty()) {
        fail(u"no sources were added"_s);
    }
    if (!m_failed) {
        bindStandardAttributes();
        for (qsizetype i = 0; i < fragDataLocations.size(); ++i) {
            glBindFragDataLocation(m_program, static_cast<unsigned int>(i),
                                   fragDataLocations[i].toUtf8().constData());
        }
        glLinkProgram(m_program);
        int linked = 0;
        glGetProgramiv(m_program, GL_LINK_STATUS, &linked);
        const QString log = infoLog(m_program, glGetProgramiv, glGetProgramInfoLog);
        if (!log.isEmpty()) {
            addMessage(log);
        }
        if (linked == 0) {
            m_failed = true;
        }
    }
    for (const unsigned int shader : m_shaders) {
        glDetachShader(m_program, shader);
    }
    return m_program;
}

/// Binds the names of the library's attributes to the locations that its own vertex arrays are made for.
void ProgramBuilder::bindStandardAttributes()
{
    const bool setsLocations = std::any_of(m_sources.begin(), m_sources.end(), [](const Composed& source) {
        return source.stage == GL_VERTEX_SHADER && source.result.source.contains(u"location"_s);
    });
    // Some linkers reject a bound location that a shader gives to another attribute.
    if (setsLocations) {
        return;
    }
    unsigned int location = 0;
    for (const char* name : AttributeLayout::standardNames) {
        glBindAttribLocation(m_program, location++, name);
    }
}

void ProgramBuilder::fail(const QString& message)
{
    m_failed = true;
    addMessage(message);
}

void ProgramBuilder::addMessage(const QString& message)
{
    m_log.append(message);
    m_report.append(message);
}

void ProgramBuilder::addDriverLog(const QString& log, const GLSLMacroProcessor::Result& composed)
{
    std::vector<DriverMessage> messages;
    for (const QString& logLine : log.split(u'\n', Qt::SkipEmptyParts)) {
        messages.push_back(parseLogLine(logLine));
    }
    for (size_t i = 0; i < messages.size(); ++i) {
        const auto& [composedLine, text] = messages[i];
        if (composedLine == 0) {
            addMessage(u"%1: %2"_s.arg(composed.files[0], text));
            continue;
        }
        const GLSLMacroProcessor::Result::Position origin = composed.origin(composedLine);
        addMessage(u"%1:%2%3"_s.arg(composed.files[origin.file], QString::number(origin.line), text));
        // Consecutive messages about one line share an excerpt.
        if (i + 1 == messages.size() || messages[i + 1].composedLine != composedLine) {
            m_report.append(excerpt(composed, composedLine));
        }
    }
}

} // namespace Morvane::Qel
