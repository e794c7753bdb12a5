#include "fuzz_support.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>

namespace fs = std::filesystem;

namespace tqlfuzz {
namespace {

void RemoveScratch() {
    std::error_code ec;
    fs::current_path(fs::temp_directory_path(), ec);
    fs::remove_all(ScratchDir(), ec);
}

// Relative corpus, dictionary and artifact paths resolved against the
// starting directory; crash files go there unless an artifact prefix is given.
void KeepPathsAbsolute(int* argc, char*** argv) {
    static std::vector<std::string> args;
    static std::vector<char*> pointers;
    bool has_prefix = false;
    for (int i = 0; i < *argc; ++i) {
        std::string arg = (*argv)[i];
        if (i > 0 && !arg.empty() && arg[0] != '-') arg = fs::absolute(arg).string();
        for (const char* flag : {"-artifact_prefix=", "-exact_artifact_path=", "-dict="}) {
            const size_t length = std::strlen(flag);
            if (arg.compare(0, length, flag) != 0 || arg.size() == length) continue;
            arg = flag + fs::absolute(arg.substr(length)).string();  // keeps a trailing '/'
            has_prefix = has_prefix || flag[1] == 'a';
        }
        args.push_back(arg);
    }
    if (!has_prefix) args.push_back("-artifact_prefix=" + fs::current_path().string() + "/");
    for (std::string& a : args) pointers.push_back(&a[0]);
    pointers.push_back(nullptr);
    *argc = static_cast<int>(args.size());
    *argv = pointers.data();
}

}  // namespace

const std::string& ScratchDir() {
    static const std::string path = [] {
        // In memory where there is a tmpfs: every run rewrites its files, and
        // a disk file system may flush a truncated file on each close.
        std::error_code ec;
        const fs::path base = fs::is_directory("/dev/shm", ec) && access("/dev/shm", W_OK) == 0
                                  ? fs::path("/dev/shm")
                                  : fs::temp_directory_path();
        std::string p = (base / "tql-fuzz-XXXXXX").string();
        if (mkdtemp(&p[0]) == nullptr) throw std::runtime_error("mkdtemp failed");
        return p;
    }();
    static const bool registered = std::atexit(&RemoveScratch) == 0;
    (void)registered;
    return path;
}

void EnterDemoCopy(int* argc, char*** argv) {
    KeepPathsAbsolute(argc, argv);
    const std::string& dir = ScratchDir();
    fs::copy(TQL_DEMO_DIR, dir, fs::copy_options::recursive | fs::copy_options::overwrite_existing);
    fs::remove(dir + "/sim_state.txt");
    fs::current_path(dir);
}

void WriteBytes(const std::string& path, const uint8_t* data, size_t size) {
    std::error_code ec;
    fs::remove(path, ec);  // a new file, not a truncated one (see ScratchDir)
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
}

std::vector<uint8_t> ReadBytes(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), {});
}

std::unique_ptr<char[]> Terminated(const uint8_t* data, size_t size) {
    std::unique_ptr<char[]> text(new char[size + 1]);
    if (size > 0) std::memcpy(text.get(), data, size);
    text[size] = '\0';
    return text;
}

std::vector<std::unique_ptr<char[]>> Lines(const uint8_t* data, size_t size) {
    std::vector<std::unique_ptr<char[]>> lines;
    size_t start = 0;
    for (size_t i = 0; i <= size; ++i) {
        if (i < size && data[i] != '\n') continue;
        lines.push_back(Terminated(data + start, i - start));
        start = i + 1;
    }
    return lines;
}

void SilenceStdout() {
    std::fflush(stdout);
    const int null = open("/dev/null", O_WRONLY);
    if (null >= 0) {
        dup2(null, STDOUT_FILENO);
        close(null);
    }
}

}  // namespace tqlfuzz
