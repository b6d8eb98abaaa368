// Writes the two look-up tables of SMAA as a C++ source file of the library.

#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include "AreaTable.h"
#include "SearchTable.h"

namespace {

void write(std::ostream& out, const char* name, const std::vector<unsigned char>& bytes)
{
    std::string text;
    for (size_t i = 0; i < bytes.size(); ++i) {
        text += i % 32 == 0 ? "\n    " : "";
        text += std::to_string(bytes[i]);
        text += ',';
    }
    out << "\nconst std::array<unsigned char, " << bytes.size() << "> " << name << " = {" << text << "\n};\n";
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s OUTPUT.cpp\n", argv[0]);
        return 2;
    }
    std::ofstream out(argv[1]);
    out << "#include <Qel/RenderPasses/support/SmaaTables.h>\n\nnamespace Morvane::Qel {\n";
    write(out, "smaaAreaTable", AreaTable::make());
    write(out, "smaaSearchTable", SearchTable::make());
    out << "\n} // namespace Morvane::Qel\n";
    out.close();
    if (!out) {
        std::fprintf(stderr, "%s: cannot write %s\n", argv[0], argv[1]);
        return 1;
    }
    return 0;
}
