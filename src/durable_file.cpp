// Durable replacement of a file: fsync of the new contents, rename, fsync of
// the directory (POSIX).
#include "durable_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>

namespace tql {

namespace {

// fsync of an open-able path (a file, or a directory opened read-only).
bool SyncPath(const std::string& path, int flags) {
    const int fd = ::open(path.c_str(), flags | O_CLOEXEC);
    if (fd < 0) return false;
    const bool ok = ::fsync(fd) == 0;
    return ::close(fd) == 0 && ok;
}

std::string DirectoryOf(const std::string& path) {
    const size_t slash = path.find_last_of('/');
    if (slash == std::string::npos) return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

}  // namespace

int SyncFile(const std::string& path) { return SyncPath(path, O_RDONLY) ? 0 : -1; }

std::string PartFileName(const std::string& path) { return path + ".part"; }

int CommitFile(const std::string& temporary, const std::string& path) {
    if (!SyncPath(temporary, O_RDONLY) || std::rename(temporary.c_str(), path.c_str()) != 0) {
        std::remove(temporary.c_str());
        return -1;
    }
    // The rename is only durable once the directory entry is on the disk.
    return SyncPath(DirectoryOf(path), O_RDONLY | O_DIRECTORY) ? 0 : -1;
}

}  // namespace tql
