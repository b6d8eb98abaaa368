#include <Qel/gl/ShaderProgram.h>

#include <atomic>
#include <vector>

#include <epoxy/gl.h>

#include <Qel/core/Diagnostics.h>
#include <Qel/gl/BindingRecord.h>
#include <Qel/gl/GLSLMacroProcessor.h>
#include <Qel/gl/Guards.h>
#include <Qel/gl/InstanceData.h>
#include <Qel/gl/LinkedProgram.h>
#include <Qel/gl/OpenGLDeviceContext.h>
#include <Qel/gl/ProgramBuilder.h>
#include <Qel/gl/ProgramCache.h>
#include <Qel/gl/ResourceScope.h>
#include <Qel/gl/UniformBlocks.h>
#include <Qel/gl/UniformUpload.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

std::atomic<quint64> failedBuilds = 0;

} // namespace

struct ShaderProgram::Private
{
    explicit Private(QObject* program)
        : membership(program)
    {
    }

    ResourceScope::Membership membership;
    std::vector<ProgramSource> sources;
    QStringList fragDataLocations;
    GLSLMacroProcessor* macroProcessor = nullptr;
    bool built = false;
    /// Differs for every build in this process; 0 before the build.
    quint64 buildSerial = 0;
    LinkedProgram linked;
    /// The context of the build, and the key in its cache.
    OpenGLDeviceContext* context = nullptr;
    QByteArray cacheKey;
};

ShaderProgram::ShaderProgram(QObject* parent)
    : QObject(parent)
    , d(std::make_unique<Private>(this))
{
}

ShaderProgram::~ShaderProgram()
{
    OpenGLDeviceContext* context = OpenGLDeviceContext::current();
    if (context) {
        context->bindings().forget(this);
    }
    // Unless its context is current, the GL object cannot be reached; GL deletes it along with the context.
    if (d->linked.name != 0 && context && context == d->context) {
        context->data<ProgramCache>().give(d->cacheKey, std::move(d->linked));
    }
}

void ShaderProgram::bind()
{
    build();
    OpenGLDeviceContext::current()->bindings().bindProgram(this, programID());
}

void ShaderProgram::release()
{
    OpenGLDeviceContext::current()->bindings().releaseProgram(this);
}

void ShaderProgram::addShader(unsigned int stage, const QString& source, const QString& name)
{
    if (QEL_CHECK(__FILE__, !d->built, u"a program that is built takes no more sources"_s)) {
        d->sources.push_back({stage, source, name, false});
    }
}

void ShaderProgram::addShaderFromFile(unsigned int stage, const QString& path)
{
    if (QEL_CHECK(__FILE__, !d->built, u"a program that is built takes no more sources"_s)) {
        d->sources.push_back({stage, path, path, true});
    }
}

void ShaderProgram::setMacroProcessor(GLSLMacroProcessor* processor)
{
    d->macroProcessor = processor;
}

void ShaderProgram::setFragDataLocations(const QStringList& names)
{
    d->fragDataLocations = names;
}

bool ShaderProgram::isValid()
{
    build();
    return programID() != 0;
}

void ShaderProgram::build()
{
    if (d->built) {
        return;
    }
    d->built = true;
    const GLSLMacroProcessor defaultProcessor;
    ProgramBuilder builder(d->macroProcessor ? *d->macroProcessor : defaultProcessor);
    for (const ProgramSource& source : d->sources) {
        builder.preprocess(source);
    }
    d->context = OpenGLDeviceContext::current();
    d->cacheKey = builder.hash() + (d->fragDataLocations + QStringList(objectName())).join(u'\n').toUtf8();
    if (!builder.hasFailed()) {
        d->linked = d->context->data<ProgramCache>().take(d->cacheKey);
    }
    const bool isNew = d->linked.name == 0;
    if (isNew) {
        const unsigned int program = builder.link(d->fragDataLocations);
        d->linked.log = builder.log();
        if (builder.hasFailed()) {
            glDeleteProgram(program);
            ++failedBuilds;
            logCritical(__FILE__, __LINE__,
                        u"%1 cannot be built:\n%2"_s.arg(description(), builder.report()));
            return;
        }
        d->linked.name = program;
    }
    static std::atomic<quint64> lastSerial = 0;
    d->buildSerial = ++lastSerial;
    if (isNew) {
        d->linked.readInterface();
    } else {
        const AutoBinder binder(this);
        d->linked.restoreInitialValues();
    }
    connectInterface();
}

/// What messages call the program: its name, or a list of its sources.
QString ShaderProgram::description() const
{
    if (!objectName().isEmpty()) {
        return u"program \"%1\""_s.arg(objectName());
    }
    QStringList names;
    for (const ProgramSource& source : d->sources) {
        names.append(source.name.isEmpty() ? stageName(source.stage) : source.name);
    }
    return u"program (%1)"_s.arg(names.join(u", "_s));
}

/// Connects uniform blocks and samplers to the binding points and units that are the same for every program.
void ShaderProgram::connectInterface()
{
    const auto bindBlock = [this](const char* name, unsigned int bindingPoint) {
        if (const int index = uniformBlockIndex(name); index >= 0) {
            glUniformBlockBinding(programID(), static_cast<unsigned int>(index), bindingPoint);
        }
    };
    for (const auto& plan : InstanceDataRegistry::Instance()->plans()) {
        bindBlock(plan->name().toUtf8().constData(), plan->bindingPoint());
        plan->provideDefault();
    }
    bindBlock("DrawElementsIndirectCommands", UniformBlocks::drawElementsIndirectCommands);
    bindBlock("ShadowedLights", UniformBlocks::shadowedLights);
    bindBlock("ShadowTransforms", UniformBlocks::shadowTransforms);

    for (int slot = 0; slot < BindingRecord::numManagedUnits; ++slot) {
        setUniform(u"u_ManagedTexture%1"_s.arg(slot), BindingRecord::firstManagedUnit + slot);
    }
    if (!objectName().isEmpty()) {
        d->context->label(GL_PROGRAM, programID(), objectName());
    }
}

bool ShaderProgram::hasUniform(const QString& name) const
{
    return d->linked.uniforms.contains(name.toUtf8());
}

int ShaderProgram::getUniformLocation(const QString& name) const
{
    return d->linked.uniforms.value(name.toUtf8()).location;
}

int ShaderProgram::uniformBlockIndex(const char* name) const
{
    const unsigned int index =
        programID() != 0 ? glGetUniformBlockIndex(programID(), name) : GL_INVALID_INDEX;
    return index != GL_INVALID_INDEX ? static_cast<int>(index) : -1;
}

quint64 ShaderProgram::numFailedBuilds()
{
    return failedBuilds;
}

QString ShaderProgram::log() const
{
    return d->linked.log;
}

unsigned int ShaderProgram::programID() const
{
    return d->linked.name;
}

unsigned int ShaderProgram::attributeMask() const
{
    return d->linked.attributeMask;
}

const ActiveUniform& ShaderProgram::resolve(Uniform& uniform) const
{
    if (uniform.m_buildSerial != d->buildSerial) {
        const auto length = static_cast<qsizetype>(qstrlen(uniform.m_name));
        uniform.m_active = d->linked.uniforms.value(QByteArray::fromRawData(uniform.m_name, length));
        uniform.m_buildSerial = d->buildSerial;
    }
    return uniform.m_active;
}

template<class Value>
void ShaderProgram::setUniformByName(const QString& name, const Value& value)
{
    build();
    const QByteArray utf8 = name.toUtf8();
    if (!d->linked.uniforms.contains(utf8)) {
        return;
    }
    Uniform uniform(utf8.constData());
    const bool isCurrent = OpenGLDeviceContext::current()->bindings().currentProgram() == this;
    const AutoBinder binder(isCurrent ? nullptr : this);
    setUniform(uniform, value);
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
    uploadVector(resolve(uniform), {value ? 1.0 : 0.0});
}

void ShaderProgram::setUniform(Uniform& uniform, int value)
{
    uploadVector(resolve(uniform), {static_cast<double>(value)});
}

void ShaderProgram::setUniform(Uniform& uniform, float value)
{
    uploadVector(resolve(uniform), {value});
}

void ShaderProgram::setUniform(Uniform& uniform, const QVector2D& value)
{
    uploadVector(resolve(uniform), {value.x(), value.y()});
}

void ShaderProgram::setUniform(Uniform& uniform, const QVector3D& value)
{
    uploadVector(resolve(uniform), {value.x(), value.y(), value.z()});
}

void ShaderProgram::setUniform(Uniform& uniform, const QVector4D& value)
{
    uploadVector(resolve(uniform), {value.x(), value.y(), value.z(), value.w()});
}

void ShaderProgram::setUniform(Uniform& uniform, const QColor& value)
{
    uploadColour(resolve(uniform), value);
}

void ShaderProgram::setUniform(Uniform& uniform, const QMatrix4x4& value)
{
    uploadMatrix(resolve(uniform), value.constData(), 4);
}

void ShaderProgram::setUniform(Uniform& uniform, const QVector<float>& values)
{
    uploadArray(resolve(uniform), values);
}

void ShaderProgram::setUniform(Uniform& uniform, const QVariant& value)
{
    uploadVariant(resolve(uniform), value);
}

} // namespace Morvane::Qel
