#include <Qel/graph/GraphReview.h>

#include <QMatrix4x4>
#include <QVector2D>
#include <QVector3D>
#include <QVector4D>

#include <algorithm>
#include <vector>

#include <Qel/gl/ImageFiles.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

const PlannedPass& passAt(const GraphPlan& plan, int index)
{
    return plan.passes[static_cast<size_t>(index)];
}

/// The input of a full name; null if the pass has none.
const PlannedInput* findInput(const PlannedPass& pass, const QString& port)
{
    const auto found = std::find_if(pass.inputs.begin(), pass.inputs.end(),
                                    [&](const PlannedInput& input) { return input.port == port; });
    return found == pass.inputs.end() ? nullptr : &*found;
}

const OutputDescription* describedOutput(const PlannedPass& pass, int output)
{
    const std::vector<OutputDescription>& outputs = pass.description->outputs;
    return static_cast<size_t>(output) < outputs.size() ? &outputs[static_cast<size_t>(output)] : nullptr;
}

/// What the image files of a pass hold.
TextureMeaning meaningOfFiles(const PlannedPass& pass)
{
    TextureMeaning meaning;
    for (const PlannedInput& input : pass.inputs) {
        if (PortName::parse(input.port).type != u"QString"_s) {
            continue;
        }
        if (input.source != InputSource::Constant) {
            return {};
        }
        if (isFloatImageFile(input.constant.toString())) {
            return {Encoding::Linear, AlphaMeaning::Premultiplied};
        }
        meaning = {Encoding::Display, AlphaMeaning::Straight};
    }
    return meaning;
}

TextureMeaning meaningOfInput(const GraphPlan& plan, const PlannedPass& pass, const QStringList& ports)
{
    for (const QString& port : ports) {
        const PlannedInput* input = findInput(pass, port);
        if (input && input->source == InputSource::Connection) {
            return meaningOf(plan, input->pass, input->output);
        }
    }
    return {};
}

QString shortName(const QString& port)
{
    return PortName::parse(port).name;
}

/// "@pass.Port" of the output that an input is connected to.
QString sourceText(const GraphPlan& plan, const PlannedInput& input)
{
    const PlannedPass& source = passAt(plan, input.pass);
    return u"\"@%1.%2\""_s.arg(source.name, shortName(source.outputs[input.output]));
}

std::vector<double> numbersOf(const QVariant& value)
{
    switch (value.typeId()) {
    case QMetaType::Int:
    case QMetaType::Double:
    case QMetaType::Float:
        return {value.toDouble()};
    case QMetaType::QVector2D: {
        const auto v = value.value<QVector2D>();
        return {v.x(), v.y()};
    }
    case QMetaType::QVector3D: {
        const auto v = value.value<QVector3D>();
        return {v.x(), v.y(), v.z()};
    }
    case QMetaType::QVector4D: {
        const auto v = value.value<QVector4D>();
        return {v.x(), v.y(), v.z(), v.w()};
    }
    default:
        return {};
    }
}

/// Whether the pass works with the camera of the graph: its normals and depths are those of the graph's view.
bool usesCameraOfGraph(const PlannedPass& pass, const QString& port)
{
    const PlannedInput* input = findInput(pass, port);
    return !input || input->source == InputSource::FrameValue || input->source == InputSource::Connection;
}

const QString projectionPort = u"Qel_QMatrix4x4_ProjectionMatrix"_s;
const QString cameraPort = u"Qel_QMatrix4x4_CameraMatrix"_s;

class Reviewer
{
public:
    explicit Reviewer(const GraphPlan& plan)
        : m_plan(plan)
    {
    }

    QStringList review()
    {
        // A camera of the application is not checked before; those of files are. In an orbit, a far plane of
        // 0 is fitted later.
        const auto& camera = m_plan.graph.camera;
        const bool isFitted = camera && camera->orbit && camera->farPlane == 0.0F;
        if (camera && !isFitted && camera->nearPlane >= camera->farPlane) {
            m_lines.append(u"camera: the near plane at %1 is not in front of the far plane at %2; swap them"_s
                               .arg(camera->nearPlane)
                               .arg(camera->farPlane));
        }
        for (const int index : m_plan.order) {
            const PlannedPass& pass = passAt(m_plan, index);
            for (size_t i = 0; i < pass.inputs.size() && i < pass.description->inputs.size(); ++i) {
                reviewInput(pass, pass.inputs[i], pass.description->inputs[i]);
            }
            reviewPlanes(pass);
        }
        return m_lines;
    }

private:
    void add(const PlannedPass& pass, const QString& port, const QString& text)
    {
        m_lines.append(u"%1.%2: %3"_s.arg(pass.name, shortName(port), text));
    }

    void reviewInput(const PlannedPass& pass, const PlannedInput& input, const InputDescription& description)
    {
        switch (input.source) {
        case InputSource::Connection:
            reviewEncoding(pass, input, description);
            reviewSpace(pass, input, description);
            reviewDepthPlanes(pass, input, description);
            reviewJitter(pass, input, description);
            break;
        case InputSource::Constant:
            reviewConstant(pass, input, description);
            break;
        case InputSource::Default:
            reviewGeometry(pass, input);
            break;
        default:
            break;
        }
    }

    void reviewGeometry(const PlannedPass& pass, const PlannedInput& input)
    {
        const QString type = PortName::parse(input.port).type;
        if (type == u"QelGPUModel*"_s || type == u"QelDrawBuffers*"_s) {
            add(pass, input.port,
                m_plan.graph.models.empty()
                    ? u"there is nothing to draw: the graph has no model; add one to \"models\", or give "
                      "one with --model"_s
                    : u"there is nothing to draw; set it to a model, such as \"@%1\""_s.arg(
                          m_plan.graph.models.front().name));
        }
    }

    void reviewConstant(const PlannedPass& pass, const PlannedInput& input,
                        const InputDescription& description)
    {
        for (const double number : numbersOf(input.constant)) {
            if (!description.limits.contains(number)) {
                add(pass, input.port,
                    u"%1 is outside of its range, %2"_s.arg(number).arg(description.unitAndRange()));
                return;
            }
        }
    }

    void reviewEncoding(const PlannedPass& pass, const PlannedInput& input,
                        const InputDescription& description)
    {
        const Encoding encoding = meaningOf(m_plan, input.pass, input.output).encoding;
        const QString source = sourceText(m_plan, input);
        if (description.encoding == Encoding::Linear && encoding == Encoding::Display) {
            add(pass, input.port,
                u"wants linear light, but %1 is display-encoded; connect the frame before it is "
                "tone-mapped, or decode it in a ShaderRenderPass"_s.arg(source));
        } else if (description.encoding == Encoding::Display && encoding == Encoding::Linear) {
            add(pass, input.port,
                u"works on display-encoded colours, but %1 is linear light; tone-map and encode it before, "
                "in a ShaderRenderPass"_s.arg(source));
        } else if (description.encoding == Encoding::Data &&
                   (encoding == Encoding::Display || encoding == Encoding::Linear ||
                    encoding == Encoding::AsMaterials)) {
            add(pass, input.port,
                u"needs %1, but %2 holds colours"_s.arg(
                    description.wantsOpaqueDepth                                             ? u"a depth"_s
                    : description.space != Space::Unspecified || !description.spaces.empty() ? u"vectors"_s
                                                                                             : u"data"_s,
                    source));
        }
    }

    void reviewSpace(const PlannedPass& pass, const PlannedInput& input, const InputDescription& description)
    {
        const OutputDescription* output = describedOutput(passAt(m_plan, input.pass), input.output);
        Space wanted = description.space;
        for (const OptionDescription& option : pass.description->options) {
            const qsizetype choice = option.choices.indexOf(pass.options.value(option.name).toString());
            if (option.name == description.spaceOption && choice >= 0) {
                wanted = description.spaces[static_cast<size_t>(choice)];
            }
        }
        if (!output || output->space == Space::Unspecified || wanted == Space::Unspecified ||
            output->space == wanted || !usesCameraOfGraph(pass, cameraPort)) {
            return;
        }
        const QString remedy = description.spaceOption.isEmpty()
                                   ? u"connect a pass that writes them in %1 space"_s.arg(nameOf(wanted))
                                   : u"change the option \"%1\""_s.arg(description.spaceOption);
        add(pass, input.port,
            u"wants vectors in %1 space, but %2 holds them in %3 space; %4"_s.arg(
                nameOf(wanted), sourceText(m_plan, input), nameOf(output->space), remedy));
    }

    void reviewDepthPlanes(const PlannedPass& pass, const PlannedInput& input,
                           const InputDescription& description)
    {
        const DepthPlanes& assumed = description.assumedPlanes;
        if (assumed.farPlane == 0.0 || !usesCameraOfGraph(passAt(m_plan, input.pass), projectionPort)) {
            return;
        }
        const std::optional<CameraDescription>& camera = m_plan.graph.camera;
        if (camera && camera->nearPlane == static_cast<float>(assumed.nearPlane) &&
            camera->farPlane == static_cast<float>(assumed.farPlane)) {
            return;
        }
        // A camera in orbit has planes of 0 where they are fitted.
        const QString actual =
            camera && camera->nearPlane > 0.0F && camera->farPlane > 0.0F
                ? u"the camera has %1 and %2"_s.arg(camera->nearPlane).arg(camera->farPlane)
                : u"the fitted camera has others"_s;
        add(pass, input.port,
            u"the pass assumes clipping planes at %1 and %2, but %3, so that distances are wrong; give the "
            "camera \"near\": %1 and \"far\": %2"_s.arg(assumed.nearPlane)
                .arg(assumed.farPlane)
                .arg(actual));
    }

    /// Whether an image is certainly drawn without jitter: somewhere upstream, a pass takes the graph's own
    /// projection, and none takes another one.
    struct Projections
    {
        bool ofGraph = false;
        bool other = false;
    };
    void findProjections(int index, std::vector<bool>& seen, Projections& found) const
    {
        if (seen[static_cast<size_t>(index)]) {
            return;
        }
        seen[static_cast<size_t>(index)] = true;
        const PlannedPass& pass = passAt(m_plan, index);
        for (const PlannedInput& input : pass.inputs) {
            if (PortName::parse(input.port).name == u"ProjectionMatrix"_s) {
                const bool ofGraph =
                    input.source == InputSource::FrameValue && !pass.description->hostDeclaresPorts;
                found.ofGraph = found.ofGraph || ofGraph;
                found.other = found.other || !ofGraph;
            }
            if (input.source == InputSource::Connection) {
                findProjections(input.pass, seen, found);
            }
        }
    }
    void reviewJitter(const PlannedPass& pass, const PlannedInput& input, const InputDescription& description)
    {
        if (!description.wantsJitter) {
            return;
        }
        std::vector<bool> seen(m_plan.passes.size());
        Projections found;
        findProjections(input.pass, seen, found);
        if (found.ofGraph && !found.other) {
            add(pass, input.port,
                u"%1 is drawn without jitter, so that averaging its frames changes nothing; connect the "
                "ProjectionMatrix of the passes that draw it to that of a TemporalAAJitterPass"_s.arg(
                    sourceText(m_plan, input)));
        }
    }

    /// Clipping planes that are set in the wrong order, as distances or in a projection matrix.
    void reviewPlanes(const PlannedPass& pass)
    {
        const PlannedInput* nearInput = findInput(pass, u"Qel_float_NearPlane"_s);
        const PlannedInput* farInput = findInput(pass, u"Qel_float_FarPlane"_s);
        if (nearInput && farInput && nearInput->source == InputSource::Constant &&
            farInput->source == InputSource::Constant && nearInput->constant.isValid() &&
            farInput->constant.isValid()) {
            addSwappedPlanes(pass, nearInput->port, nearInput->constant.toDouble(),
                             farInput->constant.toDouble());
        }
        const PlannedInput* projection = findInput(pass, projectionPort);
        if (projection && projection->source == InputSource::Constant && projection->constant.isValid()) {
            const auto matrix = projection->constant.value<QMatrix4x4>();
            // Of a perspective projection with GL's depth range.
            if (matrix(3, 2) == -1.0F && matrix(3, 3) == 0.0F) {
                addSwappedPlanes(pass, projection->port, double{matrix(2, 3)} / (double{matrix(2, 2)} - 1.0),
                                 double{matrix(2, 3)} / (double{matrix(2, 2)} + 1.0));
            }
        }
    }
    void addSwappedPlanes(const PlannedPass& pass, const QString& port, double nearPlane, double farPlane)
    {
        if (nearPlane > farPlane && farPlane > 0.0) {
            add(pass, port,
                u"the near plane at %1 is behind the far plane at %2; swap them"_s.arg(nearPlane).arg(
                    farPlane));
        }
    }

    const GraphPlan& m_plan;
    QStringList m_lines;
};

} // namespace

TextureMeaning meaningOf(const GraphPlan& plan, int passIndex, int output)
{
    const PlannedPass& pass = passAt(plan, passIndex);
    const OutputDescription* description = describedOutput(pass, output);
    if (!description) {
        return {};
    }
    TextureMeaning meaning{description->encoding, description->alpha};
    if (meaning.encoding == Encoding::AsInput) {
        meaning.encoding = meaningOfInput(plan, pass, description->like).encoding;
    } else if (meaning.encoding == Encoding::AsFile) {
        meaning.encoding = meaningOfFiles(pass).encoding;
    }
    if (meaning.alpha == AlphaMeaning::AsInput) {
        meaning.alpha = meaningOfInput(plan, pass, description->like).alpha;
    } else if (meaning.alpha == AlphaMeaning::AsFile) {
        meaning.alpha = meaningOfFiles(pass).alpha;
    }
    return meaning;
}

QStringList reviewGraph(const GraphPlan& plan)
{
    return Reviewer(plan).review();
}

QStringList tagsOf(const InputDescription& input)
{
    QStringList tags;
    if (input.encoding == Encoding::Linear) {
        tags << u"wants linear light"_s;
    } else if (input.encoding == Encoding::Display) {
        tags << u"works on display-encoded colours"_s;
    }
    if (input.wantsOpaqueDepth) {
        tags << u"wants the depth of opaque surfaces"_s;
    }
    if (input.wantsAntiAliased) {
        tags << u"wants an anti-aliased image"_s;
    }
    if (input.wantsJitter) {
        tags << u"wants jitter"_s;
    }
    if (input.space != Space::Unspecified) {
        tags << u"wants vectors in %1 space"_s.arg(nameOf(input.space));
    } else if (!input.spaceOption.isEmpty()) {
        tags << u"wants vectors in the space of the option \"%1\""_s.arg(input.spaceOption);
    }
    return tags;
}

QString nameOf(Encoding encoding)
{
    switch (encoding) {
    case Encoding::Linear:
        return u"linear light"_s;
    case Encoding::Display:
        return u"display-encoded"_s;
    case Encoding::AsMaterials:
        return u"as the materials"_s;
    case Encoding::Data:
        return u"data"_s;
    case Encoding::AsInput:
        return u"as the input"_s;
    case Encoding::AsFile:
        return u"as the file"_s;
    case Encoding::Unspecified:
        break;
    }
    return {};
}

QString nameOf(AlphaMeaning alpha)
{
    switch (alpha) {
    case AlphaMeaning::Opaque:
        return u"opaque"_s;
    case AlphaMeaning::Straight:
        return u"straight"_s;
    case AlphaMeaning::Premultiplied:
        return u"premultiplied"_s;
    case AlphaMeaning::Data:
        return u"data"_s;
    case AlphaMeaning::AsInput:
        return u"as the input"_s;
    case AlphaMeaning::AsFile:
        return u"as the file"_s;
    case AlphaMeaning::Unspecified:
        break;
    }
    return {};
}

QString nameOf(Space space)
{
    switch (space) {
    case Space::World:
        return u"world"_s;
    case Space::Eye:
        return u"eye"_s;
    case Space::Unspecified:
        break;
    }
    return {};
}

} // namespace Morvane::Qel
