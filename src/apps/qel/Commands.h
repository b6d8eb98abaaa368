#pragma once

#include <vector>

#include "Arguments.h"

/// The commands, one per source file. One function declares a command's arguments, another runs it and throws
/// Failure on errors.
namespace Morvane::Qel::App {

void declareRender(Arguments& options);
ExitCode render(const Arguments& options);
void declarePasses(Arguments& options);
ExitCode passes(const Arguments& options);
void declareGraph(Arguments& options);
ExitCode graph(const Arguments& options);
void declareModel(Arguments& options);
ExitCode model(const Arguments& options);
void declareCompare(Arguments& options);
ExitCode compare(const Arguments& options);
void declareInfo(Arguments& options);
ExitCode info(const Arguments& options);
void declareSchema(Arguments& options);
ExitCode schema(const Arguments& options);

struct Command
{
    const char* name;
    const char* summary;
    void (*declare)(Arguments& options);
    ExitCode (*run)(const Arguments& options);

    /// The table of the command's arguments.
    Arguments arguments() const;
};

/// All commands, in the order of `qel --help`.
const std::vector<Command>& commands();

} // namespace Morvane::Qel::App
