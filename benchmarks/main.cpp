// Ratios of the library to the same GL calls written by hand, in one process. Run all:
//   qel-benchmarks
// Submission is measured with LP_NUM_THREADS=0, which takes the wake-ups of the software rasteriser's
// threads out of the figures:
//   LP_NUM_THREADS=0 qel-benchmarks --benchmark_filter=Submit

#include <QLoggingCategory>
#include <QString>

#include <cstdio>

#include <malloc.h>

#include <benchmark/benchmark.h>

#include <Qel/gl/HeadlessContext.h>

using namespace Qt::StringLiterals;

int main(int argc, char** argv)
{
    using Morvane::Qel::HeadlessContext;
    // The software rasteriser allocates and frees large blocks every frame: with glibc's heap trimming the
    // same pass costs nearly twice as much by the luck of the heap.
    mallopt(M_TRIM_THRESHOLD, -1);
    mallopt(M_MMAP_MAX, 0);

    // Some passes say in every frame how they run.
    QLoggingCategory::setFilterRules(u"default.debug=false"_s);

    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 2;
    }
    HeadlessContext::Options options;
    options.size = {1920, 1080};
    QString error;
    const auto context = HeadlessContext::create(options, &error);
    if (!context) {
        std::fprintf(stderr, "qel-benchmarks: %s\n", qPrintable(error));
        return 3;
    }
    std::printf("%s\n", qPrintable(context->renderer()));
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
