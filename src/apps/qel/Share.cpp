#include "Share.h"

#include <QDir>

#include <Qel/graph/OutputFile.h>

#include "Commands.h"
#include "Completion.h"
#include "Manual.h"

using namespace Qt::StringLiterals;

namespace Morvane::Qel::App {

namespace {

void write(const QString& path, const QString& text)
{
    OutputFile file(path);
    QString error;
    if (!QDir().mkpath(QFileInfo(path).path())) {
        fail(u"%1: the folder cannot be created"_s.arg(QFileInfo(path).path()));
    }
    if (!file.openForWriting(&error)) {
        fail(error);
    }
    if (!file.writeAll(text.toUtf8())) {
        fail(u"%1: cannot be written: %2"_s.arg(path, file.errorString()));
    }
    if (!file.commit(&error)) {
        fail(error);
    }
}

} // namespace

void writeShare(const QString& folder)
{
    write(folder + u"/man/man1/qel.1"_s, manualPage());
    for (const Command& command : commands()) {
        const Arguments arguments = command.arguments();
        write(folder + u"/man/man1/qel-%1.1"_s.arg(arguments.command()), manualPage(arguments));
    }
    write(folder + u"/bash-completion/completions/qel"_s, bashCompletion());
    write(folder + u"/zsh/site-functions/_qel"_s, zshCompletion());
    write(folder + u"/fish/vendor_completions.d/qel.fish"_s, fishCompletion());
}

} // namespace Morvane::Qel::App
