#include "Commands.h"

#include <QJsonDocument>

#include <Qel/graph/GraphSchema.h>
#include <Qel/graph/PassRegistry.h>

#include "Arguments.h"
#include "Console.h"

using namespace Qt::StringLiterals;

namespace Morvane::Qel::App {

ExitCode schema(const QStringList& arguments)
{
    Arguments options(u"schema"_s,
                      u"Prints the JSON Schema of graph files, with which editors complete and check "
                      "them."_s);
    if (options.parse(arguments)) {
        print(QString::fromUtf8(QJsonDocument(graphSchema(PassRegistry::builtin())).toJson()));
    }
    return ExitCode::Done;
}

} // namespace Morvane::Qel::App
