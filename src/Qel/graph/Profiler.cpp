#include <Qel/graph/Profiler.h>

#include <QJsonArray>
#include <QStringList>

#include <algorithm>
#include <cmath>

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

Profiler::Times Profiler::Samples::times() const
{
    if (m_values.empty()) {
        return {};
    }
    std::vector<double> sorted = m_values;
    std::sort(sorted.begin(), sorted.end());
    const size_t count = sorted.size();
    return {sorted.front(), (sorted[(count - 1) / 2] + sorted[count / 2]) / 2.0,
            sorted[(95 * count + 99) / 100 - 1], 1.0, m_values[(m_next + count - 1) % count]};
}

Profiler::Profiler(const std::vector<QString>& sections)
    : m_names(sections)
    , m_sections(sections.size())
{
    const OpenGLDeviceContext* context = OpenGLDeviceContext::current();
    m_hasTimer = context->version() >= 33 || context->hasExtension("ARB_timer_query");
    for (Frame& frame : m_frames) {
        frame.cpu.resize(sections.size());
        for (size_t i = 0; i < sections.size(); ++i) {
            frame.beginQueries.emplace_back(ObjectName::Kind::Query);
            frame.endQueries.emplace_back(ObjectName::Kind::Query);
        }
    }
}

Profiler::~Profiler() = default;

void Profiler::begin(int section)
{
    if (m_numFrames < numWarmUpFrames) {
        return;
    }
    if (m_hasTimer) {
        glQueryCounter(m_frames[m_slot].beginQueries[static_cast<size_t>(section)].get(), GL_TIMESTAMP);
    }
    m_begin = std::chrono::steady_clock::now();
}

void Profiler::end(int section)
{
    if (m_numFrames < numWarmUpFrames) {
        return;
    }
    const std::chrono::duration<double, std::milli> time = std::chrono::steady_clock::now() - m_begin;
    Frame& frame = m_frames[m_slot];
    frame.cpu[static_cast<size_t>(section)] = time.count();
    ++frame.numMeasured;
    if (m_hasTimer) {
        glQueryCounter(frame.endQueries[static_cast<size_t>(section)].get(), GL_TIMESTAMP);
    }
}

void Profiler::endFrame()
{
    m_numFrames = std::min(m_numFrames + 1, numWarmUpFrames);
    m_slot = (m_slot + 1) % m_frames.size();
    // The oldest frame, whose results are available without waiting.
    read(m_frames[m_slot]);
}

void Profiler::read(Frame& frame)
{
    if (frame.numMeasured == m_sections.size()) {
        double gpuSum = 0.0;
        double cpuSum = 0.0;
        for (size_t i = 0; i < m_sections.size(); ++i) {
            if (m_hasTimer) {
                GLuint64 begin = 0;
                GLuint64 end = 0;
                glGetQueryObjectui64v(frame.beginQueries[i].get(), GL_QUERY_RESULT, &begin);
                glGetQueryObjectui64v(frame.endQueries[i].get(), GL_QUERY_RESULT, &end);
                const double gpu = static_cast<double>(end - begin) * 1e-6;
                m_sections[i].gpu.add(gpu);
                gpuSum += gpu;
            }
            m_sections[i].cpu.add(frame.cpu[i]);
            cpuSum += frame.cpu[i];
        }
        if (m_hasTimer) {
            m_sum.gpu.add(gpuSum);
        }
        m_sum.cpu.add(cpuSum);
    }
    frame.numMeasured = 0;
}

Profiler::Report Profiler::report()
{
    for (size_t i = 0; i < m_frames.size(); ++i) {
        read(m_frames[(m_slot + i) % m_frames.size()]);
    }
    Report report{.numFrames = m_sum.cpu.count(),
                  .sections = {},
                  .frame = {u"frame"_s, m_sum.gpu.times(), m_sum.cpu.times()}};
    double gpuMedians = 0.0;
    double cpuMedians = 0.0;
    for (size_t i = 0; i < m_sections.size(); ++i) {
        const Row row{m_names[i], m_sections[i].gpu.times(), m_sections[i].cpu.times()};
        gpuMedians += row.gpu.median;
        cpuMedians += row.cpu.median;
        report.sections.push_back(row);
    }
    for (Row& row : report.sections) {
        row.gpu.share = row.gpu.median / gpuMedians;
        row.cpu.share = row.cpu.median / cpuMedians;
    }
    return report;
}

QString Profiler::Report::table() const
{
    const QString models = u"models"_s;
    qsizetype width = models.size();
    for (const Row& row : sections) {
        width = std::max(width, row.section.size());
    }
    const auto line = [&](const QString& name, const QStringList& cells) {
        QString text = name.leftJustified(width);
        for (const QString& cell : cells) {
            text += cell.rightJustified(13);
        }
        return text + u'\n';
    };
    const auto timesLine = [&](const Row& row) {
        QStringList cells;
        for (const Times& times : {row.gpu, row.cpu}) {
            for (const double milliseconds : {times.minimum, times.median, times.percentile95}) {
                cells << (std::isnan(milliseconds) ? u"-"_s : QString::number(milliseconds, 'f', 3));
            }
            cells << (std::isnan(times.share) ? u"-"_s
                                              : QString::number(100.0 * times.share, 'f', 1) + u" %"_s);
        }
        return line(row.section, cells);
    };
    const auto megabytes = [](qint64 bytes) {
        return QString::number(static_cast<double>(bytes) / 1048576.0, 'f', 2);
    };
    const auto memoryLine = [&](const Row& row) {
        const Memory& memory = row.memory;
        return line(row.section,
                    {megabytes(memory.kept), megabytes(memory.pooled), QString::number(memory.numPooled)});
    };
    QString text =
        u"milliseconds in %1 frames, after %2 warm-up frames; shares are of the medians\n"_s.arg(numFrames)
            .arg(numWarmUpFrames);
    text += line(u"pass"_s, {u"GPU minimum"_s, u"median"_s, u"95 %"_s, u"share"_s, u"CPU minimum"_s,
                             u"median"_s, u"95 %"_s, u"share"_s});
    for (const Row& row : sections) {
        text += timesLine(row);
    }
    text += timesLine(frame) + u"\nMiB kept between frames, and taken from the pool in a frame\n"_s;
    text += line(u"pass"_s, {u"kept"_s, u"pooled"_s, u"textures"_s});
    for (const Row& row : sections) {
        text += memoryLine(row);
    }
    return text + memoryLine(frame) +
           line(u"pool"_s, {megabytes(poolBytes), QString(), QString::number(numPoolTextures)}) +
           line(models, {megabytes(modelBytes)});
}

QJsonObject Profiler::Report::json() const
{
    const auto timesObject = [](const Times& times) {
        return QJsonObject{{u"minimum"_s, times.minimum},
                           {u"median"_s, times.median},
                           {u"percentile95"_s, times.percentile95},
                           {u"share"_s, times.share}};
    };
    const auto rowObject = [&](const Row& row) {
        return QJsonObject{{u"gpu"_s, timesObject(row.gpu)},
                           {u"cpu"_s, timesObject(row.cpu)},
                           {u"memory"_s, QJsonObject{{u"keptBytes"_s, row.memory.kept},
                                                     {u"pooledBytes"_s, row.memory.pooled},
                                                     {u"pooledTextures"_s, row.memory.numPooled}}}};
    };
    QJsonArray passes;
    for (const Row& row : sections) {
        QJsonObject object = rowObject(row);
        object[u"name"_s] = row.section;
        passes.append(object);
    }
    return {{u"frames"_s, numFrames},
            {u"warmUpFrames"_s, numWarmUpFrames},
            {u"passes"_s, passes},
            {u"frame"_s, rowObject(frame)},
            {u"pool"_s, QJsonObject{{u"bytes"_s, poolBytes}, {u"textures"_s, numPoolTextures}}},
            {u"modelBytes"_s, modelBytes}};
}

} // namespace Morvane::Qel
