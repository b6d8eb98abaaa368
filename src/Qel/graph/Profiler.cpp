#include <Qel/graph/Profiler.h>

#include <QStringList>

#include <algorithm>
#include <cmath>
#include <limits>
#include <numeric>

#include <epoxy/gl.h>

#include <Qel/gl/OpenGLDeviceContext.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

constexpr size_t numSamples = 1000;

} // namespace

Profiler::Samples::Samples()
{
    m_values.reserve(numSamples);
}

void Profiler::Samples::add(double milliseconds)
{
    if (m_values.size() < numSamples) {
        m_values.push_back(milliseconds);
    } else {
        m_values[m_next] = milliseconds;
        m_next = (m_next + 1) % numSamples;
    }
}

double Profiler::Samples::median() const
{
    if (m_values.empty()) {
        return std::numeric_limits<double>::quiet_NaN();
    }
    std::vector<double> sorted = m_values;
    std::sort(sorted.begin(), sorted.end());
    const size_t middle = sorted.size() / 2;
    return sorted.size() % 2 == 1 ? sorted[middle] : (sorted[middle - 1] + sorted[middle]) / 2.0;
}

double Profiler::Samples::mean() const
{
    return m_values.empty() ? std::numeric_limits<double>::quiet_NaN()
                            : std::accumulate(m_values.begin(), m_values.end(), 0.0) /
                                  static_cast<double>(m_values.size());
}

Profiler::Profiler(const std::vector<QString>& sections)
{
    const OpenGLDeviceContext* context = OpenGLDeviceContext::current();
    m_hasTimer = context->version() >= 33 || context->hasExtension("ARB_timer_query");
    m_sections.resize(sections.size());
    for (size_t i = 0; i < sections.size(); ++i) {
        m_sections[i].name = sections[i];
        if (m_hasTimer) {
            glGenQueries(static_cast<GLsizei>(numFramesInFlight), m_sections[i].beginQueries.data());
            glGenQueries(static_cast<GLsizei>(numFramesInFlight), m_sections[i].endQueries.data());
        }
    }
}

Profiler::~Profiler()
{
    for (const Section& section : m_sections) {
        if (m_hasTimer) {
            glDeleteQueries(static_cast<GLsizei>(numFramesInFlight), section.beginQueries.data());
            glDeleteQueries(static_cast<GLsizei>(numFramesInFlight), section.endQueries.data());
        }
    }
}

void Profiler::begin(int section)
{
    Section& current = m_sections[static_cast<size_t>(section)];
    if (m_hasTimer) {
        // The query in this slot is some frames old, so its result is available without waiting.
        readQuery(current, m_slot);
        glQueryCounter(current.beginQueries[m_slot], GL_TIMESTAMP);
    }
    m_begin = std::chrono::steady_clock::now();
}

void Profiler::end(int section)
{
    Section& current = m_sections[static_cast<size_t>(section)];
    const std::chrono::duration<double, std::milli> time = std::chrono::steady_clock::now() - m_begin;
    current.cpu.add(time.count());
    if (m_hasTimer) {
        glQueryCounter(current.endQueries[m_slot], GL_TIMESTAMP);
        current.pending[m_slot] = true;
    }
}

void Profiler::endFrame()
{
    m_slot = (m_slot + 1) % numFramesInFlight;
}

void Profiler::readQuery(Section& section, size_t slot)
{
    if (section.pending[slot]) {
        GLuint64 begin = 0;
        GLuint64 end = 0;
        glGetQueryObjectui64v(section.beginQueries[slot], GL_QUERY_RESULT, &begin);
        glGetQueryObjectui64v(section.endQueries[slot], GL_QUERY_RESULT, &end);
        constexpr double millisecondsPerNanosecond = 1e-6;
        section.gpu.add(static_cast<double>(end - begin) * millisecondsPerNanosecond);
        section.pending[slot] = false;
    }
}

std::vector<Profiler::Row> Profiler::rows()
{
    std::vector<Row> rows;
    for (Section& section : m_sections) {
        for (size_t i = 0; i < numFramesInFlight; ++i) {
            readQuery(section, (m_slot + i) % numFramesInFlight);
        }
        rows.push_back({section.name, section.cpu.count(), section.gpu.median(), section.gpu.mean(),
                        section.cpu.median(), section.cpu.mean()});
    }
    return rows;
}

QString Profiler::table(const std::vector<Row>& rows)
{
    qsizetype width = 4;
    for (const Row& row : rows) {
        width = std::max(width, row.section.size());
    }
    const auto line = [&](const QString& name, const QStringList& cells) {
        QString text = name.leftJustified(width);
        for (const QString& cell : cells) {
            text += cell.rightJustified(14);
        }
        return text + u'\n';
    };
    const auto cell = [](double milliseconds) {
        return std::isnan(milliseconds) ? u"-"_s : QString::number(milliseconds, 'f', 3);
    };
    QString text = line(
        u"pass"_s, {u"GPU median ms"_s, u"GPU mean ms"_s, u"CPU median ms"_s, u"CPU mean ms"_s, u"frames"_s});
    Row sum;
    for (const Row& row : rows) {
        text += line(row.section, {cell(row.medianGpu), cell(row.meanGpu), cell(row.medianCpu),
                                   cell(row.meanCpu), QString::number(row.numFrames)});
        sum.medianGpu += row.medianGpu;
        sum.meanGpu += row.meanGpu;
        sum.medianCpu += row.medianCpu;
        sum.meanCpu += row.meanCpu;
    }
    return text + line(u"sum"_s, {cell(sum.medianGpu), cell(sum.meanGpu), cell(sum.medianCpu),
                                  cell(sum.meanCpu), QString()});
}

} // namespace Morvane::Qel
