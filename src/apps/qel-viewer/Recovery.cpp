#include "Recovery.h"

#include <QFile>
#include <QFileInfo>

#include <utility>

#include <Qel/graph/GraphFile.h>
#include <Qel/graph/PassRegistry.h>

#include "Document.h"

using namespace Qt::StringLiterals;

namespace Morvane::Qel::Viewer {

QString Recovery::fileFor(const QString& graph)
{
    const QFileInfo info(graph);
    return u"%1/.%2.unsaved"_s.arg(info.absolutePath(), info.fileName());
}

void Recovery::update(const Document& document)
{
    if (!document.isModified()) {
        discard();
        return;
    }
    const QString file = fileFor(document.graph().file);
    if (file != m_file) {
        discard();
    }
    QString error;
    if (saveGraph(document.graph(), file, PassRegistry::builtin(), &error)) {
        m_file = file;
    }
}

bool Recovery::isOffered(const QString& graph) const
{
    return fileFor(graph) != m_file && QFile::exists(fileFor(graph));
}

void Recovery::discard()
{
    if (!m_file.isEmpty()) {
        QFile::remove(std::exchange(m_file, {}));
    }
}

} // namespace Morvane::Qel::Viewer
