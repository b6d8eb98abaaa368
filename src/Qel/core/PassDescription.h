#pragma once

#include <QString>
#include <QStringList>
#include <QVariant>

#include <vector>

#include <Qel/core/Export.h>

namespace Morvane::Qel {

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
    /// Unit and range in words, such as "texels, 0 or more"; empty if the type is enough.
    QString range = {};
    /// Whether the pass writes into the texture that it gets here. A graph runs all other passes that read
    /// the texture before it.
    bool isModified = false;
    /// Whether a texture here must have a depth format.
    bool isDepth = false;
};

/// Declares and documents an output port.
struct OutputDescription
{
    QString name;
    /// Content, format and owner of the value.
    QString meaning;
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
