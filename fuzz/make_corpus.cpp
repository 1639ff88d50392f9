// Writes the seed corpora of the fuzz targets, from the project's own sample
// builders: objects of both byte orders (every record type, COFF debug
// sections, DWARF sections, standard 40-byte section headers, malformed
// tables) and archives of both magics. Each seed ends with the byte the
// targets take as their walk seed.
//
// Usage: make_corpus <directory>   (writes <directory>/{image,fd,archive}/)
#include <sys/stat.h>

#include <cstdio>
#include <string>

#include "Samples.h"

using namespace testkit;

namespace {

void save(const std::string& dir, const std::string& name, Bytes b, uint8_t seed) {
    b.push_back(seed);
    FILE* f = std::fopen((dir + "/" + name).c_str(), "wb");
    if (!f) return;
    std::fwrite(b.data(), 1, b.size(), f);
    std::fclose(f);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s <directory>\n", argv[0]);
        return 2;
    }
    const std::string root = argv[1];
    for (const char* sub : {"", "/image", "/fd", "/archive"}) mkdir((root + sub).c_str(), 0755);

    int k = 0;
    for (Order o : {Order::Little, Order::Big}) {
        const std::string tag = name(o);
        std::vector<std::pair<std::string, Bytes>> objects;
        Sample s(o);
        objects.emplace_back("sample", s.build());
        s.builder.shentsize = 40;
        objects.emplace_back("sample40", s.build());
        objects.emplace_back("coff", CoffObject(o).b.build());
        objects.emplace_back("dwarf", dwarfObject(o));
        Sample t(o);
        t.builder.shnumOverride = 200;
        objects.emplace_back("shnum_too_big", t.build());
        for (auto& [what, bytes] : objects)
            for (uint8_t seed : {0, 7, 0x85}) {
                save(root + "/image", tag + "-" + what + "-" + std::to_string(seed), bytes, seed);
                save(root + "/fd", tag + "-" + what + "-" + std::to_string(seed), bytes, seed);
            }
        SampleArchive withSymbols(o, true);
        SampleArchive without(o, false);
        save(root + "/archive", tag + "-archive", withSymbols.ar.build(), 0);
        save(root + "/archive", tag + "-archive-ends", withSymbols.ar.build(), 0x18);
        save(root + "/archive", tag + "-archive-nosyms", without.ar.build(), 0x10);
        ++k;
    }
    std::printf("corpora written to %s (%d byte orders)\n", root.c_str(), k);
    return 0;
}
