#include <Qel/gl/TextureManager.h>

#include <QPointer>

#include <algorithm>
#include <array>
#include <bit>

#include <epoxy/gl.h>

#include <Qel/core/Diagnostics.h>
#include <Qel/gl/BindingRecord.h>
#include <Qel/gl/Formats.h>
#include <Qel/gl/MemoryAccount.h>
#include <Qel/gl/OpenGLDeviceContext.h>
#include <Qel/gl/Texture.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

struct Entry
{
    std::unique_ptr<Texture> texture;
    TextureFormat format;
    int width;
    int height;
    int references;
    /// Frames since the texture was last taken.
    quint64 age;
};

/// Free textures older than this are deleted: old enough for passes that draw only every few frames, young
/// enough that an animated size does not exhaust memory.
constexpr quint64 framesToKeep = 8;

unsigned int internalFormatOf(TextureFormat format)
{
    switch (format) {
    case TextureFormat::RGBA32F:
    case TextureFormat::RGBA32FMipmapped:
        return GL_RGBA32F;
    case TextureFormat::RGBA16F:
        return GL_RGBA16F;
    case TextureFormat::Depth24Stencil8:
        return GL_DEPTH24_STENCIL8;
    case TextureFormat::R16F:
        return GL_R16F;
    case TextureFormat::RG16F:
        return GL_RG16F;
    case TextureFormat::R32F:
        return GL_R32F;
    case TextureFormat::RG32F:
        return GL_RG32F;
    case TextureFormat::R32UI:
        return GL_R32UI;
    case TextureFormat::RG32UI:
        return GL_RG32UI;
    case TextureFormat::RGBA32UI:
        return GL_RGBA32UI;
    case TextureFormat::R32I:
        return GL_R32I;
    case TextureFormat::RGBA32I:
        return GL_RGBA32I;
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

/// The pool's textures and stand-ins of one context.
struct Pool : ContextData
{
    std::vector<Entry> entries;
    MemoryAccount memory;
    /// The stand-in for missing maps is `chosen`, or `white` if that is null.
    std::unique_ptr<Texture> white;
    QPointer<Texture> chosen;

    Entry* find(const Texture* texture);
    Texture* standIn();
    void restoreBindings() override;
};

Entry* Pool::find(const Texture* texture)
{
    const auto found = std::find_if(entries.begin(), entries.end(),
                                    [&](const Entry& entry) { return entry.texture.get() == texture; });
    return found == entries.end() ? nullptr : &*found;
}

Texture* Pool::standIn()
{
    if (!white) {
        constexpr std::array<unsigned char, 4> opaqueWhite{255, 255, 255, 255};
        white = std::make_unique<Texture>();
        white->setFilter(GL_NEAREST, GL_NEAREST);
        white->setImage2D(0, GL_RGBA8, 1, 1, GL_RGBA, GL_UNSIGNED_BYTE, opaqueWhite.data());
    }
    return chosen ? chosen.data() : white.get();
}

void Pool::restoreBindings()
{
    // Without it, no slot has been used yet.
    for (int slot = 0; white && slot < BindingRecord::numManagedUnits; ++slot) {
        TextureManager::Instance()->bindManagedTexture(slot, nullptr);
    }
}

Pool& pool()
{
    return OpenGLDeviceContext::current()->data<Pool>();
}

Entry* findEntry(const Texture* texture)
{
    return OpenGLDeviceContext::current() ? pool().find(texture) : nullptr;
}

} // namespace

MemoryAccount MemoryAccount::ofPool()
{
    return pool().memory;
}

TextureManager* TextureManager::Instance()
{
    static TextureManager instance;
    return &instance;
}

Texture* TextureManager::tempTexture(TextureFormat format, int width, int height, int count)
{
    const OpenGLDeviceContext* context = OpenGLDeviceContext::current();
    if (std::max(width, height) > context->maxTextureSize()) {
        logCritical(
            __FILE__, __LINE__,
            u"a texture of %1x%2 exceeds the driver's limit of %3; 1x1 is used"_s.arg(width).arg(height).arg(
                context->maxTextureSize()));
        width = height = 1;
    }
    width = std::max(width, 1);
    height = std::max(height, 1);

    std::vector<Entry>& entries = pool().entries;
    auto entry = std::find_if(entries.begin(), entries.end(), [&](const Entry& candidate) {
        return candidate.references == 0 && candidate.format == format && candidate.width == width &&
               candidate.height == height;
    });
    if (entry == entries.end()) {
        const MemoryAccount::Activation accounting(&pool().memory);
        auto texture = std::make_unique<Texture>();
        allocate(*texture, format, width, height);
        entries.push_back({std::move(texture), format, width, height, 0, 0});
        entry = std::prev(entries.end());
    } else if (entry->texture->internalFormat() != internalFormatOf(format) ||
               entry->texture->size() != QSize(width, height)) {
        // Its last user gave it an image of another size or format.
        const MemoryAccount::Activation accounting(&pool().memory);
        allocate(*entry->texture, format, width, height);
    }
    entry->references = count < 0 ? 1 : count;
    entry->age = 0;
    MemoryAccount::lent(entry->texture.get());
    entry->texture->setFilter(GL_LINEAR, GL_LINEAR);
    entry->texture->setWrap(GL_CLAMP_TO_EDGE);
    return entry->texture.get();
}

void TextureManager::addTempTextureRef(Texture* texture, int references)
{
    if (Entry* entry = findEntry(texture)) {
        entry->references += references;
    }
}

void TextureManager::releaseTempTextureRef(Texture* texture, int references)
{
    Entry* entry = findEntry(texture);
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
    std::vector<Entry>& entries = pool().entries;
    for (Entry& entry : entries) {
        ++entry.age;
    }
    std::erase_if(entries,
                  [](const Entry& entry) { return entry.references == 0 && entry.age > framesToKeep; });
}

void TextureManager::releaseFreeTextures()
{
    std::erase_if(pool().entries, [](const Entry& entry) { return entry.references == 0; });
}

std::vector<TextureManager::Loan> TextureManager::loans() const
{
    std::vector<Loan> loans;
    for (const Entry& entry : pool().entries) {
        if (entry.references > 0) {
            loans.push_back({entry.texture.get(), entry.format, entry.references});
        }
    }
    return loans;
}

int TextureManager::numReferences() const
{
    int references = 0;
    for (const Entry& entry : pool().entries) {
        references += entry.references;
    }
    return references;
}

int TextureManager::numTextures() const
{
    return static_cast<int>(pool().entries.size());
}

void TextureManager::bindManagedTexture(int slot, Texture* texture)
{
    Texture* bound = texture ? texture : pool().standIn();
    BindingRecord& bindings = OpenGLDeviceContext::current()->bindings();
    // Since makeCurrent, which forgets the bindings, a texture that is bound already was synchronized.
    if (bindings.managedSerial(slot) != bound->serial()) {
        bindings.bindManagedTexture(slot, bound->serial(), bound->target(), bound->textureID());
        bound->synchronize();
    }
}

Texture* TextureManager::setManagedTextureStandIn(Texture* texture)
{
    const BindingRecord& bindings = OpenGLDeviceContext::current()->bindings();
    const quint64 formerSerial = pool().standIn()->serial();
    Texture* formerChoice = pool().chosen;
    pool().chosen = texture;
    for (int slot = 0; slot < BindingRecord::numManagedUnits; ++slot) {
        if (bindings.managedSerial(slot) == formerSerial) {
            bindManagedTexture(slot, nullptr);
        }
    }
    return formerChoice;
}

} // namespace Morvane::Qel
