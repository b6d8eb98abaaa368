#include <Qel/gl/ShaderProgram.h>

#include <QDir>
#include <QFile>

#include <atomic>
#include <utility>
#include <vector>

#include <epoxy/gl.h>

#include <Qel/core/Diagnostics.h>
#include <Qel/gl/BindingRecord.h>
#include <Qel/gl/ContextReference.h>
#include <Qel/gl/GLSLMacroProcessor.h>
#include <Qel/gl/Guards.h>
#include <Qel/gl/InstanceData.h>
#include <Qel/gl/LinkedProgram.h>
#include <Qel/gl/OpenGLDeviceContext.h>
#include <Qel/gl/ProgramBuilder.h>
#include <Qel/gl/ProgramCache.h>
#include <Qel/gl/UniformBlocks.h>
#include <Qel/gl/UniformUpload.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

/// Counts the failed builds of a context.
struct FailedBuilds : ContextData
{
    quint64 count = 0;
};

/// Where a context writes the composed sources of its programs.
struct SourceFolder : ContextData
{
    QString path;
    int numPrograms = 0;
    bool hasFailed = false;
};

void writeSources(SourceFolder& folder, const QString& owner,
                  const std::vector<ShaderProgram::Source>& sources)
{
    const QString name = u"%1.%2"_s.arg(owner.isEmpty() ? u"program"_s : owner).arg(++folder.numPrograms);
    const QDir directory(QDir(folder.path).filePath(name));
    directory.mkpath(u"."_s);
    int number = 0;
    for (const ShaderProgram::Source& source : sources) {
        QFile file(directory.filePath(u"%1.%2"_s.arg(number++).arg(stageName(source.stage).fileEnding)));
        if (!file.open(QIODevice::WriteOnly) || file.write(source.text.toUtf8()) < 0 || !file.flush()) {
            logCritical(__FILE__, __LINE__,
                        u"%1: cannot be written: %2"_s.arg(file.fileName(), file.errorString()));
            folder.hasFailed = true;
        }
    }
}

} // namespace

struct ShaderProgram::Private
{
    std::vector<ProgramSource> sources;
    QStringList fragDataLocations;
    GLSLMacroProcessor* macroProcessor = nullptr;
    std::vector<Source> composedSources;
    bool hasTessellation = false;
    bool built = false;
    /// Differs for every build in this process; 0 before the build.
    quint64 buildSerial = 0;
    LinkedProgram linked;
    /// The context of the build, and the key in its cache.
    ContextReference context;
    bool isMisuseReported = false;
    QByteArray cacheKey;
};

ShaderProgram::ShaderProgram(QObject* parent)
    : QObject(parent)
    , d(std::make_unique<Private>())
{
}

ShaderProgram::~ShaderProgram()
{
    if (d->context.isCurrent()) {
        OpenGLDeviceContext::current()->bindings().forget(this);
    }
    if (d->linked.name != 0) {
        d->context.whenCurrent([key = d->cacheKey, program = std::move(d->linked)]() mutable {
            OpenGLDeviceContext::current()->data<ProgramCache>().give(key, std::move(program));
        });
    }
}

void ShaderProgram::bind()
{
    build();
    const bool isUsable = d->context.isCurrent();
    if (!isUsable && !std::exchange(d->isMisuseReported, true)) {
        logCritical(__FILE__, __LINE__,
                    description() + u" was built on another OpenGL context and is not bound"_s);
    }
    OpenGLDeviceContext::current()->bindings().bindProgram(this, isUsable ? programID() : 0);
}

void ShaderProgram::release()
{
    OpenGLDeviceContext::current()->bindings().releaseProgram(this);
}

void ShaderProgram::addShader(unsigned int stage, const QString& source, const QString& name)
{
    if (QEL_CHECK(__FILE__, !d->built, u"a program that is built takes no more sources"_s)) {
        d->sources.push_back({stage, source, name, false});
        d->hasTessellation = d->hasTessellation || isTessellation(stage);
    }
}

void ShaderProgram::addShaderFromFile(unsigned int stage, const QString& path)
{
    if (QEL_CHECK(__FILE__, !d->built, u"a program that is built takes no more sources"_s)) {
        d->sources.push_back({stage, path, path, true});
        d->hasTessellation = d->hasTessellation || isTessellation(stage);
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
    d->context = ContextReference::toCurrent();
    OpenGLDeviceContext* context = OpenGLDeviceContext::current();
    d->composedSources = builder.composedSources();
    if (auto& folder = context->data<SourceFolder>(); !folder.path.isEmpty()) {
        writeSources(folder, context->labelPrefix(), d->composedSources);
    }
    d->cacheKey = builder.hash() + (d->fragDataLocations + QStringList(objectName())).join(u'\n').toUtf8();
    if (!builder.hasFailed()) {
        d->linked = context->data<ProgramCache>().take(d->cacheKey);
    }
    const bool isNew = d->linked.name == 0;
    if (isNew) {
        const unsigned int program = builder.link(d->fragDataLocations);
        d->linked.log = builder.log();
        if (builder.hasFailed()) {
            glDeleteProgram(program);
            ++context->data<FailedBuilds>().count;
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
        names.append(source.name.isEmpty() ? stageName(source.stage).name + " shader"_L1 : source.name);
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
        OpenGLDeviceContext::current()->label(GL_PROGRAM, programID(), objectName());
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

ActiveUniform ShaderProgram::activeUniform(const QString& name) const
{
    return d->linked.uniforms.value(name.toUtf8());
}

QStringList ShaderProgram::activeUniforms() const
{
    QStringList names;
    for (const QByteArray& name : d->linked.uniforms.keys()) {
        names.append(QString::fromUtf8(name));
    }
    names.sort();
    return names;
}

const std::vector<ShaderProgram::Source>& ShaderProgram::composedSources() const
{
    return d->composedSources;
}

void ShaderProgram::writeSourcesTo(const QString& folder)
{
    OpenGLDeviceContext::current()->data<SourceFolder>().path = folder;
}

bool ShaderProgram::hasUnwrittenSources()
{
    return OpenGLDeviceContext::current()->data<SourceFolder>().hasFailed;
}

bool ShaderProgram::hasTessellation() const
{
    return d->hasTessellation;
}

quint64 ShaderProgram::numFailedBuilds()
{
    return OpenGLDeviceContext::current()->data<FailedBuilds>().count;
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

const std::shared_ptr<const AttributeLayout>& ShaderProgram::attributes() const
{
    return d->linked.attributes;
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
