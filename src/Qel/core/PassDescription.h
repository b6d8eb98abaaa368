#pragma once

#include <QString>
#include <QStringList>
#include <QVariant>

#include <vector>

#include <Qel/core/Export.h>

namespace Morvane::Qel {

/// One input port as a user reads about it.
struct InputDescription
{
    /// The full name, Qel_<Type>_<Name>.
    QString name;
    QString meaning;
    /// What happens when nobody sets the input.
    QString whenMissing;
    /// The initial value; invalid where there is none.
    QVariant defaultValue = {};
    /// Unit and range in words, such as "texels, 0 or more"; empty where the type says it all.
    QString range = {};
};

/// One output port as a user reads about it.
struct OutputDescription
{
    QString name;
    /// What the value holds, its format and who owns it.
    QString meaning;
};

/// What a pass takes through its constructor or its setters rather than through ports.
struct OptionDescription
{
    QString name;
    QString meaning;
    /// The type of this value is the type of the option.
    QVariant defaultValue;
    /// The names that a text option accepts; empty where any text will do.
    QStringList choices = {};
    /// Whether a text is the path of a file that must exist; graph files give it relative to themselves.
    bool isFile = false;
    /// For a list (QVariantList) of objects: their members, each with its default. An element is given to the
    /// pass as a QVariantMap with all of them.
    std::vector<OptionDescription> members = {};
};

/// The one declaration of a pass: its constructor declares the ports from it, and the program's listings,
/// the reference manual and the checks of graph files read it.
struct PassDescription
{
    /// The name of the class.
    QString type;
    /// One sentence.
    QString summary;
    std::vector<InputDescription> inputs;
    std::vector<OutputDescription> outputs;
    std::vector<OptionDescription> options = {};
    /// Whether the host adds ports of its own.
    bool hostDeclaresPorts = false;
    /// The GL extensions of the pass's full mode; without all of them it runs in its reduced mode.
    QStringList fullModeExtensions = {};
    /// What the pass does in its reduced mode.
    QString reducedMode = {};
};

/// The parts of a port name Qel_<Type>_<Name>. A name of another form has an empty type and is its own name.
struct QEL_CORE_EXPORT PortName
{
    QString type;
    QString name;

    /// Splits a full port name. Lists keep their element type in the type field:
    /// "Qel_QList_QelShadowMapManagerLight*_Lights" is of type "QList_QelShadowMapManagerLight*". The one
    /// name without the prefix, "Int_BlendMode", is an int.
    static PortName parse(const QString& fullName);
};

} // namespace Morvane::Qel
