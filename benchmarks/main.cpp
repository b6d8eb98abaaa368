// Compares the library to hand-written GL calls in one process. Run all benchmarks:
//   qel-benchmarks
// Measure submission with LP_NUM_THREADS=0, so that the figures exclude waking the threads of the software
// rasteriser:
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
    // The software rasteriser allocates and frees large blocks every frame. With glibc's heap trimming, the
    // cost of a pass varies by nearly a factor of two with the heap layout.
    mallopt(M_TRIM_THRESHOLD, -1);
    mallopt(M_MMAP_MAX, 0);

    // Some passes log in every frame.
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
