#include "Commands.h"

#include <algorithm>
#include <array>

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

void printEntry(const QString& name, const QString& value)
{
    print(u"%1  %2\n"_s.arg(name, -40).arg(value));
}

} // namespace

void declareInfo(Arguments& options)
{
    options.describe(
        u"Prints the GL driver, its limits and extensions, and which passes run in full mode on it."_s);
    addDeviceOption(options);
}

ExitCode info(const Arguments& options)
{
    const std::unique_ptr<HeadlessContext> context = makeContext(device(options));
    printEntry(u"device"_s, context->deviceName());
    printEntry(u"renderer"_s, context->renderer());
    printEntry(u"vendor"_s, context->vendor());
    printEntry(u"version"_s, context->versionString());
    printEntry(u"shading language"_s, context->shadingLanguageVersion());

    print(u"\nlimits\n"_s);
    for (const Limit& limit : limits) {
        int value = 0;
        glGetIntegerv(limit.name, &value);
        printEntry(u"  "_s + QLatin1StringView(limit.meaning), QString::number(value));
    }

    const PassRegistry& registry = PassRegistry::builtin();
    QStringList extensions = libraryExtensions;
    for (const QString& type : registry.types()) {
        extensions += registry.description(type)->fullModeExtensions;
    }
    extensions.sort();
    extensions.removeDuplicates();
    print(u"\nextensions\n"_s);
    for (const QString& extension : extensions) {
        const bool present = context->hasExtension(extension.toUtf8().constData());
        printEntry(u"  "_s + extension, present ? u"yes"_s : u"no"_s);
    }

    print(u"\npasses\n"_s);
    for (const QString& type : registry.types()) {
        const PassDescription& description = *registry.description(type);
        QStringList missing = description.fullModeExtensions;
        missing.removeIf(
            [&](const QString& name) { return context->hasExtension(name.toUtf8().constData()); });
        printEntry(u"  "_s + type, missing.isEmpty() ? u"full"_s
                                                     : u"reduced, without %1: %2"_s.arg(
                                                           missing.join(u", "_s), description.reducedMode));
    }
    return ExitCode::Done;
}

} // namespace Morvane::Qel::App
