// Running the toolchain from tests: commands, temporary directories, files.
#pragma once

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>

#include "Builder.h"

namespace testkit {

// Runs a shell command; its standard output, and its exit status.
inline std::string run(const std::string& cmd, int* status = nullptr) {
    std::string out;
    FILE* p = popen(cmd.c_str(), "r");
    if (!p) return out;
    char buf[4096];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, p)) > 0) out.append(buf, n);
    const int st = pclose(p);
    if (status) *status = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
    return out;
}

// A program of this build as a shell word: run under the emulator the build
// was configured with, when its programs cannot run on this machine directly.
inline std::string program(const std::string& path) {
#ifdef TAMO_RUNNER
    const std::string runner = TAMO_RUNNER;
#else
    const std::string runner;
#endif
    return (runner.empty() ? "" : "'" + runner + "' ") + "'" + path + "'";
}

inline bool have(const char* tool) {
    int st = 0;
    run(std::string("command -v ") + tool + " >/dev/null 2>&1", &st);
    return st == 0;
}

class TempDir {
public:
    TempDir() {
        char tmpl[] = "/tmp/tamoelf-test-XXXXXX";
        m_path = mkdtemp(tmpl);
    }
    ~TempDir() { run("rm -rf '" + m_path + "'"); }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    std::string path(const std::string& name) const { return m_path + "/" + name; }

private:
    std::string m_path;
};

inline Bytes readFile(const std::string& path) {
    std::ifstream f(path, std::ios::binary);
    return Bytes((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
}

inline void writeFile(const std::string& path, const Bytes& b) {
    std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char*>(b.data()), static_cast<long>(b.size()));
}

}  // namespace testkit
