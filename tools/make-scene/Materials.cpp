#include "Materials.h"

namespace Morvane::Qel {

namespace {

/// Colours and exponents as MTL writes them; empty keywords are left out.
struct Material
{
    const char* name;
    const char* kd;
    const char* ks;
    int ns;
    const char* mapKd = "";
    const char* mapKs = "";
    const char* d = "";
};

constexpr Material ArcadeMaterials[] = {
    {"floor_tiles", "1 1 1", "1 1 1", 90, "floor.png", "floor-gloss.png"},
    {"plaster", "0.93 0.9 0.84", "0.02 0.02 0.02", 8, "plaster.png"},
    {"stone", "0.9 0.8 0.64", "0.04 0.04 0.04", 12, "stone.png"},
    {"stone_light", "1 0.95 0.84", "0.06 0.06 0.06", 16, "stone.png"},
    {"stone_dark", "0.5 0.47 0.45", "0.08 0.08 0.08", 24, "stone.png"},
    {"marble", "0.72 0.78 0.72", "0.3 0.3 0.3", 80, "stone.png"},
    {"planks", "0.75 0.7 0.62", "0.03 0.03 0.03", 10, "wood.png"},
    {"timber", "0.55 0.47 0.4", "0.05 0.05 0.05", 14, "wood.png"},
    {"oak", "0.95 0.85 0.75", "0.2 0.2 0.2", 50, "wood.png"},
    {"curtain", "0.1 0.42 0.5", "0.08 0.08 0.08", 20, "", "", "0.5"},
    {"sheer", "0.55 0.3 0.06", "0.05 0.05 0.05", 20, "", "", "0.5"},
    {"brass", "0.62 0.45 0.16", "0.75 0.6 0.3", 120},
    {"terracotta", "0.85 0.45 0.3", "0.05 0.05 0.05", 10, "plaster.png"},
    {"soil", "0.14 0.1 0.07", "0 0 0", 1},
    {"frond", "1 1 1", "0.08 0.08 0.08", 20, "frond.png"},
    {"leaf", "0.16 0.42 0.08", "0.08 0.08 0.08", 20, "", "", "0.6"},
    {"matt_red", "0.62 0.09 0.07", "0 0 0", 1},
    {"gold", "0.6 0.41 0.1", "0.95 0.75 0.35", 400},
    {"gloss_white", "0.85 0.85 0.85", "0.5 0.5 0.5", 200},
};

constexpr Material GlasswareMaterials[] = {
    {"glass", "1 1 1", "0.4 0.4 0.4", 40, "glass.png", "", "0.35"},
};

void addLine(QByteArray& text, const char* keyword, const QByteArray& value)
{
    if (!value.isEmpty()) {
        text += keyword + QByteArray(" ") + value + '\n';
    }
}

template<std::size_t Count>
QByteArray asText(const Material (&materials)[Count])
{
    QByteArray text;
    for (const Material& material : materials) {
        addLine(text, "newmtl", material.name);
        addLine(text, "Kd", material.kd);
        addLine(text, "Ks", material.ks);
        addLine(text, "Ns", QByteArray::number(material.ns));
        addLine(text, "d", material.d);
        addLine(text, "map_Kd", material.mapKd);
        addLine(text, "map_Ks", material.mapKs);
    }
    return text;
}

} // namespace

QByteArray arcadeMaterials()
{
    return asText(ArcadeMaterials);
}

QByteArray glasswareMaterials()
{
    return asText(GlasswareMaterials);
}

} // namespace Morvane::Qel
