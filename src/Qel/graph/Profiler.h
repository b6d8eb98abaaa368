#pragma once

#include <QJsonObject>
#include <QString>

#include <array>
#include <chrono>
#include <limits>
#include <vector>

#include <Qel/gl/ObjectName.h>
#include <Qel/graph/Export.h>

namespace Morvane::Qel {

/// Measures GPU and CPU times of sections that repeat every frame. GPU times come from timer queries that are
/// read some frames later, so that measuring does not wait for the GPU; they need GL_ARB_timer_query (core in
/// 3.3). The context must be current for every operation except the destructor.
///
/// The first numWarmUpFrames frames are not measured: programs are built and textures created in them, and a
/// timer query that begins before the context's first draw returns nonsense on some drivers. Frames in which
/// not every section ran are not counted.
class QEL_GRAPH_EXPORT Profiler
{
public:
    static constexpr int numWarmUpFrames = 3;

    explicit Profiler(const std::vector<QString>& sections);
    ~Profiler();
    Profiler(const Profiler&) = delete;
    Profiler& operator=(const Profiler&) = delete;

    /// Begins a section, given by its index; sections do not nest.
    void begin(int section);
    void end(int section);
    void endFrame();

    /// Times in milliseconds; NaN if nothing was measured.
    struct Times
    {
        double minimum = std::numeric_limits<double>::quiet_NaN();
        double median = std::numeric_limits<double>::quiet_NaN();
        /// At least 95 % of the times are not longer.
        double percentile95 = std::numeric_limits<double>::quiet_NaN();
        /// The median divided by the sum of the medians of all sections.
        double share = std::numeric_limits<double>::quiet_NaN();
        /// Of the most recent frame; not in the table or the JSON.
        double latest = std::numeric_limits<double>::quiet_NaN();
    };
    /// What a section holds in textures and buffers, filled in by RenderGraph.
    struct Memory
    {
        /// Bytes that it keeps between frames.
        qint64 kept = 0;
        /// Bytes of the textures that it takes from the pool in a frame.
        qint64 pooled = 0;
        int numPooled = 0;
    };
    struct Row
    {
        QString section;
        /// NaN if the context has no timer queries.
        Times gpu;
        Times cpu;
        Memory memory = {};
    };
    struct Report
    {
        int numFrames = 0;
        std::vector<Row> sections;
        /// The sum of all sections, frame by frame.
        Row frame;
        /// The textures in the pool, of which several passes may take the same one after the other.
        int numPoolTextures = 0;
        qint64 poolBytes = 0;
        /// The buffers and textures of the models.
        qint64 modelBytes = 0;

        /// Formats the times as a table with a heading, and the memory as another.
        QString table() const;
        /// The keys are "frames", "warmUpFrames", "passes" with a "name" each, "frame", "pool" and
        /// "modelBytes". Times are in "gpu" and "cpu" as "minimum", "median", "percentile95" and "share";
        /// null stands for NaN. "memory" holds "keptBytes", "pooledBytes" and "pooledTextures", "pool" holds
        /// "bytes" and "textures".
        QJsonObject json() const;
    };
    /// Reports on the last 1000 frames. Waits for pending queries.
    Report report();

private:
    /// The most recent times in milliseconds; allocates only in its constructor.
    class Samples
    {
    public:
        Samples();
        void add(double milliseconds);
        int count() const { return static_cast<int>(m_values.size()); }
        /// The statistics of the times; the share is 1.
        Times times() const;

    private:
        std::vector<double> m_values;
        size_t m_next = 0;
    };
    struct SectionSamples
    {
        Samples gpu;
        Samples cpu;
    };
    /// The measurements of a frame that has not been read yet, by section.
    struct Frame
    {
        /// Time stamps, because the application may have a query of the elapsed time in progress.
        std::vector<ObjectName> beginQueries;
        std::vector<ObjectName> endQueries;
        std::vector<double> cpu;
        size_t numMeasured = 0;
    };
    void read(Frame& frame);

    bool m_hasTimer;
    int m_numFrames = 0;
    size_t m_slot = 0;
    std::array<Frame, 4> m_frames;
    std::vector<QString> m_names;
    std::vector<SectionSamples> m_sections;
    SectionSamples m_sum;
    std::chrono::steady_clock::time_point m_begin;
};

} // namespace Morvane::Qel
