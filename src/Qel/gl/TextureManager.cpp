#include <Qel/gl/TextureManager.h>

#include <QPointer>

#include <algorithm>
#include <array>
#include <bit>

#include <epoxy/gl.h>

#include <Qel/core/Diagnostics.h>
#include <Qel/gl/BindingRecord.h>
#include <Qel/gl/Formats.h>
#include <Qel/gl/OpenGLDeviceContext.h>
#include <Qel/gl/ResourceScope.h>
#include <Qel/gl/Texture.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

struct Entry
{
    std::unique_ptr<Texture> texture;
    OpenGLDeviceContext* context;
    TextureFormat format;
    int width;
    int height;
    int references;
    /// Frames of the context since the texture was last taken.
    quint64 age;
};

/// The stand-in for missing material maps on a context.
struct StandIn
{
    std::unique_ptr<Texture> white;
    OpenGLDeviceContext* context;
    QPointer<Texture> chosen;

    Texture* texture() const { return chosen ? chosen.data() : white.get(); }
};

/// Free textures older than this are deleted: old enough for passes that draw only every few frames, young
/// enough that an animated size does not exhaust memory.
constexpr quint64 framesToKeep = 8;

unsigned int internalFormatOf(TextureFormat format)
{
    switch (format) {
    case TextureFormat::RGBA32FMipmapped:
        return GL_RGBA32F;
    case TextureFormat::RGBA16F:
        return GL_RGBA16F;
    case TextureFormat::Depth24Stencil8:
        return GL_DEPTH24_STENCIL8;
    case TextureFormat::RGBA8:
        break;
    }
    return GL_RGBA8;
}

void allocate(Texture& texture, TextureFormat format, int width, int height)
{
    const unsigned int internalFormat = internalFormatOf(format);
    const int numLevels = format == TextureFormat::RGBA32FMipmapped
                              ? std::bit_width(static_cast<unsigned int>(std::max(width, height)))
                              : 1;
    for (int level = 0; level < numLevels; ++level) {
        texture.setImage2D(level, internalFormat, std::max(1, width >> level), std::max(1, height >> level),
                           formatFromInternalFormat(internalFormat), typeFromInternalFormat(internalFormat),
                           nullptr);
    }
}

} // namespace

struct TextureManager::Private
{
    std::vector<Entry> entries;
    std::vector<StandIn> standIns;

    Entry* find(const Texture* texture)
    {
        const auto found = std::find_if(entries.begin(), entries.end(),
                                        [&](const Entry& entry) { return entry.texture.get() == texture; });
        return found == entries.end() ? nullptr : &*found;
    }
    StandIn& standIn(OpenGLDeviceContext* context);
};

StandIn& TextureManager::Private::standIn(OpenGLDeviceContext* context)
{
    const auto found = std::find_if(standIns.begin(), standIns.end(),
                                    [&](const StandIn& standIn) { return standIn.context == context; });
    if (found != standIns.end()) {
        return *found;
    }
    const ResourceScope::Activation suspended(context, nullptr);
    constexpr std::array<unsigned char, 4> opaqueWhite{255, 255, 255, 255};
    auto texture = std::make_unique<Texture>();
    texture->setFilter(GL_NEAREST, GL_NEAREST);
    texture->setImage2D(0, GL_RGBA8, 1, 1, GL_RGBA, GL_UNSIGNED_BYTE, opaqueWhite.data());
    standIns.push_back({std::move(texture), context, {}});
    return standIns.back();
}

TextureManager::TextureManager()
    : d(std::make_unique<Private>())
{
}

TextureManager::~TextureManager() = default;

TextureManager* TextureManager::Instance()
{
    static TextureManager instance;
    return &instance;
}

Texture* TextureManager::tempTexture(TextureFormat format, int width, int height, int count)
{
    OpenGLDeviceContext* context = OpenGLDeviceContext::current();
    if (std::max(width, height) > context->maxTextureSize()) {
        logCritical(
            __FILE__, __LINE__,
            u"a texture of %1x%2 exceeds the driver's limit of %3; 1x1 is used"_s.arg(width).arg(height).arg(
                context->maxTextureSize()));
        width = height = 1;
    }
    width = std::max(width, 1);
    height = std::max(height, 1);

    auto entry = std::find_if(d->entries.begin(), d->entries.end(), [&](const Entry& candidate) {
        return candidate.references == 0 && candidate.format == format && candidate.width == width &&
               candidate.height == height && candidate.context == context;
    });
    if (entry == d->entries.end()) {
        const ResourceScope::Activation suspended(context, nullptr);
        auto texture = std::make_unique<Texture>();
        allocate(*texture, format, width, height);
        d->entries.push_back({std::move(texture), context, format, width, height, 0, 0});
        entry = std::prev(d->entries.end());
    } else if (entry->texture->internalFormat() != internalFormatOf(format) ||
               entry->texture->size() != QSize(width, height)) {
        // Its last user gave it an image of another size or format.
        allocate(*entry->texture, format, width, height);
    }
    entry->references = count < 0 ? 1 : count;
    entry->age = 0;
    entry->texture->setFilter(GL_LINEAR, GL_LINEAR);
    entry->texture->setWrap(GL_CLAMP_TO_EDGE);
    return entry->texture.get();
}

void TextureManager::addTempTextureRef(Texture* texture, int references)
{
    if (Entry* entry = d->find(texture)) {
        entry->references += references;
    }
}

void TextureManager::releaseTempTextureRef(Texture* texture, int references)
{
    Entry* entry = d->find(texture);
    if (!entry) {
        return;
    }
    if (references > entry->references) {
        logCritical(__FILE__, __LINE__,
                    u"%1 references to a pooled texture are released but only %2 are held"_s.arg(references)
                        .arg(entry->references));
        references = entry->references;
    }
    entry->references -= references;
}

void TextureManager::endFrame()
{
    for (Entry& entry : d->entries) {
        entry.age += entry.context == OpenGLDeviceContext::current() ? 1U : 0U;
    }
    std::erase_if(d->entries, [](const Entry& entry) {
        return entry.context == OpenGLDeviceContext::current() && entry.references == 0 &&
               entry.age > framesToKeep;
    });
}

void TextureManager::releaseFreeTextures()
{
    std::erase_if(d->entries, [&](const Entry& entry) {
        return entry.context == OpenGLDeviceContext::current() && entry.references == 0;
    });
}

void TextureManager::releaseContext(OpenGLDeviceContext* context)
{
    std::erase_if(d->entries, [&](const Entry& entry) { return entry.context == context; });
    std::erase_if(d->standIns, [&](const StandIn& standIn) { return standIn.context == context; });
}

std::vector<TextureManager::Loan> TextureManager::loans() const
{
    std::vector<Loan> loans;
    for (const Entry& entry : d->entries) {
        if (entry.references > 0 && entry.context == OpenGLDeviceContext::current()) {
            loans.push_back({entry.texture.get(), entry.format, entry.references});
        }
    }
    return loans;
}

int TextureManager::numReferences() const
{
    int references = 0;
    for (const Entry& entry : d->entries) {
        references += entry.context == OpenGLDeviceContext::current() ? entry.references : 0;
    }
    return references;
}

int TextureManager::numTextures() const
{
    return static_cast<int>(std::count_if(d->entries.begin(), d->entries.end(), [](const Entry& entry) {
        return entry.context == OpenGLDeviceContext::current();
    }));
}

void TextureManager::bindManagedTexture(int slot, Texture* texture)
{
    OpenGLDeviceContext* context = OpenGLDeviceContext::current();
    context->bindings().bindManagedTexture(slot, texture ? texture : d->standIn(context).texture());
}

Texture* TextureManager::setManagedTextureStandIn(Texture* texture)
{
    OpenGLDeviceContext* context = OpenGLDeviceContext::current();
    StandIn& standIn = d->standIn(context);
    const quint64 formerSerial = standIn.texture()->serial();
    Texture* formerChoice = standIn.chosen;
    standIn.chosen = texture;
    for (int slot = 0; slot < BindingRecord::numManagedUnits; ++slot) {
        if (context->bindings().managedSerial(slot) == formerSerial) {
            bindManagedTexture(slot, nullptr);
        }
    }
    return formerChoice;
}

} // namespace Morvane::Qel
