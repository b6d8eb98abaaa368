#include <Qel/gl/GLSLMacroProcessor.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>
#include <QSet>

#include <algorithm>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

using Result = GLSLMacroProcessor::Result;

/// Blanks out comments, line by line.
class CommentStripper
{
public:
    /// The line with every character of a comment replaced by a space. Text in quotes is not searched for
    /// comments: only the names in directives are quoted, GLSL itself has no strings.
    QString code(const QString& line)
    {
        QString code = line;
        qsizetype i = 0;
        while (i < line.size()) {
            if (!m_insideComment && line[i] != u'/' && line[i] != u'"') {
                ++i;
                continue;
            }
            const QStringView rest = QStringView(line).mid(i);
            qsizetype length = 1;
            bool isComment = true;
            if (m_insideComment) {
                const qsizetype end = rest.indexOf(u"*/");
                length = end < 0 ? rest.size() : end + 2;
                m_insideComment = end < 0;
            } else if (rest.startsWith(u"//")) {
                length = rest.size();
            } else if (rest.startsWith(u"/*")) {
                length = 2;
                m_insideComment = true;
            } else {
                isComment = false;
                if (rest.front() == u'"') {
                    length = rest.indexOf(u'"', 1) + 1;
                    length = length > 0 ? length : 1;
                }
            }
            if (isComment) {
                std::fill_n(code.begin() + i, length, u' ');
            }
            i += length;
        }
        return code;
    }
    bool isInsideComment() const { return m_insideComment; }

private:
    bool m_insideComment = false;
};

QList<QStringView> linesOf(const QString& text)
{
    QList<QStringView> lines = QStringView(text).split(u'\n');
    if (lines.last().isEmpty()) {
        lines.removeLast();
    }
    return lines;
}

/// Whether a line without comments is for the preprocessor.
bool isDirective(QStringView code)
{
    const auto* first = std::find_if_not(code.begin(), code.end(), [](QChar c) { return c.isSpace(); });
    return first != code.end() && *first == u'#';
}

/// The number of lines up to the last of the #version and #extension directives at the start of a source,
/// including the comments before and between them.
qsizetype numLeadingLines(const QList<QStringView>& lines)
{
    static const QRegularExpression leading(uR"(^\s*#\s*(version|extension)\b)"_s);
    CommentStripper comments;
    qsizetype numLines = 0;
    bool directiveSeen = false;
    for (qsizetype i = 0; i < lines.size(); ++i) {
        const QString code = comments.code(lines[i].toString());
        const bool isLeading = isDirective(code) && leading.match(code).hasMatch();
        directiveSeen = directiveSeen || isLeading;
        if (!isLeading && !code.trimmed().isEmpty()) {
            break;
        }
        if (directiveSeen && !comments.isInsideComment()) {
            numLines = i + 1;
            directiveSeen = false;
        }
    }
    return numLines;
}

QString findIn(const QStringList& directories, const QString& name)
{
    if (QDir::isAbsolutePath(name)) {
        return QFileInfo(name).isFile() ? name : QString();
    }
    for (const QString& directory : directories) {
        QString path = QDir::cleanPath(QDir(directory).filePath(name));
        if (QFileInfo(path).isFile()) {
            return path;
        }
    }
    return {};
}

QString quoted(const QString& text)
{
    return u'"' + text + u'"';
}

/// Builds the result of one source.
class Composition
{
public:
    Composition(const QString& name, const QStringList& searchPaths, const QStringList& defines,
                const QMap<QString, QString>& prototypes)
        : m_searchPaths(searchPaths)
        , m_defines(defines)
        , m_prototypes(prototypes)
    {
        m_result.files.append(name);
        m_included.insert(QFileInfo(name).canonicalFilePath());
    }

    Result compose(const QString& source)
    {
        append(source, 0);
        return std::move(m_result);
    }

private:
    void append(const QString& text, int file);
    void appendLine(const QString& line, Result::Position origin);
    void appendDefines();
    void include(const QString& name, Result::Position place);
    QString prototypesOf(const QString& plan, Result::Position place);
    void reportError(Result::Position place, const QString& text);

    const QStringList& m_searchPaths;
    const QStringList& m_defines;
    const QMap<QString, QString>& m_prototypes;
    Result m_result;
    QSet<QString> m_included;
    int m_numLines = 0;
    Result::Position m_next{-1, 0};
    bool m_lineNamesNextLine = false;
};

void Composition::append(const QString& text, int file)
{
    // Only for directives, because matching each line would take most of the time.
    static const QRegularExpression insertion(uR"(^\s*(#\s*(include|instancedata)\b(?:\s*("[^"]*"))?))"_s);
    static const QRegularExpression version(uR"(^\s*(#\s*version\s+(\d+)(?:\s+(\w+))?))"_s);
    static const QRegularExpression line(uR"(^\s*(#\s*line\s+(\d+)(?:\s+\d+)?))"_s);

    const QList<QStringView> lines = linesOf(text);
    const qsizetype definesAt = file == 0 && !m_defines.isEmpty() ? numLeadingLines(lines) : -1;
    CommentStripper comments;
    Result::Position here{file, 1};
    for (qsizetype i = 0; i < lines.size(); ++i, ++here.line) {
        if (i == definesAt) {
            appendDefines();
        }
        const QString original = lines[i].toString();
        const QString code = comments.code(original);
        if (!isDirective(code)) {
            appendLine(original, here);
            continue;
        }
        // The text around a directive is kept, since comments may end or begin there.
        const auto before = [&](const QRegularExpressionMatch& match) {
            return original.left(match.capturedStart(1));
        };
        const auto after = [&](const QRegularExpressionMatch& match) {
            return original.mid(match.capturedEnd(1));
        };
        if (const QRegularExpressionMatch match = insertion.match(code); match.hasMatch()) {
            const QString argument = match.captured(3);
            const QString name = argument.mid(1, argument.size() - 2);
            if (name.isEmpty()) {
                reportError(here, u"#%1 needs a name in double quotes"_s.arg(match.captured(2)));
                appendLine(original, here);
            } else if (match.captured(2) == u"include") {
                appendLine(before(match), here);
                include(name, here);
                appendLine(after(match), here);
            } else {
                appendLine(before(match) + prototypesOf(name, here) + after(match), here);
            }
        } else if (const QRegularExpressionMatch versionMatch = version.match(code);
                   versionMatch.hasMatch()) {
            if (file == 0) {
                m_lineNamesNextLine =
                    versionMatch.captured(2).toInt() >= 330 || versionMatch.captured(3) == u"es";
                appendLine(original, here);
            } else {
                appendLine(before(versionMatch) + after(versionMatch), here);
            }
        } else if (const QRegularExpressionMatch lineMatch = line.match(code); lineMatch.hasMatch()) {
            appendLine(before(lineMatch) + after(lineMatch), here);
            // Up to version 1.50 #line numbers its own line, in later versions the following one.
            here.line = lineMatch.captured(2).toInt() - (m_lineNamesNextLine ? 1 : 0);
        } else {
            appendLine(original, here);
        }
    }
    if (definesAt == lines.size()) {
        appendDefines();
    }
}

void Composition::appendLine(const QString& line, Result::Position origin)
{
    ++m_numLines;
    if (origin.file != m_next.file || origin.line != m_next.line) {
        m_result.runs.push_back({m_numLines, origin});
    }
    m_next = {origin.file, origin.line + 1};
    m_result.source += line;
    m_result.source += u'\n';
}

void Composition::appendDefines()
{
    m_result.files.append(u"defines"_s);
    Result::Position here{static_cast<int>(m_result.files.size()) - 1, 1};
    for (const QString& define : m_defines) {
        appendLine(define, here);
        ++here.line;
    }
}

void Composition::include(const QString& name, Result::Position place)
{
    QStringList directories = m_searchPaths;
    if (const QFileInfo includer(m_result.files[place.file]); includer.isFile()) {
        directories.prepend(includer.path());
    }
    const QString path = findIn(directories, name);
    if (path.isEmpty()) {
        reportError(place,
                    u"cannot find include %1; searched %2"_s.arg(quoted(name), directories.join(u", "_s)));
        return;
    }
    const QString identity = QFileInfo(path).canonicalFilePath();
    if (m_included.contains(identity)) {
        return;
    }
    m_included.insert(identity);
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        reportError(place, u"cannot read include %1: %2"_s.arg(quoted(path), file.errorString()));
        return;
    }
    m_result.files.append(path);
    append(QString::fromUtf8(file.readAll()), static_cast<int>(m_result.files.size()) - 1);
}

QString Composition::prototypesOf(const QString& plan, Result::Position place)
{
    if (!m_prototypes.contains(plan)) {
        QStringList known = m_prototypes.keys();
        std::transform(known.begin(), known.end(), known.begin(), quoted);
        reportError(place,
                    u"unknown instance-data plan %1; known are %2"_s.arg(quoted(plan), known.join(u", "_s)));
    }
    return m_prototypes.value(plan);
}

void Composition::reportError(Result::Position place, const QString& text)
{
    m_result.errors.append(u"%1:%2: %3"_s.arg(m_result.files[place.file], QString::number(place.line), text));
}

} // namespace

GLSLMacroProcessor::Result::Position GLSLMacroProcessor::Result::origin(int composedLine) const
{
    const auto next = std::upper_bound(runs.begin(), runs.end(), composedLine,
                                       [](int line, const Run& run) { return line < run.firstComposedLine; });
    const Run& run = next == runs.begin() ? runs.front() : *std::prev(next);
    return {run.origin.file, run.origin.line + composedLine - run.firstComposedLine};
}

GLSLMacroProcessor::GLSLMacroProcessor() = default;

void GLSLMacroProcessor::addDefine(const QString& name, const QString& value)
{
    const auto existing = std::find_if(m_defines.begin(), m_defines.end(),
                                       [&](const auto& define) { return define.first == name; });
    if (existing != m_defines.end()) {
        existing->second = value;
    } else {
        m_defines.append({name, value});
    }
}

void GLSLMacroProcessor::addIncludePath(const QString& path)
{
    m_includePaths.append(path);
}

GLSLMacroProcessor::Result GLSLMacroProcessor::process(const QString& source, const QString& name,
                                                       const QMap<QString, QString>& prototypes) const
{
    static const QRegularExpression ownDirective(uR"(#\s*(include|instancedata|line)\b)"_s);
    if (m_defines.isEmpty() && !ownDirective.match(source).hasMatch()) {
        return {source, {name}, {}, {{1, {0, 1}}}};
    }
    QStringList defines;
    for (const auto& [define, value] : m_defines) {
        defines.append(u"#define %1 %2"_s.arg(define, value));
    }
    return Composition(name, searchPaths(), defines, prototypes).compose(source);
}

QString GLSLMacroProcessor::findFile(const QString& name) const
{
    return findIn(searchPaths(), name);
}

QStringList GLSLMacroProcessor::searchPaths() const
{
    return m_includePaths + QStringList(u":/Media/Shaders"_s);
}

} // namespace Morvane::Qel
