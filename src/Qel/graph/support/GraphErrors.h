#pragma once

#include <QStringList>

#include <concepts>
#include <utility>

#include <Qel/core/Text.h>
#include <Qel/graph/GraphDescription.h>

namespace Morvane::Qel {

/// Collects error messages about a graph, each "FILE: PLACE: what is wrong". After the first 50 they are only
/// counted, and the destructor adds a line with their number.
class GraphErrors
{
public:
    GraphErrors(QString file, QStringList* messages)
        : m_file(std::move(file))
        , m_messages(messages)
    {
    }
    /// Messages about a value that GraphDescription::set has set name the assignment in place of the file,
    /// and those about a value of a parameter name the parameter and its place.
    GraphErrors(const GraphDescription& graph, QStringList* messages);
    ~GraphErrors()
    {
        if (m_count > most) {
            m_messages->append(
                printable(m_file + QLatin1StringView(": and %1 more").arg(grouped(m_count - most))));
        }
    }
    GraphErrors(const GraphErrors&) = delete;
    GraphErrors& operator=(const GraphErrors&) = delete;

    /// While it exists, messages are about a value that is written in a place, or in that of a parameter.
    class InPlace
    {
    public:
        InPlace(GraphErrors& errors, const SourcePlace& source,
                const ParameterDescription* parameter = nullptr)
            : m_errors(errors)
            , m_source(errors.m_source)
            , m_parameter(errors.m_parameter)
        {
            errors.m_source = source;
            errors.m_parameter = parameter;
        }
        ~InPlace()
        {
            m_errors.m_source = m_source;
            m_errors.m_parameter = m_parameter;
        }
        InPlace(const InPlace&) = delete;
        InPlace& operator=(const InPlace&) = delete;

    private:
        GraphErrors& m_errors;
        SourcePlace m_source;
        const ParameterDescription* m_parameter;
    };

    /// Adds a message, unless `what` is empty.
    void add(const QString& place, const QString& what);
    /// Adds the message that a function returns, which is called only if the message is kept.
    template<std::invocable What>
    void add(const QString& place, const What& what)
    {
        if (isFull()) {
            ++m_count;
        } else {
            add(place, what());
        }
    }
    /// Adds a message that names its file and its place.
    void addLine(const QString& line)
    {
        if (!isFull()) {
            m_messages->append(printable(line));
        }
        ++m_count;
    }
    /// Counts messages that would not be kept anyway.
    void addUnkept(qsizetype number) { m_count += number; }
    /// Number of messages added here.
    qsizetype count() const { return m_count; }
    /// Whether a further message is only counted, so that its text does not matter.
    bool isFull() const { return m_count >= most; }

    /// Number of messages that are kept.
    static constexpr qsizetype most = 50;

private:
    QString m_file;
    SourcePlace m_source;
    const ParameterDescription* m_parameter = nullptr;
    QHash<QString, QString> m_assignments;
    /// The parameters that hold the values of bound places.
    QHash<QString, ParameterDescription> m_parameters;
    QStringList* m_messages;
    qsizetype m_count = 0;
};

} // namespace Morvane::Qel
