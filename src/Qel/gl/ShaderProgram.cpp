#include <Qel/gl/ShaderProgram.h>

#include <QCryptographicHash>
#include <QFile>
#include <QGenericMatrix>
#include <QRegularExpression>
#include <QVarLengthArray>

#include <algorithm>
#include <array>
#include <atomic>
#include <limits>

#include <epoxy/gl.h>

#include <Qel/core/Diagnostics.h>
#include <Qel/gl/BindingRecord.h>
#include <Qel/gl/GLSLMacroProcessor.h>
#include <Qel/gl/Guards.h>
#include <Qel/gl/InstanceData.h>
#include <Qel/gl/OpenGLDeviceContext.h>
#include <Qel/gl/ProgramCache.h>
#include <Qel/gl/UniformBlocks.h>
#include <Qel/gl/VertexArrayObject.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

std::atomic<quint64> failedBuilds = 0;

QString stageName(unsigned int stage)
{
    switch (stage) {
    case GL_VERTEX_SHADER:
        return u"vertex shader"_s;
    case GL_TESS_CONTROL_SHADER:
        return u"tessellation control shader"_s;
    case GL_TESS_EVALUATION_SHADER:
        return u"tessellation evaluation shader"_s;
    case GL_GEOMETRY_SHADER:
        return u"geometry shader"_s;
    case GL_FRAGMENT_SHADER:
        return u"fragment shader"_s;
    case GL_COMPUTE_SHADER:
        return u"compute shader"_s;
    default:
        return u"shader of stage 0x%1"_s.arg(stage, 0, 16);
    }
}

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

/// A line of a driver's log that names a line of the source.
struct DriverMessage
{
    int composedLine;
    /// What follows the line's number, with the separator: ":5: error: ..." when the driver knows columns.
    QString text;
};

/// Reads the forms that drivers use, "0:12(5): error: text", "0(12) : error text" and "ERROR: 0:12: text".
/// The line is 0 when a log line has none of them.
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

/// The lines around one of a composed source, numbered as in the file that they come from.
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

/// The attributes that a linked program reads from arrays, with their locations.
std::vector<std::pair<QByteArray, int>> attributesOf(unsigned int program)
{
    int numAttributes = 0;
    int nameSize = 0;
    glGetProgramiv(program, GL_ACTIVE_ATTRIBUTES, &numAttributes);
    glGetProgramiv(program, GL_ACTIVE_ATTRIBUTE_MAX_LENGTH, &nameSize);
    std::vector<std::pair<QByteArray, int>> attributes;
    for (int i = 0; i < numAttributes; ++i) {
        QByteArray name(nameSize, '\0');
        int length = 0;
        int arraySize = 0;
        unsigned int type = 0;
        glGetActiveAttrib(program, static_cast<unsigned int>(i), nameSize, &length, &arraySize, &type,
                          name.data());
        name.truncate(length);
        // Built-in inputs such as gl_VertexID are active as well.
        if (const int location = glGetAttribLocation(program, name.constData()); location >= 0) {
            attributes.emplace_back(name, location);
        }
    }
    return attributes;
}

int toInt(double value)
{
    constexpr double lowest = std::numeric_limits<int>::min();
    constexpr double highest = std::numeric_limits<int>::max();
    return value >= lowest && value <= highest ? static_cast<int>(value) : 0;
}

/// Negative values wrap around, as in GLSL.
unsigned int toUnsigned(double value)
{
    constexpr double highest = std::numeric_limits<unsigned int>::max();
    return value >= 0.0 && value <= highest ? static_cast<unsigned int>(value)
                                            : static_cast<unsigned int>(toInt(value));
}

/// What the elements of a uniform are made of.
struct UniformShape
{
    enum Base
    {
        Float,
        Int,
        Bool,
        Unsigned,
        Unsupported
    };
    Base base;
    int rows;
    int columns;
};

UniformShape shapeOf(unsigned int type)
{
    switch (type) {
    case GL_FLOAT:
        return {UniformShape::Float, 1, 1};
    case GL_FLOAT_VEC2:
        return {UniformShape::Float, 2, 1};
    case GL_FLOAT_VEC3:
        return {UniformShape::Float, 3, 1};
    case GL_FLOAT_VEC4:
        return {UniformShape::Float, 4, 1};
    case GL_FLOAT_MAT2:
        return {UniformShape::Float, 2, 2};
    case GL_FLOAT_MAT3:
        return {UniformShape::Float, 3, 3};
    case GL_FLOAT_MAT4:
        return {UniformShape::Float, 4, 4};
    case GL_INT_VEC2:
        return {UniformShape::Int, 2, 1};
    case GL_INT_VEC3:
        return {UniformShape::Int, 3, 1};
    case GL_INT_VEC4:
        return {UniformShape::Int, 4, 1};
    case GL_BOOL:
        return {UniformShape::Bool, 1, 1};
    case GL_BOOL_VEC2:
        return {UniformShape::Bool, 2, 1};
    case GL_BOOL_VEC3:
        return {UniformShape::Bool, 3, 1};
    case GL_BOOL_VEC4:
        return {UniformShape::Bool, 4, 1};
    case GL_UNSIGNED_INT:
        return {UniformShape::Unsigned, 1, 1};
    case GL_UNSIGNED_INT_VEC2:
        return {UniformShape::Unsigned, 2, 1};
    case GL_UNSIGNED_INT_VEC3:
        return {UniformShape::Unsigned, 3, 1};
    case GL_UNSIGNED_INT_VEC4:
        return {UniformShape::Unsigned, 4, 1};
    case GL_FLOAT_MAT2x3:
    case GL_FLOAT_MAT2x4:
    case GL_FLOAT_MAT3x2:
    case GL_FLOAT_MAT3x4:
    case GL_FLOAT_MAT4x2:
    case GL_FLOAT_MAT4x3:
    case GL_DOUBLE:
    case GL_DOUBLE_VEC2:
    case GL_DOUBLE_VEC3:
    case GL_DOUBLE_VEC4:
    case GL_DOUBLE_MAT2:
    case GL_DOUBLE_MAT3:
    case GL_DOUBLE_MAT4:
    case GL_DOUBLE_MAT2x3:
    case GL_DOUBLE_MAT2x4:
    case GL_DOUBLE_MAT3x2:
    case GL_DOUBLE_MAT3x4:
    case GL_DOUBLE_MAT4x2:
    case GL_DOUBLE_MAT4x3:
        return {UniformShape::Unsupported, 0, 0};
    default:
        // Integers, and samplers and images by their units.
        return {UniformShape::Int, 1, 1};
    }
}

void upload(int location, const UniformShape& shape, int count, const float* values)
{
    switch (shape.rows) {
    case 1:
        glUniform1fv(location, count, values);
        break;
    case 2:
        shape.columns == 2 ? glUniformMatrix2fv(location, count, GL_FALSE, values)
                           : glUniform2fv(location, count, values);
        break;
    case 3:
        shape.columns == 3 ? glUniformMatrix3fv(location, count, GL_FALSE, values)
                           : glUniform3fv(location, count, values);
        break;
    default:
        shape.columns == 4 ? glUniformMatrix4fv(location, count, GL_FALSE, values)
                           : glUniform4fv(location, count, values);
        break;
    }
}

void upload(int location, const UniformShape& shape, int count, const int* values)
{
    switch (shape.rows) {
    case 1:
        glUniform1iv(location, count, values);
        break;
    case 2:
        glUniform2iv(location, count, values);
        break;
    case 3:
        glUniform3iv(location, count, values);
        break;
    default:
        glUniform4iv(location, count, values);
        break;
    }
}

void upload(int location, const UniformShape& shape, int count, const unsigned int* values)
{
    switch (shape.rows) {
    case 1:
        glUniform1uiv(location, count, values);
        break;
    case 2:
        glUniform2uiv(location, count, values);
        break;
    case 3:
        glUniform3uiv(location, count, values);
        break;
    default:
        glUniform4uiv(location, count, values);
        break;
    }
}

/// Converts the values of `count` elements to the declared type and uploads them. Short lists need no heap.
template<class Value>
void convertAndUpload(int location, const UniformShape& shape, int count, const Value* values)
{
    const int numValues = count * shape.rows * shape.columns;
    const auto uploadAs = [&]<class Target>(Target (*convert)(double)) {
        QVarLengthArray<Target, 64> converted(numValues);
        std::transform(values, values + numValues, converted.begin(),
                       [convert](Value value) { return convert(static_cast<double>(value)); });
        upload(location, shape, count, converted.constData());
    };
    switch (shape.base) {
    case UniformShape::Float:
        if constexpr (std::is_same_v<Value, float>) {
            upload(location, shape, count, values);
        } else {
            uploadAs(+[](double value) { return static_cast<float>(value); });
        }
        break;
    case UniformShape::Int:
        uploadAs(toInt);
        break;
    case UniformShape::Bool:
        uploadAs(+[](double value) { return value != 0.0 ? 1 : 0; });
        break;
    case UniformShape::Unsigned:
        uploadAs(toUnsigned);
        break;
    case UniformShape::Unsupported:
        break;
    }
}

/// Sets a scalar or a vector; doubles hold every number that the setters take.
template<class... Values>
void setVector(const ActiveUniform& uniform, Values... values)
{
    const std::array vector{static_cast<double>(values)...};
    const UniformShape shape = shapeOf(uniform.type);
    if (uniform.location >= 0 && shape.columns == 1 && shape.rows <= static_cast<int>(vector.size())) {
        convertAndUpload(uniform.location, shape, 1, vector.data());
    }
}

/// Sets a matrix from the upper left part of one, given column by column.
void setMatrix(const ActiveUniform& uniform, const float* values, int size)
{
    const UniformShape shape = shapeOf(uniform.type);
    if (uniform.location < 0 || shape.columns < 2 || shape.columns > size) {
        return;
    }
    std::array<float, 16> part{};
    for (int column = 0; column < shape.columns; ++column) {
        std::copy_n(values + column * size, shape.rows, part.begin() + column * shape.rows);
    }
    upload(uniform.location, shape, 1, part.data());
}

void setArray(const ActiveUniform& uniform, const QVector<float>& values)
{
    const UniformShape shape = shapeOf(uniform.type);
    if (uniform.location < 0 || shape.base == UniformShape::Unsupported) {
        return;
    }
    const int numGiven = static_cast<int>(values.size()) / (shape.rows * shape.columns);
    if (const int count = std::min(numGiven, uniform.arraySize); count > 0) {
        convertAndUpload(uniform.location, shape, count, values.constData());
    }
}

void setColour(const ActiveUniform& uniform, const QColor& colour)
{
    const QColor rgb = colour.toRgb();
    setVector(uniform, rgb.redF(), rgb.greenF(), rgb.blueF(), rgb.alphaF());
}

/// Sets a value of the types that QVariant knows; others are ignored.
void setValue(const ActiveUniform& uniform, const QVariant& value)
{
    switch (value.typeId()) {
    case QMetaType::Bool:
    case QMetaType::Int:
    case QMetaType::UInt:
    case QMetaType::LongLong:
    case QMetaType::ULongLong:
    case QMetaType::Float:
    case QMetaType::Double:
        setVector(uniform, value.toDouble());
        break;
    case QMetaType::QPoint: {
        const QPoint point = value.toPoint();
        setVector(uniform, point.x(), point.y());
        break;
    }
    case QMetaType::QPointF: {
        const QPointF point = value.toPointF();
        setVector(uniform, point.x(), point.y());
        break;
    }
    case QMetaType::QSize: {
        const QSize size = value.toSize();
        setVector(uniform, size.width(), size.height());
        break;
    }
    case QMetaType::QSizeF: {
        const QSizeF size = value.toSizeF();
        setVector(uniform, size.width(), size.height());
        break;
    }
    case QMetaType::QRect: {
        const QRect rectangle = value.toRect();
        setVector(uniform, rectangle.x(), rectangle.y(), rectangle.width(), rectangle.height());
        break;
    }
    case QMetaType::QRectF: {
        const QRectF rectangle = value.toRectF();
        setVector(uniform, rectangle.x(), rectangle.y(), rectangle.width(), rectangle.height());
        break;
    }
    case QMetaType::QColor:
        setColour(uniform, value.value<QColor>());
        break;
    case QMetaType::QVector2D: {
        const auto vector = value.value<QVector2D>();
        setVector(uniform, vector.x(), vector.y());
        break;
    }
    case QMetaType::QVector3D: {
        const auto vector = value.value<QVector3D>();
        setVector(uniform, vector.x(), vector.y(), vector.z());
        break;
    }
    case QMetaType::QVector4D: {
        const auto vector = value.value<QVector4D>();
        setVector(uniform, vector.x(), vector.y(), vector.z(), vector.w());
        break;
    }
    case QMetaType::QMatrix4x4:
        setMatrix(uniform, value.value<QMatrix4x4>().constData(), 4);
        break;
    default:
        if (value.metaType() == QMetaType::fromType<QVector<float>>()) {
            setArray(uniform, value.value<QVector<float>>());
        } else if (value.metaType() == QMetaType::fromType<QMatrix3x3>()) {
            setMatrix(uniform, value.value<QMatrix3x3>().constData(), 3);
        }
        break;
    }
}

} // namespace

/// Collects the objects and the messages of one build: compose each source, then compile and link them all.
class ShaderProgram::Builder
{
public:
    explicit Builder(const GLSLMacroProcessor& processor)
        : m_processor(processor)
    {
    }

    void compose(const Source& source);
    /// Tells apart what the composed sources of programs are.
    QByteArray hash() const;
    /// Returns the program; on failure it is not usable.
    unsigned int link(const QStringList& fragDataLocations);

    bool hasFailed() const { return m_failed; }
    /// Every message, mapped.
    QString log() const { return m_log.join(u'\n'); }
    /// Every message, with excerpts of the sources.
    QString report() const { return m_report.join(u'\n'); }

private:
    struct Composed
    {
        unsigned int stage;
        GLSLMacroProcessor::Result result;
    };
    void compile(const Composed& source);
    void fail(const QString& message);
    void addMessage(const QString& message);
    void addDriverLog(const QString& log, const GLSLMacroProcessor::Result& composed);
    bool placeAttributes();

    const GLSLMacroProcessor& m_processor;
    std::vector<Composed> m_sources;
    unsigned int m_program = 0;
    std::vector<unsigned int> m_shaders;
    bool m_failed = false;
    QStringList m_log;
    QStringList m_report;
};

void ShaderProgram::Builder::compose(const Source& source)
{
    QString text = source.text;
    QString name = source.name;
    if (source.isFile) {
        const QString found = m_processor.findFile(source.text);
        QFile file(found.isEmpty() ? source.text : found);
        if (!file.open(QIODevice::ReadOnly)) {
            fail(u"%1: cannot read this %2: %3"_s.arg(source.text, stageName(source.stage),
                                                      file.errorString()));
            return;
        }
        text = QString::fromUtf8(file.readAll());
        name = file.fileName();
    }
    GLSLMacroProcessor::Result composed =
        m_processor.process(text, name.isEmpty() ? stageName(source.stage) : name);
    if (!composed.errors.isEmpty()) {
        fail(composed.errors.join(u'\n'));
        return;
    }
    m_sources.push_back({source.stage, std::move(composed)});
}

QByteArray ShaderProgram::Builder::hash() const
{
    QCryptographicHash hash(QCryptographicHash::Sha256);
    for (const Composed& source : m_sources) {
        hash.addData(QByteArray::number(source.stage) + '\n');
        hash.addData(source.result.source.toUtf8());
        // Ends the source: it holds no such character.
        hash.addData(QByteArray(1, '\0'));
    }
    return hash.result();
}

void ShaderProgram::Builder::compile(const Composed& source)
{
    const GLSLMacroProcessor::Result& composed = source.result;
    const unsigned int shader = glCreateShader(source.stage);
    if (shader == 0) {
        fail(u"%1: the context has no such stage: %2"_s.arg(composed.files[0], stageName(source.stage)));
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
    // GL deletes it when it is detached.
    glDeleteShader(shader);
    m_shaders.push_back(shader);
}

unsigned int ShaderProgram::Builder::link(const QStringList& fragDataLocations)
{
    m_program = glCreateProgram();
    for (const Composed& source : m_sources) {
        compile(source);
    }
    if (m_shaders.empty()) {
        fail(u"no sources were added"_s);
    }
    if (!m_failed) {
        for (const char* name : {"va_Vertex", "va_Normal", "va_TexCoord"}) {
            glBindAttribLocation(m_program,
                                 static_cast<unsigned int>(attributeLocation(QString::fromUtf8(name))), name);
        }
        for (qsizetype i = 0; i < fragDataLocations.size(); ++i) {
            glBindFragDataLocation(m_program, static_cast<unsigned int>(i),
                                   fragDataLocations[i].toUtf8().constData());
        }
        glLinkProgram(m_program);
        int linked = 0;
        glGetProgramiv(m_program, GL_LINK_STATUS, &linked);
        // The names of other attributes are known only now.
        if (linked != 0 && placeAttributes()) {
            glLinkProgram(m_program);
            glGetProgramiv(m_program, GL_LINK_STATUS, &linked);
        }
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

/// Gives every attribute the location that its name has in all programs. Returns whether one was elsewhere.
bool ShaderProgram::Builder::placeAttributes()
{
    bool isMisplaced = false;
    for (const auto& [name, actual] : attributesOf(m_program)) {
        const int location = attributeLocation(QString::fromUtf8(name));
        if (location < 0) {
            fail(u"attribute %1: every attribute location is taken by other names"_s.arg(
                QString::fromUtf8(name)));
        } else if (location != actual) {
            glBindAttribLocation(m_program, static_cast<unsigned int>(location), name.constData());
            isMisplaced = true;
        }
    }
    return isMisplaced;
}

void ShaderProgram::Builder::fail(const QString& message)
{
    m_failed = true;
    addMessage(message);
}

void ShaderProgram::Builder::addMessage(const QString& message)
{
    m_log.append(message);
    m_report.append(message);
}

void ShaderProgram::Builder::addDriverLog(const QString& log, const GLSLMacroProcessor::Result& composed)
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
        // Messages about one line share an excerpt.
        if (i + 1 == messages.size() || messages[i + 1].composedLine != composedLine) {
            m_report.append(excerpt(composed, composedLine));
        }
    }
}

ShaderProgram::ShaderProgram(QObject* parent)
    : QObject(parent)
    , m_membership(this)
{
}

ShaderProgram::~ShaderProgram()
{
    OpenGLDeviceContext* context = OpenGLDeviceContext::current();
    if (context) {
        context->bindings().forget(this);
    }
    // Without its context the GL object is out of reach, and goes with the context.
    if (m_linked.name != 0 && context && context == m_context) {
        context->programCache().give(m_cacheKey, std::move(m_linked));
    }
}

void ShaderProgram::bind()
{
    build();
    OpenGLDeviceContext::current()->bindings().bindProgram(this);
}

void ShaderProgram::release()
{
    OpenGLDeviceContext::current()->bindings().releaseProgram(this);
}

void ShaderProgram::addShader(unsigned int stage, const QString& source, const QString& name)
{
    if (QEL_CHECK(__FILE__, !m_built, u"a program that is built takes no more sources"_s)) {
        m_sources.push_back({stage, source, name, false});
    }
}

void ShaderProgram::addShaderFromFile(unsigned int stage, const QString& path)
{
    if (QEL_CHECK(__FILE__, !m_built, u"a program that is built takes no more sources"_s)) {
        m_sources.push_back({stage, path, path, true});
    }
}

void ShaderProgram::setMacroProcessor(GLSLMacroProcessor* processor)
{
    m_macroProcessor = processor;
}

void ShaderProgram::setFragDataLocations(const QStringList& names)
{
    m_fragDataLocations = names;
}

bool ShaderProgram::isValid()
{
    build();
    return m_linked.name != 0;
}

void ShaderProgram::build()
{
    if (m_built) {
        return;
    }
    m_built = true;
    const GLSLMacroProcessor plainProcessor;
    Builder builder(m_macroProcessor != nullptr ? *m_macroProcessor : plainProcessor);
    for (const Source& source : m_sources) {
        builder.compose(source);
    }
    m_context = OpenGLDeviceContext::current();
    m_cacheKey = builder.hash() + (m_fragDataLocations + QStringList(objectName())).join(u'\n').toUtf8();
    if (!builder.hasFailed()) {
        m_linked = m_context->programCache().take(m_cacheKey);
    }
    const bool isNew = m_linked.name == 0;
    if (isNew) {
        const unsigned int program = builder.link(m_fragDataLocations);
        m_linked.log = builder.log();
        if (builder.hasFailed()) {
            glDeleteProgram(program);
            ++failedBuilds;
            logCritical(__FILE__, __LINE__,
                        u"%1 cannot be built:\n%2"_s.arg(description(), builder.report()));
            return;
        }
        m_linked.name = program;
    }
    static std::atomic<quint64> lastSerial = 0;
    m_buildSerial = ++lastSerial;
    if (isNew) {
        readInterface();
        readInitialValues();
    } else {
        restoreInitialValues();
    }
    connectInterface();
}

/// The program in messages: its name, or what it is made of.
QString ShaderProgram::description() const
{
    if (!objectName().isEmpty()) {
        return u"program \"%1\""_s.arg(objectName());
    }
    QStringList names;
    for (const Source& source : m_sources) {
        names.append(source.name.isEmpty() ? stageName(source.stage) : source.name);
    }
    return u"program (%1)"_s.arg(names.join(u", "_s));
}

/// Reads what the linked program takes.
void ShaderProgram::readInterface()
{
    int numUniforms = 0;
    glGetProgramiv(m_linked.name, GL_ACTIVE_UNIFORMS, &numUniforms);
    int nameSize = 0;
    glGetProgramiv(m_linked.name, GL_ACTIVE_UNIFORM_MAX_LENGTH, &nameSize);
    QByteArray buffer(nameSize, '\0');
    for (int i = 0; i < numUniforms; ++i) {
        ActiveUniform uniform{};
        int length = 0;
        glGetActiveUniform(m_linked.name, static_cast<unsigned int>(i), nameSize, &length, &uniform.arraySize,
                           &uniform.type, buffer.data());
        uniform.location = glGetUniformLocation(m_linked.name, buffer.constData());
        if (uniform.location >= 0) {
            const QByteArray name = buffer.left(length);
            m_linked.uniforms.insert(name.endsWith("[0]") ? name.chopped(3) : name, uniform);
        }
    }

    for (const auto& [name, location] : attributesOf(m_linked.name)) {
        m_linked.attributeMask |= 1U << location;
    }
}

void ShaderProgram::readInitialValues()
{
    for (auto i = m_linked.uniforms.cbegin(); i != m_linked.uniforms.cend(); ++i) {
        const ActiveUniform& uniform = i.value();
        const UniformShape shape = shapeOf(uniform.type);
        const auto read = [&]<class Value>(void (*get)(unsigned int, int, Value*)) {
            const int size = shape.rows * shape.columns;
            std::vector<Value> values(static_cast<size_t>(size) * static_cast<size_t>(uniform.arraySize));
            for (int element = 0; element < uniform.arraySize; ++element) {
                const QByteArray name = i.key() + '[' + QByteArray::number(element) + ']';
                const int location =
                    element == 0 ? uniform.location : glGetUniformLocation(m_linked.name, name.constData());
                get(m_linked.name, location,
                    values.data() + static_cast<size_t>(element) * static_cast<size_t>(size));
            }
            m_linked.initialValues.push_back({uniform, std::move(values)});
        };
        switch (shape.base) {
        case UniformShape::Float:
            read(+[](unsigned int program, int location, float* values) {
                glGetUniformfv(program, location, values);
            });
            break;
        case UniformShape::Int:
        case UniformShape::Bool:
            read(+[](unsigned int program, int location, int* values) {
                glGetUniformiv(program, location, values);
            });
            break;
        case UniformShape::Unsigned:
            read(+[](unsigned int program, int location, unsigned int* values) {
                glGetUniformuiv(program, location, values);
            });
            break;
        case UniformShape::Unsupported:
            // Nothing sets it.
            break;
        }
    }
}

void ShaderProgram::restoreInitialValues()
{
    const AutoBinder binder(this);
    for (const InitialValue& initial : m_linked.initialValues) {
        const auto set = [&](const auto& elements) {
            upload(initial.uniform.location, shapeOf(initial.uniform.type), initial.uniform.arraySize,
                   elements.data());
        };
        std::visit(set, initial.elements);
    }
}

/// Connects what has a fixed place.
void ShaderProgram::connectInterface()
{
    const auto bindBlock = [this](const char* name, unsigned int bindingPoint) {
        if (const int index = uniformBlockIndex(name); index >= 0) {
            glUniformBlockBinding(m_linked.name, static_cast<unsigned int>(index), bindingPoint);
        }
    };
    for (const auto& plan : InstanceDataRegistry::Instance()->plans()) {
        bindBlock(plan->name().toUtf8().constData(), plan->bindingPoint());
        plan->provideDefault();
    }
    bindBlock("DrawElementsIndirectCommands", UniformBlocks::drawElementsIndirectCommands);

    for (int slot = 0; slot < BindingRecord::numManagedUnits; ++slot) {
        setUniform(u"u_ManagedTexture%1"_s.arg(slot), BindingRecord::firstManagedUnit + slot);
    }
    if (!objectName().isEmpty()) {
        OpenGLDeviceContext::current()->label(GL_PROGRAM, m_linked.name, objectName());
    }
}

bool ShaderProgram::hasUniform(const QString& name) const
{
    return m_linked.uniforms.contains(name.toUtf8());
}

int ShaderProgram::getUniformLocation(const QString& name) const
{
    return m_linked.uniforms.value(name.toUtf8()).location;
}

int ShaderProgram::uniformBlockIndex(const char* name) const
{
    const unsigned int index =
        m_linked.name != 0 ? glGetUniformBlockIndex(m_linked.name, name) : GL_INVALID_INDEX;
    return index != GL_INVALID_INDEX ? static_cast<int>(index) : -1;
}

quint64 ShaderProgram::numFailedBuilds()
{
    return failedBuilds;
}

QString ShaderProgram::log() const
{
    return m_linked.log;
}

const ActiveUniform& ShaderProgram::resolve(Uniform& uniform) const
{
    if (uniform.m_buildSerial != m_buildSerial) {
        const auto length = static_cast<qsizetype>(qstrlen(uniform.m_name));
        uniform.m_active = m_linked.uniforms.value(QByteArray::fromRawData(uniform.m_name, length));
        uniform.m_buildSerial = m_buildSerial;
    }
    return uniform.m_active;
}

template<class Value>
void ShaderProgram::setUniformByName(const QString& name, const Value& value)
{
    build();
    const QByteArray utf8 = name.toUtf8();
    if (!m_linked.uniforms.contains(utf8)) {
        return;
    }
    Uniform uniform(utf8.constData());
    const bool isCurrent = OpenGLDeviceContext::current()->bindings().currentProgram() == this;
    if (!isCurrent) {
        bind();
    }
    setUniform(uniform, value);
    if (!isCurrent) {
        release();
    }
}

void ShaderProgram::setUniform(const QString& name, const QVariant& value)
{
    setUniformByName(name, value);
}

void ShaderProgram::setUniform(const QString& name, const QVector<float>& values)
{
    setUniformByName(name, values);
}

void ShaderProgram::setUniform(Uniform& uniform, bool value)
{
    setVector(resolve(uniform), value);
}

void ShaderProgram::setUniform(Uniform& uniform, int value)
{
    setVector(resolve(uniform), value);
}

void ShaderProgram::setUniform(Uniform& uniform, float value)
{
    setVector(resolve(uniform), value);
}

void ShaderProgram::setUniform(Uniform& uniform, const QVector2D& value)
{
    setVector(resolve(uniform), value.x(), value.y());
}

void ShaderProgram::setUniform(Uniform& uniform, const QVector3D& value)
{
    setVector(resolve(uniform), value.x(), value.y(), value.z());
}

void ShaderProgram::setUniform(Uniform& uniform, const QVector4D& value)
{
    setVector(resolve(uniform), value.x(), value.y(), value.z(), value.w());
}

void ShaderProgram::setUniform(Uniform& uniform, const QColor& value)
{
    setColour(resolve(uniform), value);
}

void ShaderProgram::setUniform(Uniform& uniform, const QMatrix4x4& value)
{
    setMatrix(resolve(uniform), value.constData(), 4);
}

void ShaderProgram::setUniform(Uniform& uniform, const QVector<float>& values)
{
    setArray(resolve(uniform), values);
}

void ShaderProgram::setUniform(Uniform& uniform, const QVariant& value)
{
    setValue(resolve(uniform), value);
}

} // namespace Morvane::Qel
