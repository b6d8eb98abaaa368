// Generates the example scenes: `qel-make-scene OUTDIR` writes arcade.obj (a hall), glassware.obj
// (translucent vessels), their materials and textures, and sky/. The output is deterministic; examples/scenes
// holds it.

#include "Furnishings.h"
#include "Glassware.h"
#include "Hall.h"
#include "Materials.h"
#include "MeshBuilder.h"
#include "Sky.h"
#include "Textures.h"

#include <QDir>
#include <QFile>

#include <cstdio>

using namespace Qt::StringLiterals;

using namespace Morvane::Qel;

namespace {

bool report(bool written, const QString& path)
{
    if (!written) {
        std::fprintf(stderr, "qel-make-scene: cannot write %s\n", qPrintable(path));
    }
    return written;
}

bool writeFile(const QString& path, const QByteArray& bytes)
{
    QFile file(path);
    return report(file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size() && file.flush(), path);
}

bool writeImages(const QDir& folder, const std::vector<NamedImage>& images)
{
    for (const NamedImage& named : images) {
        const QString path = folder.filePath(named.name);
        constexpr int SmallestFile = 0; // PNG is lossless; "quality" sets the compression
        if (!report(named.image.save(path, "PNG", SmallestFile), path)) {
            return false;
        }
    }
    return true;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::fputs("usage: qel-make-scene OUTDIR\n", stderr);
        return 2;
    }
    const QDir folder(QFile::decodeName(argv[1]));
    if (!report(folder.mkpath(u"sky"_s), folder.filePath(u"sky"_s))) {
        return 1;
    }

    MeshBuilder mesh("arcade.mtl");
    addHall(mesh);
    addFurnishings(mesh);
    MeshBuilder glassware("glassware.mtl");
    addGlassware(glassware);
    if (!writeFile(folder.filePath(u"arcade.obj"_s), mesh.obj()) ||
        !writeFile(folder.filePath(u"arcade.mtl"_s), arcadeMaterials()) ||
        !writeFile(folder.filePath(u"glassware.obj"_s), glassware.obj()) ||
        !writeFile(folder.filePath(u"glassware.mtl"_s), glasswareMaterials()) ||
        !writeImages(folder, sceneTextures()) || !writeImages(QDir(folder.filePath(u"sky"_s)), skyImages())) {
        return 1;
    }
    std::printf("%d objects, %d triangles\n", mesh.objectCount() + glassware.objectCount(),
                mesh.triangleCount() + glassware.triangleCount());
    return 0;
}
