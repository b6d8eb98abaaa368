#pragma once

#include <QString>

#include <array>
#include <chrono>
#include <vector>

#include <Qel/graph/Export.h>

namespace Morvane::Qel {

/// Measures GPU and CPU times of sections that repeat every frame. GPU times come from timer queries that are
/// read some frames later, so that measuring does not wait for the GPU; they need GL_ARB_timer_query (core in
/// 3.3). The context must be current for every operation.
class QEL_GRAPH_EXPORT Profiler
{
public:
    explicit Profiler(const std::vector<QString>& sections);
    ~Profiler();
    Profiler(const Profiler&) = delete;
    Profiler& operator=(const Profiler&) = delete;

    /// Begins a section, given by its index; sections do not nest.
    void begin(int section);
    void end(int section);
    void endFrame();

    struct Row
    {
        QString section;
        /// Number of measured frames.
        int numFrames = 0;
        /// Milliseconds; GPU times are NaN if the context has no timer queries.
        double medianGpu = 0.0;
        double meanGpu = 0.0;
        double medianCpu = 0.0;
        double meanCpu = 0.0;
    };
    /// One row for each section, over the last 1000 frames. Waits for pending queries.
    std::vector<Row> rows();
    /// Formats rows as a table with a heading.
    static QString table(const std::vector<Row>& rows);

private:
    static constexpr size_t numFramesInFlight = 4;
    /// The most recent times of a section in milliseconds; allocates only in its constructor.
    class Samples
    {
    public:
        Samples();
        void add(double milliseconds);
        int count() const { return static_cast<int>(m_values.size()); }
        /// Median and mean are NaN without samples.
        double median() const;
        double mean() const;

    private:
        std::vector<double> m_values;
        size_t m_next = 0;
    };
    struct Section
    {
        QString name;
        /// Time stamps, because the application may have a query of the elapsed time in progress.
        std::array<unsigned int, numFramesInFlight> beginQueries = {};
        std::array<unsigned int, numFramesInFlight> endQueries = {};
        std::array<bool, numFramesInFlight> pending = {};
        Samples gpu;
        Samples cpu;
    };
    void readQuery(Section& section, size_t slot);

    bool m_hasTimer;
    size_t m_slot = 0;
    std::vector<Section> m_sections;
    std::chrono::steady_clock::time_point m_begin;
};

} // namespace Morvane::Qel
