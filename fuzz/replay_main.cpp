// Runs a fuzz target's entry on files, or on every file of directories, so
// that inputs a fuzzer found are replayed as regression tests by any build.
#include <dirent.h>
#include <sys/stat.h>

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

int replay(const std::string& path) {
    struct stat st;
    if (stat(path.c_str(), &st) != 0) {
        std::fprintf(stderr, "cannot read %s\n", path.c_str());
        return 1;
    }
    if (S_ISDIR(st.st_mode)) {
        int failures = 0;
        DIR* d = opendir(path.c_str());
        if (!d) return 1;
        while (dirent* e = readdir(d))
            if (e->d_name[0] != '.') failures += replay(path + "/" + e->d_name);
        closedir(d);
        return failures;
    }
    FILE* f = std::fopen(path.c_str(), "rb");
    if (!f) return 1;
    std::vector<uint8_t> bytes(static_cast<size_t>(st.st_size));
    const size_t got = std::fread(bytes.data(), 1, bytes.size(), f);
    std::fclose(f);
    LLVMFuzzerTestOneInput(bytes.data(), got);
    std::printf("replayed %s\n", path.c_str());
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    int failures = 0;
    for (int i = 1; i < argc; ++i) failures += replay(argv[i]);
    return failures ? 1 : 0;
}
