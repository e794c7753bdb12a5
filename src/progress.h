// Progress of long work (an identification run, a replay, the identification
// and excitation tools, the soak) on standard error while it is a terminal:
// one line redrawn in place, "<what> <k> of <n>, <p> %, <m:ss> left", ended
// when the work ends. Nothing at all when standard error is a file or a pipe,
// so logs and every output a program reads stay as they were. The time left
// is wall-clock time, whatever clock the motion runs on.
#ifndef TQL_PROGRESS_H
#define TQL_PROGRESS_H

#include <chrono>
#include <string>

namespace tql {

class Progress {
public:
    // `steps` of `units_per_step` units each (a step: a period, a case, an
    // iteration; "<k> of <n>" is left out for a single step).
    Progress(std::string what, long steps, long units_per_step = 1);
    ~Progress();  // ends the line, if one was drawn
    // `done` units of steps * units_per_step; redrawn when the percentage
    // changes or a second has passed. Costs a comparison otherwise.
    void Update(long done);
    bool Shown() const { return terminal_; }

private:
    std::string what_;
    long steps_, units_;
    bool terminal_;
    bool drawn_ = false;
    int last_percent_ = -1;
    std::chrono::steady_clock::time_point start_, last_draw_;
};

}  // namespace tql

#endif  // TQL_PROGRESS_H
