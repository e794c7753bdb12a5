// Files that survive a power cut: whatever the system writes is written beside
// its name first, flushed to the disk, renamed into place and the directory
// flushed after, so the name holds either the old file or the whole new one.
#ifndef TQL_DURABLE_FILE_H
#define TQL_DURABLE_FILE_H

#include <string>

namespace tql {

// Flushes what was written to `path` to the disk (a file appended to in
// place). 0, or -1 when it cannot be opened or flushed.
int SyncFile(const std::string& path);
// Name of the file a new version of `path` is written to before CommitFile.
std::string PartFileName(const std::string& path);
// Flushes `temporary` to the disk, renames it over `path` and flushes the
// directory that holds `path`. 0, or -1 (with `temporary` removed and `path`
// as it was) when any step fails.
int CommitFile(const std::string& temporary, const std::string& path);

}  // namespace tql

#endif  // TQL_DURABLE_FILE_H
