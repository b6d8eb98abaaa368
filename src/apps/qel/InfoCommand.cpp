#include "Commands.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <array>
#include <utility>
#include <vector>

#include <epoxy/gl.h>

#include <Qel/graph/PassRegistry.h>

#include "Arguments.h"
#include "Console.h"
#include "Setup.h"

using namespace Qt::StringLiterals;

namespace Morvane::Qel::App {

namespace {

struct Limit
{
    const char* meaning;
    GLenum name;
};

constexpr std::array limits = {
    Limit{"2D texture size", GL_MAX_TEXTURE_SIZE},
    Limit{"cube map size", GL_MAX_CUBE_MAP_TEXTURE_SIZE},
    Limit{"array texture layers", GL_MAX_ARRAY_TEXTURE_LAYERS},
    Limit{"texture units per stage", GL_MAX_TEXTURE_IMAGE_UNITS},
    Limit{"colour attachments", GL_MAX_COLOR_ATTACHMENTS},
    Limit{"draw buffers", GL_MAX_DRAW_BUFFERS},
    Limit{"uniform block bytes", GL_MAX_UNIFORM_BLOCK_SIZE},
    Limit{"texture buffer texels", GL_MAX_TEXTURE_BUFFER_SIZE},
};

/// Extensions that the libraries use if present, in addition to those of the passes.
const QStringList libraryExtensions = {u"GL_ARB_timer_query"_s, u"GL_KHR_debug"_s};

struct PassMode
{
    QString type;
    /// Empty in full mode.
    QStringList missingExtensions;
    QString reducedMode;
};

/// Everything that the command prints.
struct Info
{
    std::vector<std::pair<QString, QString>> driver;
    std::vector<std::pair<QString, int>> limits;
    std::vector<std::pair<QString, bool>> extensions;
    std::vector<PassMode> passes;
};

Info infoOf(const HeadlessContext& context)
{
    const auto has = [&](const QString& extension) {
        return context.hasExtension(extension.toUtf8().constData());
    };
    Info info;
    info.driver = {{u"device"_s, context.deviceName()},
                   {u"renderer"_s, context.renderer()},
                   {u"vendor"_s, context.vendor()},
                   {u"version"_s, context.versionString()},
                   {u"shading language"_s, context.shadingLanguageVersion()}};
    for (const Limit& limit : limits) {
        int value = 0;
        glGetIntegerv(limit.name, &value);
        info.limits.emplace_back(QLatin1StringView(limit.meaning), value);
    }
    const PassRegistry& registry = PassRegistry::builtin();
    QStringList extensions = libraryExtensions;
    for (const QString& type : registry.types()) {
        const PassDescription& description = *registry.description(type);
        extensions += description.fullModeExtensions;
        QStringList missing = description.fullModeExtensions;
        missing.removeIf(has);
        info.passes.push_back({type, missing, description.reducedMode});
    }
    extensions.sort();
    extensions.removeDuplicates();
    for (const QString& extension : extensions) {
        info.extensions.emplace_back(extension, has(extension));
    }
    return info;
}

void printEntry(const QString& name, const QString& value)
{
    print(u"%1  %2\n"_s.arg(name, -40).arg(value));
}

void printText(const Info& info)
{
    for (const auto& [name, value] : info.driver) {
        printEntry(name, value);
    }
    print(u"\nlimits\n"_s);
    for (const auto& [name, value] : info.limits) {
        printEntry(u"  "_s + name, QString::number(value));
    }
    print(u"\nextensions\n"_s);
    for (const auto& [name, isPresent] : info.extensions) {
        printEntry(u"  "_s + name, isPresent ? u"yes"_s : u"no"_s);
    }
    print(u"\npasses\n"_s);
    for (const PassMode& pass : info.passes) {
        printEntry(u"  "_s + pass.type, pass.missingExtensions.isEmpty()
                                            ? u"full"_s
                                            : u"reduced, without %1: %2"_s.arg(
                                                  pass.missingExtensions.join(u", "_s), pass.reducedMode));
    }
}

void printJson(const Info& info)
{
    QJsonObject json;
    for (const auto& [name, value] : info.driver) {
        json[name] = value;
    }
    QJsonObject numbers;
    for (const auto& [name, value] : info.limits) {
        numbers[name] = value;
    }
    QJsonObject extensions;
    for (const auto& [name, isPresent] : info.extensions) {
        extensions[name] = isPresent;
    }
    QJsonObject passes;
    for (const PassMode& pass : info.passes) {
        passes[pass.type] =
            QJsonObject{{u"isFull"_s, pass.missingExtensions.isEmpty()},
                        {u"missingExtensions"_s, QJsonArray::fromStringList(pass.missingExtensions)}};
    }
    json[u"limits"_s] = numbers;
    json[u"extensions"_s] = extensions;
    json[u"passes"_s] = passes;
    print(QString::fromUtf8(QJsonDocument(json).toJson()));
}

} // namespace

void declareInfo(Arguments& options)
{
    options.describe(
        u"Prints the GL driver, its limits and extensions, and which passes run in full mode on it."_s);
    options.addOption(u"json"_s, {}, u"prints all of it as JSON"_s);
    addDeviceOption(options);
}

ExitCode info(const Arguments& options)
{
    const std::unique_ptr<HeadlessContext> context = makeContext(device(options));
    const Info info = infoOf(*context);
    if (options.isSet(u"json"_s)) {
        printJson(info);
    } else {
        printText(info);
    }
    return ExitCode::Done;
}

} // namespace Morvane::Qel::App
