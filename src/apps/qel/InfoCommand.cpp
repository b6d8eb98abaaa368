#include "Commands.h"

#include <algorithm>
#include <array>

#include <epoxy/gl.h>

#include <Qel/graph/PassRegistry.h>

#include "Arguments.h"
#include "Console.h"
#include "Setup.h"

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
    Limit{"texture units of a stage", GL_MAX_TEXTURE_IMAGE_UNITS},
    Limit{"colour attachments", GL_MAX_COLOR_ATTACHMENTS},
    Limit{"draw buffers", GL_MAX_DRAW_BUFFERS},
    Limit{"uniform block bytes", GL_MAX_UNIFORM_BLOCK_SIZE},
    Limit{"texture buffer texels", GL_MAX_TEXTURE_BUFFER_SIZE},
};

/// What the library uses when it is there, apart from what the passes ask for.
const QStringList servicesExtensions = {QStringLiteral("GL_ARB_timer_query"), QStringLiteral("GL_KHR_debug")};

void printEntry(const QString& name, const QString& value)
{
    print(QStringLiteral("%1  %2\n").arg(name, -40).arg(value));
}

} // namespace

ExitCode info(const QStringList& arguments)
{
    Arguments options(
        QStringLiteral("info"),
        QStringLiteral(
            "Tells which GL driver is used, what it offers, and which passes run in full with it."));
    addDeviceOption(options);
    if (!options.parse(arguments)) {
        return ExitCode::Done;
    }
    const std::unique_ptr<HeadlessContext> context = makeContext(device(options));
    printEntry(QStringLiteral("device"), context->deviceName());
    printEntry(QStringLiteral("renderer"), context->renderer());
    printEntry(QStringLiteral("vendor"), context->vendor());
    printEntry(QStringLiteral("version"), context->versionString());
    printEntry(QStringLiteral("shading language"), context->shadingLanguageVersion());

    print(QStringLiteral("\nlimits\n"));
    for (const Limit& limit : limits) {
        int value = 0;
        glGetIntegerv(limit.name, &value);
        printEntry(QStringLiteral("  ") + QLatin1StringView(limit.meaning), QString::number(value));
    }

    const PassRegistry& registry = PassRegistry::builtin();
    QStringList extensions = servicesExtensions;
    for (const QString& type : registry.types()) {
        extensions += registry.description(type)->fullModeExtensions;
    }
    extensions.sort();
    extensions.removeDuplicates();
    print(QStringLiteral("\nextensions\n"));
    for (const QString& extension : extensions) {
        const bool present = context->hasExtension(extension.toUtf8().constData());
        printEntry(QStringLiteral("  ") + extension, present ? QStringLiteral("yes") : QStringLiteral("no"));
    }

    print(QStringLiteral("\npasses\n"));
    for (const QString& type : registry.types()) {
        const PassDescription& description = *registry.description(type);
        QStringList missing = description.fullModeExtensions;
        missing.removeIf(
            [&](const QString& name) { return context->hasExtension(name.toUtf8().constData()); });
        printEntry(QStringLiteral("  ") + type,
                   missing.isEmpty() ? QStringLiteral("full")
                                     : QStringLiteral("reduced, without %1: %2")
                                           .arg(missing.join(QStringLiteral(", ")), description.reducedMode));
    }
    return ExitCode::Done;
}

} // namespace Morvane::Qel::App
