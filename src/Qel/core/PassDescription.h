#pragma once

#include <QString>
#include <QStringList>
#include <QVariant>

#include <limits>
#include <vector>

#include <Qel/core/Export.h>

namespace Morvane::Qel {

/// What the values in a texture stand for. Of an input: what the method needs.
enum class Encoding
{
    /// Of an output: not known, as with a user's shaders. Of an input: anything.
    Unspecified,
    /// Colours proportional to light.
    Linear,
    /// Colours ready for a display, as in PNG files.
    Display,
    /// Colours in the encoding of the model's material colours and maps, which the pass uses as they are.
    AsMaterials,
    /// No colours: depths, normals, positions, weights, identifiers.
    Data,
    /// Of an output: that of an input, see OutputDescription::like.
    AsInput,
    /// Of an output: that of the image file: Linear for EXR and HDR files, otherwise Display.
    AsFile
};

/// What the alpha of a texture stands for.
enum class AlphaMeaning
{
    /// Not known, or no alpha.
    Unspecified,
    /// 1 everywhere.
    Opaque,
    /// Coverage; the colours are not multiplied by it.
    Straight,
    /// Coverage; the colours are multiplied by it.
    Premultiplied,
    /// No coverage, such as a shininess or an edge weight.
    Data,
    /// That of an input, see OutputDescription::like.
    AsInput,
    /// That of the image file: Premultiplied for EXR and HDR files, otherwise Straight.
    AsFile
};

/// The coordinate system of vectors in a texture.
enum class Space
{
    Unspecified,
    World,
    Eye
};

/// The numbers that are meaningful for an input, for each component of a vector.
struct ValueLimits
{
    double minimum = -std::numeric_limits<double>::infinity();
    double maximum = std::numeric_limits<double>::infinity();
    /// Whether the minimum itself is excluded.
    bool isAboveMinimum = false;

    bool contains(double value) const
    {
        return value <= maximum && (isAboveMinimum ? value > minimum : value >= minimum);
    }
};

/// Distances of the clipping planes; 0 for none.
struct DepthPlanes
{
    double nearPlane = 0.0;
    double farPlane = 0.0;
};

/// Declares and documents an input port.
struct InputDescription
{
    /// The full name, Qel_<Type>_<Name>.
    QString name;
    QString meaning;
    /// What the pass does if the input is not set.
    QString whenMissing;
    /// The initial value; invalid if there is none.
    QVariant defaultValue = {};
    /// Range in words, such as "0 or more"; empty if the type is enough. `unit` has the unit.
    QString range = {};
    /// Unit in words, such as "texels"; empty if there is none.
    QString unit = {};
    ValueLimits limits = {};
    /// Whether the pass writes into the texture that it gets here. A graph runs all other passes that read
    /// the texture before it.
    bool isModified = false;
    /// Whether a texture here must have a depth format.
    bool isDepth = false;
    /// What the texture must hold.
    Encoding encoding = Encoding::Unspecified;
    /// The space that vectors in the texture must have.
    Space space = Space::Unspecified;
    /// The option whose choice sets `space`, and the spaces in the order of its choices.
    QString spaceOption = {};
    std::vector<Space> spaces = {};
    /// Whether the input needs the depth of the opaque surfaces that the frame shows.
    bool wantsOpaqueDepth = false;
    /// Whether aliased edges in this image disturb the method.
    bool wantsAntiAliased = false;
    /// Whether the method needs an image that is drawn with a jittered projection.
    bool wantsJitter = false;
    /// The clipping planes that the method assumes for this depth.
    DepthPlanes assumedPlanes = {};
    /// Why a value that depends on the projection must come from a perspective one; empty if an orthographic
    /// one will do. A graph with an orthographic camera is then in error.
    QString perspectiveReason = {};
    /// The full name of an input that, when set, lifts that need; empty for none.
    QString orthographicInput = {};

    /// Unit and range, such as "texels, 0 or more".
    QString unitAndRange() const { return unit + (unit.isEmpty() || range.isEmpty() ? "" : ", ") + range; }
};

/// Declares and documents an output port.
struct OutputDescription
{
    QString name;
    /// Content, format and owner of the value.
    QString meaning;
    Encoding encoding = Encoding::Unspecified;
    AlphaMeaning alpha = AlphaMeaning::Unspecified;
    /// Full names of the inputs whose encoding and alpha the output has where these are AsInput; the first
    /// connected one counts.
    QStringList like = {};
    /// The space of vectors in the texture.
    Space space = Space::Unspecified;
    /// Whether the matrix is a projection with jitter, which changes from frame to frame.
    bool isJittered = false;
};

/// A parameter of a pass that is set through its constructor or a setter instead of a port.
struct OptionDescription
{
    QString name;
    QString meaning;
    /// The default, whose type is the option's type.
    QVariant defaultValue;
    /// The texts that the option accepts; empty if it accepts any.
    QStringList choices = {};
    /// Whether the text is the path of an existing file. Graph files give paths relative to themselves.
    bool isFile = false;
    /// For a list (QVariantList) of objects, the members of an element with their defaults. The pass gets
    /// each element as a QVariantMap with all members.
    std::vector<OptionDescription> members = {};
    /// Whether the option is an object (QVariantMap) with one of `choices` for each of the pass's texture
    /// outputs, by their short or full names. The pass gets full names.
    bool isPerOutput = false;
};

/// Declares and documents a pass. The pass's constructor declares its ports from it; the command line, the
/// reference manual and the checks of graph files read it.
struct PassDescription
{
    /// The class name.
    QString type;
    /// One sentence.
    QString summary;
    std::vector<InputDescription> inputs;
    std::vector<OutputDescription> outputs;
    std::vector<OptionDescription> options = {};
    /// Whether the host adds ports to those listed here.
    bool hostDeclaresPorts = false;
    /// The GL extensions that the full mode requires; without all of them the pass runs in its reduced mode.
    QStringList fullModeExtensions = {};
    /// What the pass does in reduced mode.
    QString reducedMode = {};
    /// The number of earlier frames on which the outputs of a frame depend: 0 for a pass that keeps nothing
    /// from frame to frame, except to save work; unlimitedHistory if every earlier frame counts.
    int historyFrames = 0;
    /// The full name of a bool input that makes the pass forget all earlier frames when it is true or not
    /// set; empty if there is none.
    QString restartInput = {};

    static constexpr int unlimitedHistory = -1;
};

/// The parts of a port name Qel_<Type>_<Name>. A name of any other form is kept whole, with an empty type.
struct QEL_CORE_EXPORT PortName
{
    QString type;
    QString name;

    /// Splits a port name. The name may contain underscores. The type of a list includes its element type:
    /// "Qel_QList_QelShadowMapManagerLight*_Lights" has the type "QList_QelShadowMapManagerLight*". The only
    /// name without the prefix, "Int_BlendMode", is an int.
    static PortName parse(const QString& fullName);
};

} // namespace Morvane::Qel
