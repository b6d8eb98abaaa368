#include <Qel/graph/GraphSchema.h>

#include <QJsonArray>
#include <QJsonDocument>

#include <Qel/core/PassDescription.h>
#include <Qel/graph/PassRegistry.h>
#include <Qel/graph/support/GraphInlining.h>
#include <Qel/graph/support/Ports.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

/// Everything but the passes. "$defs" holds the values; a value named T may also be a parameter or keyed as
/// "T-value".
const char* const frame = R"({
  "$schema": "https://json-schema.org/draft/2020-12/schema",
  "title": "Graph of render passes",
  "type": "object",
  "additionalProperties": false,
  "properties": {
    "$schema": {"type": "string"},
    "include": {"type": "array", "items": {"type": "string"},
      "description": "Files whose models, camera, lights, parameters and passes this graph has too."},
    "parameters": {"type": "object", "propertyNames": {"$ref": "#/$defs/name"},
      "description": "Named values, which \"$name\" stands for."},
    "viewport": {"$ref": "#/$defs/QSize-value", "description": "Width and height in pixels."},
    "camera": {"$ref": "#/$defs/camera"},
    "animation": {"type": "object", "additionalProperties": false, "required": ["frames"],
      "properties": {"frames": {"type": "integer", "minimum": 1, "maximum": 1000000},
        "fps": {"type": "number", "exclusiveMinimum": 0, "maximum": 1000, "default": 30}}},
    "settle": {"type": "integer", "minimum": 1, "maximum": 10000, "default": 1,
      "description": "How many times a frame is rendered until its image counts."},
    "models": {"type": "object", "propertyNames": {"$ref": "#/$defs/name"},
      "additionalProperties": {"anyOf": [{"type": "string"}, {"$ref": "#/$defs/model"}]}},
    "lights": {"type": "array", "items": {"$ref": "#/$defs/light"}},
    "passes": {"type": "array", "items": {"$ref": "#/$defs/pass"}},
    "output": {"type": "string", "pattern": "^@[^.]+\\..+", "description": "\"@pass.Port\", the output image."}
  },
  "$defs": {
    "name": {"type": "string", "pattern": "^[\\w-]+$"},
    "reference": {"type": "string", "pattern": "^@"},
    "parameter": {"type": "string", "pattern": "^\\$"},
    "keyed": {"type": "object", "additionalProperties": false, "required": ["keys"],
      "properties": {
        "keys": {"type": "array", "minItems": 1, "items": {"type": "array", "minItems": 2, "maxItems": 2,
          "prefixItems": [{"type": "integer", "minimum": 0}, true]}},
        "ease": {"enum": ["linear", "smooth", "step"], "default": "linear"}}},
    "bool": {"type": "boolean"},
    "int": {"type": "integer"},
    "float": {"type": "number"},
    "QString": {"type": "string"},
    "QStringList": {"type": "array", "items": {"type": "string"}},
    "QVariantList": {"type": "array"},
    "QVariant": true,
    "QColor": {"anyOf": [{"type": "string", "pattern": "^#([0-9a-fA-F]{6}|[0-9a-fA-F]{8})$"},
      {"type": "array", "minItems": 3, "maxItems": 4, "items": {"type": "integer", "minimum": 0, "maximum": 255}}]},
    "QVector2D": {"type": "array", "minItems": 2, "maxItems": 2, "items": {"type": "number"}},
    "QVector3D": {"type": "array", "minItems": 3, "maxItems": 3, "items": {"type": "number"}},
    "QVector4D": {"type": "array", "minItems": 4, "maxItems": 4, "items": {"type": "number"}},
    "QRect": {"type": "array", "minItems": 4, "maxItems": 4, "items": {"type": "integer"}},
    "QSize": {"type": "array", "minItems": 2, "maxItems": 2, "items": {"type": "integer", "minimum": 1}},
    "QMatrix4x4": {"type": "array", "minItems": 16, "maxItems": 16, "items": {"type": "number"}},
    "camera": {"type": "object", "additionalProperties": false,
      "anyOf": [{"required": ["eye"]}, {"required": ["orbit"]}],
      "properties": {
        "eye": {"$ref": "#/$defs/QVector3D-value", "description": "Position of the camera."},
        "target": {"$ref": "#/$defs/QVector3D-value", "description": "The point that it looks at."},
        "up": {"$ref": "#/$defs/QVector3D-value"},
        "orbit": {"type": "object", "additionalProperties": false,
          "properties": {
            "target": {"$ref": "#/$defs/QVector3D-value"},
            "turns": {"$ref": "#/$defs/float-value"},
            "startAngle": {"$ref": "#/$defs/float-value"},
            "elevation": {"$ref": "#/$defs/float-value"},
            "distance": {"$ref": "#/$defs/float-value"}}},
        "fovY": {"$ref": "#/$defs/float-value", "description": "Vertical field of view in degrees."},
        "height": {"$ref": "#/$defs/float-value", "description": "Height of an orthographic view."},
        "near": {"$ref": "#/$defs/float-value"},
        "far": {"$ref": "#/$defs/float-value"}}},
    "model": {"type": "object", "additionalProperties": false,
      "properties": {
        "file": {"$ref": "#/$defs/QString-value"},
        "merge": {"type": "array", "minItems": 1, "items": {"type": "string"}},
        "upAxis": {"anyOf": [{"enum": ["x", "y", "z"]}, {"$ref": "#/$defs/parameter"}]},
        "scale": {"anyOf": [{"$ref": "#/$defs/float-value"}, {"$ref": "#/$defs/QVector3D"}]},
        "fit": {"$ref": "#/$defs/float-value"},
        "rotate": {"$ref": "#/$defs/QVector3D-value"},
        "translate": {"$ref": "#/$defs/QVector3D-value"}}},
    "light": {"type": "object", "additionalProperties": false, "required": ["type"],
      "properties": {
        "type": {"enum": ["directional", "spot", "point"]},
        "position": {"$ref": "#/$defs/QVector3D-value"},
        "direction": {"$ref": "#/$defs/QVector3D-value"},
        "angle": {"$ref": "#/$defs/float-value"},
        "range": {"$ref": "#/$defs/float-value"},
        "color": {"$ref": "#/$defs/QVector3D-value"},
        "intensity": {"$ref": "#/$defs/float-value"},
        "cascades": {"$ref": "#/$defs/int-value"}}}
  }
})";

QString definition(const QString& name)
{
    return u"#/$defs/"_s + name;
}

QJsonObject reference(const QString& name)
{
    return {{u"$ref"_s, definition(name)}};
}

/// The definition of the constants of a port type; empty for a type that has none.
QString constantName(const QString& type, const QJsonObject& definitions)
{
    const QString name = type == u"Bool" ? u"bool"_s : type == u"double" ? u"float"_s : type;
    return definitions.contains(name) ? name : QString();
}

QJsonObject inputSchema(const InputDescription& input, const QJsonObject& definitions)
{
    QJsonArray values{reference(u"reference"_s), reference(u"parameter"_s),
                      QJsonObject{{u"type"_s, u"null"_s}}};
    const QString constant = constantName(PortName::parse(input.name).type, definitions);
    if (!constant.isEmpty()) {
        values.append(reference(constant));
        values.append(reference(u"keyed"_s));
    }
    const QString range = input.range.isEmpty() ? QString() : u" ("_s + input.range + u')';
    return {{u"description"_s, QString(input.meaning + range)}, {u"anyOf"_s, values}};
}

QJsonObject optionsSchema(const std::vector<OptionDescription>& options, const QJsonObject& definitions);

QJsonObject optionSchema(const OptionDescription& option, const QJsonObject& definitions)
{
    QJsonObject value =
        reference(constantName(QString::fromLatin1(option.defaultValue.metaType().name()), definitions));
    if (!option.choices.isEmpty()) {
        value = {{u"enum"_s, QJsonArray::fromStringList(option.choices)}};
    } else if (!option.members.empty()) {
        value = {{u"type"_s, u"array"_s}, {u"items"_s, optionsSchema(option.members, definitions)}};
    }
    return {{u"description"_s, option.meaning}, {u"anyOf"_s, QJsonArray{value, reference(u"parameter"_s)}}};
}

QJsonObject optionsSchema(const std::vector<OptionDescription>& options, const QJsonObject& definitions)
{
    QJsonObject properties;
    for (const OptionDescription& option : options) {
        properties[option.name] = optionSchema(option, definitions);
    }
    return {{u"type"_s, u"object"_s}, {u"additionalProperties"_s, false}, {u"properties"_s, properties}};
}

/// What the inputs and options of a pass of a type are.
QJsonObject passSchema(const PassDescription& pass, const QJsonObject& definitions)
{
    QJsonObject inputs;
    for (const InputDescription& input : pass.inputs) {
        const QJsonObject schema = inputSchema(input, definitions);
        inputs[input.name] = schema;
        inputs[PortName::parse(input.name).name] = schema;
    }
    QJsonObject inputsSchema{{u"type"_s, u"object"_s}, {u"properties"_s, inputs}};
    if (!pass.hostDeclaresPorts) {
        inputsSchema[u"additionalProperties"_s] = false;
    }
    return {{u"description"_s, pass.summary},
            {u"properties"_s, QJsonObject{{u"inputs"_s, inputsSchema},
                                          {u"options"_s, optionsSchema(pass.options, definitions)}}}};
}

QJsonObject whenType(const QString& type, const QJsonObject& schema)
{
    const QJsonObject isType{{u"properties"_s, QJsonObject{{u"type"_s, QJsonObject{{u"const"_s, type}}}}}};
    return {{u"if"_s, isType}, {u"then"_s, schema}};
}

} // namespace

QJsonObject graphSchema(const PassRegistry& registry)
{
    QJsonObject schema = QJsonDocument::fromJson(frame).object();
    QJsonObject definitions = schema[u"$defs"].toObject();
    QJsonArray types{graphPassType};
    QJsonArray conditions;
    for (const QString& type : registry.types()) {
        types.append(type);
        conditions.append(whenType(type, passSchema(*registry.description(type), definitions)));
    }
    conditions.append(
        whenType(graphPassType,
                 {{u"description"_s, u"Another graph: its parameters are the inputs, its output is Frame."_s},
                  {u"required"_s, QJsonArray{u"file"_s}}}));
    const QJsonObject name = reference(u"name"_s);
    definitions[u"pass"_s] =
        QJsonObject{{u"type"_s, u"object"_s},
                    {u"required"_s, QJsonArray{u"name"_s, u"type"_s}},
                    {u"additionalProperties"_s, false},
                    {u"properties"_s, QJsonObject{{u"name"_s, name},
                                                  {u"type"_s, QJsonObject{{u"enum"_s, types}}},
                                                  {u"inputs"_s, QJsonObject{{u"type"_s, u"object"_s}}},
                                                  {u"options"_s, QJsonObject{{u"type"_s, u"object"_s}}},
                                                  {u"file"_s, reference(u"QString"_s)}}},
                    {u"allOf"_s, conditions}};
    for (const QString& value : {u"float"_s, u"int"_s, u"QString"_s, u"QSize"_s, u"QVector3D"_s}) {
        const QJsonArray forms{reference(value), reference(u"parameter"_s), reference(u"keyed"_s)};
        definitions[value + u"-value"_s] = QJsonObject{{u"anyOf"_s, forms}};
    }
    schema[u"$defs"_s] = definitions;
    return schema;
}

} // namespace Morvane::Qel
