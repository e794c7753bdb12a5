// Helpers shared by the fuzz targets: a per-process scratch directory, file
// writes of raw inputs, exact-size heap copies (so an overrun past the end or
// the terminator is seen by the address sanitizer) and a quiet standard output.
#ifndef TQL_FUZZ_SUPPORT_H
#define TQL_FUZZ_SUPPORT_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace tqlfuzz {

// A fresh directory of this process (on /dev/shm when there is one), made
// on first use and removed at exit.
const std::string& ScratchDir();
// Fills the scratch directory with a copy of the build's demo directory
// (without the simulator's saved state) and makes it the working directory.
// The fuzzer's command line is rewritten first (from LLVMFuzzerInitialize,
// before libFuzzer reads it), so corpus and artifact paths given relative to
// where it was started still mean the same places: relative paths become
// absolute, and crash files go to the starting directory unless
// -artifact_prefix says otherwise.
void EnterDemoCopy(int* argc, char*** argv);
// Replaces the file with exactly these bytes.
void WriteBytes(const std::string& path, const uint8_t* data, size_t size);
std::vector<uint8_t> ReadBytes(const std::string& path);
// The bytes followed by a NUL, in a heap block of exactly size + 1 bytes.
std::unique_ptr<char[]> Terminated(const uint8_t* data, size_t size);
// The input cut at '\n', each piece (without it) as a Terminated copy.
std::vector<std::unique_ptr<char[]>> Lines(const uint8_t* data, size_t size);
// Points file descriptor 1 at /dev/null: the library reports on standard output.
void SilenceStdout();

}  // namespace tqlfuzz

#endif  // TQL_FUZZ_SUPPORT_H
