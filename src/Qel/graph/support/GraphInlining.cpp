#include <Qel/graph/support/GraphInlining.h>

#include <QJsonArray>
#include <QJsonObject>
#include <QSet>

#include <algorithm>

#include <Qel/graph/support/GraphErrors.h>
#include <Qel/graph/support/Names.h>
#include <Qel/graph/support/Parameters.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

/// Renames what a graph refers to as it becomes a part of another graph.
class Renamer
{
public:
    Renamer(const GraphDescription& graph, const QString& pass)
        : m_prefix(pass + u'-')
    {
        for (const ModelDescription& model : graph.models) {
            m_models.insert(model.name);
        }
    }

    QString inside(const QString& name) const { return m_prefix + name; }

    /// The value of an input or a parameter.
    QJsonValue renamed(const QJsonValue& value)
    {
        const QString text = value.toString();
        const QString name = text.sliced(text.isEmpty() ? 0 : 1);
        if (isParameterUse(value)) {
            return u'$' + inside(name);
        }
        if (!text.startsWith(u'@') || (!name.contains(u'.') && !m_models.contains(name))) {
            return value;
        }
        m_usedModels.insert(name);
        return u'@' + inside(name);
    }

    /// Options, in which only parameters have names.
    QJsonValue renamedOptions(const QJsonValue& value) const
    {
        if (isParameterUse(value)) {
            return u'$' + inside(value.toString().sliced(1));
        }
        if (value.isArray()) {
            QJsonArray elements = value.toArray();
            for (auto element : elements) {
                element = renamedOptions(element);
            }
            return elements;
        }
        QJsonObject members = value.toObject();
        for (auto member : members) {
            member = renamedOptions(member);
        }
        return value.isObject() ? QJsonValue(members) : value;
    }

    bool usesModel(const QString& name) const { return m_usedModels.contains(name); }

private:
    QString m_prefix;
    QSet<QString> m_models;
    QSet<QString> m_usedModels;
};

} // namespace

InliningError inlineGraph(GraphDescription inner, const PassSetting& pass, GraphDescription* outer,
                          GraphPassOutputs* outputs)
{
    if (inner.output.isEmpty()) {
        return {{}, u"the graph has no \"output\" for the pass to publish"_s};
    }
    Renamer renamer(inner, pass.name);
    // Models that only stand for an input while the graph runs alone.
    QSet<QString> replaced;
    const Parameters parameters(inner);
    for (const InputSetting& input : pass.inputs) {
        const int index = parameters.find(input.port);
        if (index < 0) {
            return {input.port,
                    u"the inputs of a graph are its parameters; "_s + parameters.unknownError(input.port)};
        }
        ParameterDescription& parameter = inner.parameters[static_cast<size_t>(index)];
        if (parameter.value.toString().startsWith(u'@')) {
            replaced.insert(parameter.value.toString().sliced(1));
        }
    }
    for (ParameterDescription& parameter : inner.parameters) {
        const auto input =
            std::find_if(pass.inputs.begin(), pass.inputs.end(),
                         [&](const InputSetting& candidate) { return candidate.port == parameter.name; });
        if (input == pass.inputs.end()) {
            parameter.value = renamer.renamed(parameter.value);
        } else {
            parameter.value = input->value;
            parameter.source = pass.source;
        }
        parameter.name = renamer.inside(parameter.name);
        outer->parameters.push_back(parameter);
    }
    for (PassSetting& innerPass : inner.passes) {
        innerPass.name = renamer.inside(innerPass.name);
        for (InputSetting& input : innerPass.inputs) {
            input.value = renamer.renamed(input.value);
        }
        innerPass.options = renamer.renamedOptions(innerPass.options).toObject();
        outer->passes.push_back(std::move(innerPass));
    }
    QSet<QString> merged;
    for (const ModelDescription& model : inner.models) {
        merged += QSet<QString>(model.merge.begin(), model.merge.end());
    }
    for (ModelDescription& model : inner.models) {
        if (replaced.contains(model.name) && !renamer.usesModel(model.name) && !merged.contains(model.name)) {
            continue;
        }
        const QString place = u"models."_s + model.name;
        for (BoundValue& bound : inner.boundValues) {
            if (bound.place == place || bound.place.startsWith(place + u'.')) {
                outer->boundValues.push_back({u"models."_s + renamer.inside(bound.place.sliced(7)),
                                              renamer.renamedOptions(bound.value), bound.source});
            }
        }
        model.name = renamer.inside(model.name);
        for (QString& part : model.merge) {
            part = renamer.inside(part);
        }
        outer->models.push_back(std::move(model));
    }
    outputs->insert(pass.name, renamer.renamed(QJsonValue(inner.output)).toString());
    return {};
}

void renameOutputs(GraphDescription* graph, const GraphPassOutputs& outputs, GraphErrors& errors)
{
    const auto rename = [&](const QJsonValue& value, const SourcePlace& source, const QString& place) {
        const QString text = value.toString();
        const QString name = text.startsWith(u'@') ? text.section(u'.', 0, 0).sliced(1) : QString();
        const auto output = outputs.constFind(name);
        if (output == outputs.constEnd()) {
            return value;
        }
        if (text.section(u'.', 1) != graphPassOutput) {
            const GraphErrors::InPlace scope(errors, source);
            errors.add(place, u"the graph \"%1\" has one output: write \"@%1.%2\", not \"%3\""_s.arg(
                                  name, graphPassOutput, text));
        }
        return QJsonValue(*output);
    };
    for (PassSetting& pass : graph->passes) {
        for (InputSetting& input : pass.inputs) {
            input.value = rename(input.value, pass.source, pass.name + u'.' + input.port);
        }
    }
    for (ParameterDescription& parameter : graph->parameters) {
        parameter.value = rename(parameter.value, parameter.source, u"parameters."_s + parameter.name);
    }
    graph->output = rename(graph->output, {}, u"output"_s).toString();
}

} // namespace Morvane::Qel
