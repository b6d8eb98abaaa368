#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>

#include <vector>

#include <Qel/gl/GLSLMacroProcessor.h>
#include <Qel/gl/ShaderProgram.h>

namespace Morvane::Qel {

/// A source of a program as it was added.
struct ProgramSource
{
    unsigned int stage;
    /// The GLSL, or the path of a file that holds it.
    QString text;
    /// The name in messages; may be empty.
    QString name;
    bool isFile;
};

/// Whether a stage is one of the two tessellation stages.
bool isTessellation(unsigned int stage);

/// One build of a program: preprocess every source, then compile and link them all. Collects the messages.
/// Private to this library.
class ProgramBuilder
{
public:
    explicit ProgramBuilder(const GLSLMacroProcessor& processor)
        : m_processor(processor)
    {
    }

    void preprocess(const ProgramSource& source);
    /// A hash over the preprocessed sources.
    QByteArray hash() const;
    /// Compiles and links what was preprocessed. Returns the GL name of the program, which the caller deletes
    /// if the build has failed.
    unsigned int link(const QStringList& fragDataLocations);

    /// The preprocessed sources in the order in which they were added.
    std::vector<ShaderProgram::Source> composedSources() const;

    bool hasFailed() const { return m_failed; }
    /// Every message, mapped to files and lines.
    QString log() const { return m_log.join(u'\n'); }
    /// Every message, with excerpts of the sources.
    QString report() const { return m_report.join(u'\n'); }

private:
    struct Composed
    {
        unsigned int stage;
        GLSLMacroProcessor::Result result;
    };
    void compile(const Composed& source);
    void bindStandardAttributes();
    void fail(const QString& message);
    void addMessage(const QString& message);
    void addDriverLog(const QString& log, const GLSLMacroProcessor::Result& composed);

    const GLSLMacroProcessor& m_processor;
    std::vector<Composed> m_sources;
    unsigned int m_program = 0;
    std::vector<unsigned int> m_shaders;
    bool m_failed = false;
    QStringList m_log;
    QStringList m_report;
};

} // namespace Morvane::Qel
