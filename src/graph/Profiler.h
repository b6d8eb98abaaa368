#pragma once

#include <QString>

#include <chrono>
#include <vector>

#include <Qel/graph/Export.h>

namespace Morvane::Qel {

/// GPU and CPU times of sections that repeat every frame. GPU times come from timer queries that are read
/// some frames later, so that measuring never waits for the GPU; without GL_ARB_timer_query (core in 3.3)
/// there are none. The context must be current for every operation.
class QEL_GRAPH_EXPORT Profiler
{
public:
    explicit Profiler(const std::vector<QString>& sections);
    ~Profiler();
    Profiler(const Profiler&) = delete;
    Profiler& operator=(const Profiler&) = delete;

    /// Starts and ends a section; sections do not nest.
    void begin(int section);
    void end(int section);
    void endFrame();

    struct Row
    {
        QString section;
        /// How many frames were measured.
        int numFrames = 0;
        /// Milliseconds; the GPU's are NaN where the context has no timer queries.
        double medianGpu = 0.0;
        double meanGpu = 0.0;
        double medianCpu = 0.0;
        double meanCpu = 0.0;
    };
    /// One row for each section. Waits for queries that are under way.
    std::vector<Row> rows();
    /// Rows as aligned text with a heading, for people.
    static QString table(const std::vector<Row>& rows);

private:
    static constexpr int numFramesInFlight = 4;
    struct Section
    {
        QString name;
        unsigned int queries[numFramesInFlight] = {};
        bool pending[numFramesInFlight] = {};
        std::vector<double> gpu;
        std::vector<double> cpu;
    };
    void read(Section& section, int slot);

    bool m_hasTimer;
    int m_slot = 0;
    std::vector<Section> m_sections;
    std::chrono::steady_clock::time_point m_begin;
};

} // namespace Morvane::Qel
