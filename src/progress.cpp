#include "progress.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>

namespace tql {

Progress::Progress(std::string what, long steps, long units_per_step)
    : what_(std::move(what)),
      steps_(std::max(steps, 1L)),
      units_(std::max(units_per_step, 1L)),
      terminal_(isatty(STDERR_FILENO) == 1),
      start_(std::chrono::steady_clock::now()),
      last_draw_(start_) {}

Progress::~Progress() {
    if (drawn_) std::fputc('\n', stderr);
}

void Progress::Update(long done) {
    if (!terminal_) return;
    const long total = steps_ * units_;
    done = std::clamp(done, 0L, total);
    // A step's last unit ends its line: whatever the job prints between its
    // steps (a period's heading) starts on a line of its own.
    const bool step_done = steps_ > 1 && done > 0 && done % units_ == 0;
    const int percent = static_cast<int>(100 * done / total);
    const auto now = std::chrono::steady_clock::now();
    if (!step_done && percent == last_percent_ && now - last_draw_ < std::chrono::seconds(1)) return;
    last_percent_ = percent;
    last_draw_ = now;
    char line[160];
    int at = std::snprintf(line, sizeof line, "\r\033[K%s", what_.c_str());
    const long step = done == 0 ? 1 : (done - 1) / units_ + 1;
    if (steps_ > 1 && at > 0 && at < static_cast<int>(sizeof line))
        at += std::snprintf(line + at, sizeof line - at, " %ld of %ld,", step, steps_);
    if (at > 0 && at < static_cast<int>(sizeof line))
        at += std::snprintf(line + at, sizeof line - at, " %d %%", percent);
    const double elapsed = std::chrono::duration<double>(now - start_).count();
    if (done > 0 && done < total && elapsed >= 1.0 && at > 0 && at < static_cast<int>(sizeof line)) {
        const long left = static_cast<long>(elapsed * (total - done) / done + 0.5);
        at += std::snprintf(line + at, sizeof line - at, ", %ld:%02ld left", left / 60, left % 60);
    }
    std::fputs(line, stderr);
    if (step_done) std::fputc('\n', stderr);
    std::fflush(stderr);
    drawn_ = !step_done;
}

}  // namespace tql
