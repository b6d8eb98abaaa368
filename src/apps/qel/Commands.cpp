#include "Commands.h"

namespace Morvane::Qel::App {

const std::vector<Command>& commands()
{
    static const std::vector<Command> all{
        {"render", "renders a graph and writes its image", declareRender, render},
        {"passes", "lists the passes with their ports", declarePasses, passes},
        {"graph", "checks a graph and prints its passes in execution order, or draws it", declareGraph,
         graph},
        {"model", "prints the bounds, meshes, materials and textures of a model file", declareModel, model},
        {"compare", "compares two images, or the images of two folders", declareCompare, compare},
        {"info", "prints the GL driver, its limits and extensions", declareInfo, info},
        {"schema", "prints the JSON Schema of graph files", declareSchema, schema},
    };
    return all;
}

Arguments Command::arguments() const
{
    Arguments table(QString::fromLatin1(name), QString::fromLatin1(summary));
    declare(table);
    table.addCommonOptions();
    return table;
}

} // namespace Morvane::Qel::App
