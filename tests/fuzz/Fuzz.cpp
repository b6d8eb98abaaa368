// Fuzz targets: each feeds random bytes to one reader. A program is built for every function (see
// CMakeLists.txt).

#include <algorithm>
#include <cassert>

#include <sys/mman.h>
#include <unistd.h>

#include <OpenEXR/ImfHeader.h>

#include <Qel/gl/GLSLMacroProcessor.h>
#include <Qel/graph/GraphPlan.h>
#include <Qel/graph/support/ExrFile.h>
#include <Qel/graph/support/GraphReader.h>
#include <Qel/graph/support/GraphWriter.h>
#include <Qel/graph/support/Ports.h>

namespace Morvane::Qel {

/// A graph that can be planned is the same after writing and reading. Where it includes other files, that is
/// the graph of one file, with other paths.
void graphFile(const QByteArray& bytes)
{
    QStringList errors;
    const auto graph = readGraph(bytes, "examples/graphs/fuzz.json", &errors);
    if (graph && planGraph(*graph, PassRegistry::builtin(), &errors)) {
        const QString text = graphText(*graph, graph->file, PassRegistry::builtin());
        const auto written = readGraph(text.toUtf8(), graph->file, &errors);
        const bool isOneFile =
            std::all_of(graph->passes.begin(), graph->passes.end(),
                        [](const PassSetting& pass) { return pass.source.file.isEmpty(); });
        assert(written && (isOneFile ? written == graph
                                     : graphText(*written, graph->file, PassRegistry::builtin()) == text));
    }
}

/// Every line of preprocessed GLSL comes from a line of a file.
void macroProcessor(const QByteArray& bytes)
{
    const auto result = GLSLMacroProcessor().process(QString::fromUtf8(bytes), "fuzz", {{"Plan", "f();\n"}});
    for (int line = 1; line <= result.source.count(u'\n'); ++line) {
        const auto origin = result.origin(line);
        assert(origin.line >= 1 && origin.file >= 0 && origin.file < result.files.size());
    }
}

void exrFile(const QByteArray& bytes)
{
    // Larger images need more memory than the fuzzer has.
    Imf::Header::setMaxImageSize(256, 256);
    static const int file = memfd_create("fuzz.exr", 0);
    assert(ftruncate(file, 0) == 0 && pwrite(file, bytes.data(), size_t(bytes.size()), 0) == bytes.size());
    QString error;
    assert(readExr(QString("/proc/self/fd/%1").arg(file), &error).has_value() == error.isEmpty());
}

/// Ports, one a line, are found by their full name and by its last part.
void portNames(const QByteArray& bytes)
{
    const PortIndex index(QString::fromUtf8(bytes).split(u'\n'));
    for (const QString& name : index.ports()) {
        assert(index.find(name).size() == 1 && !index.find(PortName::parse(name).name).isEmpty());
    }
}

} // namespace Morvane::Qel

extern "C" int LLVMFuzzerTestOneInput(const char* data, size_t size)
{
    Morvane::Qel::QEL_FUZZ_TARGET(QByteArray(data, static_cast<qsizetype>(size)));
    return 0;
}
