#include "Commands.h"

#include <QJsonDocument>

#include <Qel/graph/GraphSchema.h>
#include <Qel/graph/PassRegistry.h>

#include "Arguments.h"
#include "Console.h"

using namespace Qt::StringLiterals;

namespace Morvane::Qel::App {

void declareSchema(Arguments& options)
{
    options.describe(u"Prints the JSON Schema of graph files, with which editors complete and check them."_s);
}

ExitCode schema(const Arguments& /*options*/)
{
    print(QString::fromUtf8(QJsonDocument(graphSchema(PassRegistry::builtin())).toJson()));
    return ExitCode::Done;
}

} // namespace Morvane::Qel::App
