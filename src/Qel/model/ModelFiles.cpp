#include <Qel/model/ModelFiles.h>

#include <QDir>
#include <QFileInfo>
#include <QStringList>
#include <QUrl>

#include <array>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

QString withForwardSlashes(const QString& reference)
{
    return reference.trimmed().replace(u'\\', u'/');
}

/// Returns the file at folder/part/part...; names that differ only in case match if no exact name exists.
QString descend(const QString& folder, const QStringList& parts)
{
    QString path = folder;
    for (const QString& part : parts) {
        const QString exact = path + u'/' + part;
        if (QFileInfo::exists(exact)) {
            path = exact;
            continue;
        }
        const QStringList entries = QDir(path).entryList(QDir::AllEntries | QDir::NoDotAndDotDot, QDir::Name);
        const auto entry = std::find_if(entries.begin(), entries.end(), [&part](const QString& name) {
            return name.compare(part, Qt::CaseInsensitive) == 0;
        });
        if (entry == entries.end()) {
            return {};
        }
        path += u'/' + *entry;
    }
    return QFileInfo(path).isFile() ? path : QString();
}

/// Looks for the longest tail of `reference` in the folder and in the texture folders below and beside it.
QString findTail(const QString& folder, const QString& reference)
{
    static constexpr std::array<const char*, 5> textureFolders = {"textures", "texture", "tex", "images",
                                                                  "maps"};
    QStringList parts = reference.split(u'/', Qt::SkipEmptyParts);
    for (; !parts.isEmpty(); parts.removeFirst()) {
        if (QString found = descend(folder, parts); !found.isEmpty()) {
            return found;
        }
        for (const QString& parent : {folder, folder + u"/.."_s}) {
            for (const char* textures : textureFolders) {
                QString found = descend(parent, QStringList(QString::fromLatin1(textures)) + parts);
                if (!found.isEmpty()) {
                    return found;
                }
            }
        }
    }
    return {};
}

} // namespace

QString findReferencedFile(const QString& folder, const QString& reference)
{
    const QString path = withForwardSlashes(reference);
    return descend(QDir::isAbsolutePath(path) ? QString() : folder, path.split(u'/', Qt::SkipEmptyParts));
}

QString findReferencedImage(const QString& folder, const QString& reference)
{
    QString path = withForwardSlashes(reference);
    if (path.startsWith(u"file://"_s)) {
        path.remove(0, 7);
    }
    const QString decoded = QUrl::fromPercentEncoding(path.toUtf8());
    for (const QString& spelling : {path, decoded}) {
        if (QString found = findReferencedFile(folder, spelling); !found.isEmpty()) {
            return found;
        }
        if (QString found = findTail(folder, spelling); !found.isEmpty()) {
            return found;
        }
    }
    return {};
}

} // namespace Morvane::Qel
