#pragma once

#include <QStringList>

#include <Qel/core/PassDescription.h>
#include <Qel/graph/Export.h>
#include <Qel/graph/GraphPlan.h>

namespace Morvane::Qel {

/// What a texture stands for, with everything that follows from inputs and files resolved: never AsInput or
/// AsFile.
struct TextureMeaning
{
    Encoding encoding = Encoding::Unspecified;
    AlphaMeaning alpha = AlphaMeaning::Unspecified;
};

/// Returns what the texture of an output stands for. `pass` is an index into GraphPlan::passes, `output` one
/// into the pass's outputs.
QEL_GRAPH_EXPORT TextureMeaning meaningOf(const GraphPlan& plan, int pass, int output);

/// Returns a line for everything in a graph that is valid but certainly not meant, each with its remedy, as
/// "PASS.PORT: ...": geometry inputs without geometry, constants outside of their documented range, linear
/// light where display-encoded colours are due or the other way round, colours where a pass needs depths or
/// normals, normals in another space than the pass wants, depth from clipping planes that the pass does not
/// assume, clipping planes in the wrong order, and temporal anti-aliasing without jitter. Culled passes and
/// passes whose description says nothing give no lines.
QEL_GRAPH_EXPORT QStringList reviewGraph(const GraphPlan& plan);

/// What an input wants, in words: "wants linear light", "works on display-encoded colours", "wants the depth
/// of opaque surfaces", "wants an anti-aliased image", "wants jitter", "wants vectors in eye space".
QEL_GRAPH_EXPORT QStringList tagsOf(const InputDescription& input);

/// Names for users: "linear light", "display-encoded", "as the materials", "data"; empty for Unspecified.
QEL_GRAPH_EXPORT QString nameOf(Encoding encoding);
/// Names for users: "opaque", "straight", "premultiplied", "data"; empty for Unspecified.
QEL_GRAPH_EXPORT QString nameOf(AlphaMeaning alpha);

/// Names for users: "world", "eye"; empty for Unspecified.
QEL_GRAPH_EXPORT QString nameOf(Space space);

} // namespace Morvane::Qel
