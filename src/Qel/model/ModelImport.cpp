#include <Qel/model/ModelImport.h>

#include <Qel/model/ImportedScene.h>
#include <Qel/model/ModelFiles.h>

#include <QBuffer>
#include <QFileInfo>
#include <QHash>
#include <QImageReader>

#include <utility>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

/// Decodes the images of a model's materials, each file once.
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

        QString reason;
        QImage image;
        if (reference.embedded >= 0) {
            image = decode(m_embedded[static_cast<size_t>(reference.embedded)], &reason);
        } else if (!file.isEmpty()) {
            image = decode(file, &reason);
        } else {
            reason = u"not found"_s;
        }
        if (image.isNull()) {
            m_model.warnings << u"%1: texture %2 of material \"%3\" %4; white is used"_s.arg(
                m_path, reference.text, material, reason);
            image = QImage(1, 1, QImage::Format_RGBA8888);
            image.fill(Qt::white);
        }
        if (isOpaque) {
            image.convertTo(QImage::Format_RGBX8888);
        }
        m_model.images.push_back(image.convertToFormat(QImage::Format_RGBA8888).mirrored(false, true));
        m_model.imageSources.push_back({reference.text, file, reference.embedded >= 0, reason});
        const int index = static_cast<int>(m_model.images.size()) - 1;
        m_indices.insert(key, index);
        return index;
    }

private:
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
    return model;
}

} // namespace Morvane::Qel
