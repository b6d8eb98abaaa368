#include <Qel/model/ModelImport.h>

#include <Qel/model/ImportedScene.h>
#include <Qel/model/ModelFiles.h>

#include <QBuffer>
#include <QFileInfo>
#include <QHash>
#include <QImageReader>

#include <algorithm>
#include <atomic>
#include <thread>
#include <utility>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

/// Finds the images of a model's materials and decodes each file once.
class Images
{
public:
    Images(const QString& path, const std::vector<EmbeddedImage>& embedded, ModelData& model)
        : m_path(path)
        , m_folder(QFileInfo(path).absolutePath())
        , m_embedded(embedded)
        , m_model(model)
    {
    }

    /// Returns the index of a material's image in the model, -1 for none.
    int index(const ImageReference& reference, bool isOpaque, const QString& material)
    {
        if (reference.text.isEmpty()) {
            return -1;
        }
        const QString file =
            reference.embedded < 0 ? findReferencedImage(m_folder, reference.text) : QString();
        const QString source = reference.embedded >= 0 ? u"*%1"_s.arg(reference.embedded)
                               : file.isEmpty()        ? reference.text
                                                       : QFileInfo(file).canonicalFilePath();
        const auto key = std::make_pair(source, isOpaque);
        const auto known = m_indices.constFind(key);
        if (known != m_indices.constEnd()) {
            return *known;
        }

        const auto index = static_cast<int>(m_images.size());
        m_images.push_back({reference, file, isOpaque, material});
        m_indices.insert(key, index);
        return index;
    }

    /// Adds the images to the model, decoded on all cores.
    void decode()
    {
        std::atomic<size_t> next = 0;
        const auto work = [&] {
            for (size_t i = next++; i < m_images.size(); i = next++) {
                decode(m_images[i]);
            }
        };
        std::vector<std::thread> threads;
        for (size_t i = 1; i < std::min<size_t>(std::thread::hardware_concurrency(), m_images.size()); ++i) {
            threads.emplace_back(work);
        }
        work();
        for (std::thread& thread : threads) {
            thread.join();
        }
        for (Image& image : m_images) {
            const ImageReference& reference = image.reference;
            if (!image.problem.isEmpty()) {
                m_model.warnings << u"%1: texture %2 of material \"%3\" %4; white is used"_s.arg(
                    m_path, reference.text, image.material, image.problem);
            }
            m_model.images.push_back(std::move(image.pixels));
            m_model.imageSources.push_back(
                {reference.text, image.file, reference.embedded >= 0, image.problem});
        }
    }

private:
    struct Image
    {
        ImageReference reference;
        /// Empty if there is none.
        QString file;
        bool isOpaque;
        /// The first material that uses it.
        QString material;
        /// As in ModelData::images.
        QImage pixels = {};
        /// Why white replaces it; empty if it was read.
        QString problem = {};
    };

    /// Called on several threads at once, for different images.
    void decode(Image& image) const
    {
        QImage pixels;
        image.problem = u"cannot be read"_s;
        if (image.reference.embedded >= 0) {
            pixels = decode(m_embedded[static_cast<size_t>(image.reference.embedded)], &image.problem);
        } else if (!image.file.isEmpty()) {
            pixels = decode(image.file, &image.problem);
        } else {
            image.problem = u"not found"_s;
        }
        if (pixels.isNull()) {
            pixels = QImage(1, 1, QImage::Format_RGBA8888);
            pixels.fill(Qt::white);
        } else {
            image.problem.clear();
        }
        if (image.isOpaque) {
            pixels.convertTo(QImage::Format_RGBX8888);
        }
        image.pixels = pixels.convertToFormat(QImage::Format_RGBA8888).mirrored(false, true);
    }

    static QImage read(QImageReader& reader, QString* reason)
    {
        QImage image = reader.read();
        if (image.isNull()) {
            *reason = u"cannot be read (%1)"_s.arg(reader.errorString());
        }
        return image;
    }

    static QImage decode(const QString& file, QString* reason)
    {
        QImageReader byName(file);
        QImage image = read(byName, reason);
        if (image.isNull()) {
            // The file name extension may be wrong.
            QImageReader byContent(file);
            byContent.setDecideFormatFromContent(true);
            image = read(byContent, reason);
        }
        return image;
    }

    static QImage decode(const EmbeddedImage& embedded, QString* reason)
    {
        if (!embedded.size.isEmpty()) {
            return QImage(reinterpret_cast<const uchar*>(embedded.bytes.constData()), embedded.size.width(),
                          embedded.size.height(), QImage::Format_ARGB32)
                .copy();
        }
        QBuffer buffer;
        buffer.setData(embedded.bytes);
        QImageReader reader(&buffer);
        return read(reader, reason);
    }

    const QString& m_path;
    QString m_folder;
    const std::vector<EmbeddedImage>& m_embedded;
    ModelData& m_model;
    std::vector<Image> m_images;
    QHash<std::pair<QString, bool>, int> m_indices;
};

/// Returns why a path cannot be read as a file; empty if it can.
QString obstacle(const QString& path)
{
    const QFileInfo file(path);
    if (!file.exists()) {
        return u"no such file"_s;
    }
    if (!file.isFile()) {
        return u"not a file"_s;
    }
    if (!file.isReadable()) {
        return u"permission denied"_s;
    }
    if (file.size() == 0) {
        return u"the file is empty"_s;
    }
    return {};
}

} // namespace

std::optional<ModelData> importModel(const QString& path, QString* error, const ImportOptions& options)
{
    ImportedScene scene;
    scene.error = obstacle(path);
    if (scene.error.isEmpty()) {
        scene = options.isolated ? readSceneIsolated(path, options.deadline) : readScene(path);
    }
    if (!scene.error.isEmpty()) {
        if (error != nullptr) {
            *error = u"%1: cannot read model: %2"_s.arg(path, scene.error);
        }
        return std::nullopt;
    }

    ModelData model;
    model.meshes = std::move(scene.meshes);
    model.instances = std::move(scene.instances);
    model.warnings = std::move(scene.warnings);
    model.source = scene.source;
    Images images(path, scene.embeddedImages, model);
    for (const ImportedMaterial& material : scene.materials) {
        MaterialData data = material.data;
        data.mapKd = images.index(material.mapKd, material.isOpaque, data.name);
        data.mapKs = images.index(material.mapKs, false, data.name);
        model.materials.push_back(std::move(data));
    }
    images.decode();
    return model;
}

} // namespace Morvane::Qel
