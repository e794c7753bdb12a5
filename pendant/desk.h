// The pendant's side of the arm: one worker thread runs whatever moves the
// arm (a held jog, a program, hand guiding, a replay, a move home), one at a
// time, through the library's call surface; requests that only read, renew a
// held jog or stop come from the server's thread and never wait on a motion.
//
// Every request is a JSON object {"op": ..., "id": ...}; its reply (same id)
// comes through the callback given with it, from whichever thread finished
// it. Angles in degrees, lengths in millimetres, as the program files hold
// them.
#ifndef TQL_PENDANT_DESK_H
#define TQL_PENDANT_DESK_H

#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>

namespace pendant {

using Json = nlohmann::json;
using Reply = std::function<void(Json)>;

// The library's dialogue lines (its standard output), kept for the page while
// passed on unchanged to the pendant's own standard output.
class OutputTap {
public:
    // Redirects file descriptor 1 through a pipe read by a thread of its own.
    // false (and standard output left alone) when the pipe cannot be made.
    bool Start();
    void Stop();
    // The last `count` whole lines, oldest first.
    std::vector<std::string> Last(size_t count) const;

private:
    void Pump();
    int read_fd_ = -1;
    int write_fd_ = -1;
    int original_fd_ = -1;
    std::thread thread_;
    mutable std::mutex mutex_;
    std::deque<std::string> lines_;
    std::string partial_;
};

class Desk {
public:
    // file: the motion program the pendant teaches into and runs;
    // trajectory: the trajectory file recorded by hand guiding and replayed.
    Desk(std::string program, std::string trajectory, OutputTap* tap);
    ~Desk();
    // Starts the worker; `job` (a mode word, or empty) runs first, with the
    // terminal dialogue on standard input and output, as the tql host would.
    // The arm is booted (again after a job, when `stay`) before the pendant's
    // own requests; after a job without `stay` the worker ends.
    void Start(const std::string& job, bool stay);
    void Stop();
    // The job's result once it has ended (0 while none ran).
    int JobResult() const { return job_result_.load(); }
    bool JobDone() const { return job_done_.load(); }
    // True while the worker runs something (the job, a motion, hand guiding).
    bool Busy() const;

    // Static facts for a new page: joint count, limits, jog speeds.
    Json Hello() const;
    // A snapshot for the pages (about 20 a second).
    Json State() const;
    // One request; `reply` gets the answer once.
    void Handle(const Json& request, Reply reply);
    // The controlling page went away: a held jog is let go at once.
    void ControllerGone();

private:
    using Task = std::function<void()>;
    void Work();
    // Runs `task` on the worker when it is idle; else replies busy.
    void Submit(const std::string& activity, const Json& request, Reply reply, std::function<Json()> task);
    Json Teach(const std::string& move);
    // Decodes and converts `file` as a run would, without moving; the
    // messages it printed, each at its program line (0: the whole file).
    Json Check(const std::string& file);
    Json SaveProgram(const std::string& text);
    Json RunProgram(const Json& request);
    Json Free();
    Json RecordStop();
    void EndFree();
    static bool StepWord(std::string* word);

    std::string program_, trajectory_;
    OutputTap* tap_;
    std::thread worker_;
    mutable std::mutex mutex_;
    std::condition_variable wake_;
    Task pending_;
    std::string activity_ = "starting";  // under mutex_ (read for Busy by the owner)
    std::string job_;
    bool stay_ = false;
    bool quit_ = false;
    std::atomic<int> job_result_{0};
    std::atomic<bool> job_done_{false};
    std::atomic<bool> freed_{false};
    std::atomic<bool> recording_{false};
    std::vector<double> samples_;  // the hand-guided recording, rad
    double auxiliary_[6] = {};       // a MOVC's first taught point, rad
    bool have_auxiliary_ = false;
};

}  // namespace pendant

#endif  // TQL_PENDANT_DESK_H
