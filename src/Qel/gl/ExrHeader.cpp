#include <Qel/gl/ExrHeader.h>

#include <QFile>
#include <QFileInfo>

#include <OpenEXR/openexr.h>

#include <Qel/gl/ImageSize.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

/// Keeps the first message about a file in the text that is its context's user data.
void keepMessage(exr_const_context_t context, exr_result_t /*code*/, const char* message)
{
    void* text = nullptr;
    if (exr_get_user_data(context, &text) == EXR_ERR_SUCCESS && text &&
        static_cast<QString*>(text)->isEmpty()) {
        *static_cast<QString*>(text) = QString::fromUtf8(message);
    }
}

QString partProblem(exr_const_context_t context, int part, qint64 fileSize, int maxSide)
{
    exr_attr_box2i_t window{};
    exr_get_data_window(context, part, &window);
    QString cause = sizeProblem(qint64{window.max.x} - window.min.x + 1,
                                qint64{window.max.y} - window.min.y + 1, 1, maxSide);
    if (!cause.isEmpty()) {
        return cause;
    }
    exr_storage_t storage{};
    exr_get_storage(context, part, &storage);
    uint32_t tileWidth = 0;
    uint32_t tileHeight = 0;
    exr_tile_level_mode_t levels{};
    exr_tile_round_mode_t rounding{};
    if (storage == EXR_STORAGE_TILED && exr_get_tile_descriptor(context, part, &tileWidth, &tileHeight,
                                                                &levels, &rounding) == EXR_ERR_SUCCESS) {
        if (const QString tileCause = sizeProblem(tileWidth, tileHeight, 4, maxSide); !tileCause.isEmpty()) {
            return u"of its tiles, "_s + tileCause;
        }
    }
    // The file has a table with the position of every chunk.
    int32_t numChunks = 0;
    exr_get_chunk_count(context, part, &numChunks);
    return qint64{numChunks} * qint64{sizeof(uint64_t)} > fileSize ? u"it is incomplete"_s : QString();
}

} // namespace

QString exrHeaderProblem(const QString& path, int maxSide)
{
    QString message;
    exr_context_initializer_t options = EXR_DEFAULT_CONTEXT_INITIALIZER;
    options.user_data = &message;
    options.error_handler_fn = keepMessage;
    options.flags = EXR_CONTEXT_FLAG_STRICT_HEADER;
    exr_context_t context = nullptr;
    const exr_result_t result = exr_start_read(&context, QFile::encodeName(path).constData(), &options);
    if (result != EXR_ERR_SUCCESS) {
        return message.isEmpty() ? QString::fromUtf8(exr_get_default_error_message(result)) : message;
    }
    int numParts = 0;
    exr_get_count(context, &numParts);
    QString cause;
    for (int part = 0; part < numParts && cause.isEmpty(); ++part) {
        cause = partProblem(context, part, QFileInfo(path).size(), maxSide);
    }
    exr_finish(&context);
    return cause;
}

} // namespace Morvane::Qel
