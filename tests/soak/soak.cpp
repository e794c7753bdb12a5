// Seeded safety soak of motion programs and trajectory files on the simulated
// arm.
//
// Every case boots a fresh simulated arm (virtual clock, pre-flight on) in a
// scratch copy of the demo directory and runs one random job:
//   - a motion program (file/data.txt) once in CYCLE, plain or blended, or
//     walked in STEP with random FORWARD / BACKWARD answers;
//   - a trajectory file replayed once.
// Invariants of a case: no set-point beyond an actuator's limits, no crash and
// no hang (a watchdog ends the process), a result of 0 or -1 with a known
// refusal message, and a refused stream that sent none of its set-points (a
// CYCLE run or a replay nothing at all; a STEP walk nothing of the refused step).
//
//   tql_soak [--runs N] [--seed S] [--case K] [--timeout SECONDS] [--list]
//
// Case K of seed S is the same job whatever the run count, so --case K
// repeats it alone.
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <random>
#include <streambuf>
#include <string>
#include <thread>
#include <vector>

#include "database.h"
#include "execute.h"
#include "interpolation.h"
#include "program.h"
#include "sim_control.h"
#include "test_support.h"

namespace {

namespace fs = std::filesystem;
using tqltest::Joints;
using tqltest::kDeg;

constexpr char kProgramFile[] = "file/data.txt";
constexpr char kTrajectoryFile[] = "file/soak_trajectory.txt";
// The demo arm: joint speed limits of the database (deg/s), the soft limit
// the actuators hold (+-17 rev at ratio 36, deg) and their velocity limit as a
// joint speed (1800 rpm / 36, deg/s).
constexpr double kJointSpeed[6] = {90, 90, 90, 120, 120, 120};
constexpr double kSoftLimit = 170.0;
constexpr double kActuatorSpeed = 300.0;
// The actuators' angles are converted with the full pi (rad per degree).
constexpr double kTrueDegree = 3.14159265358979323846 / 180;
// Bus time a planned move or a replay should stay under at the case's
// override, s; the slowest speeds are raised to fit.
constexpr double kMoveSeconds = 4.0;
constexpr double kReplaySeconds = 8.0;

// What refusals print: the failing check's own message.
const char* const kRefusals[] = {
    "beyond joint max soft limit", "beyond joint min soft limit", "beyond speed limit",
    "refused before motion",       "Format error",                "format error",
    "is illegal",                  "move preparation failed",     "ik error",
    "Shoulder singular",           "Wrist singularity",           "Elbow singularity",
    "Program exit!",
};

class Dice {
public:
    // 64-bit on every target: the board's long is 32 bits wide.
    Dice(std::uint64_t seed, std::int64_t index) {
        std::seed_seq seq{static_cast<unsigned>(seed), static_cast<unsigned>(seed >> 32),
                          static_cast<unsigned>(index), static_cast<unsigned>(index >> 32)};
        engine_.seed(seq);
    }
    double Uniform(double lo, double hi) { return std::uniform_real_distribution<double>(lo, hi)(engine_); }
    int Int(int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(engine_); }
    bool Chance(double p) { return Uniform(0.0, 1.0) < p; }
    double Sign() { return Chance(0.5) ? 1.0 : -1.0; }

private:
    std::mt19937_64 engine_;
};

std::string Number(double v) {
    char text[32];
    std::snprintf(text, sizeof text, "%.10g", v);
    return text;
}

std::string List(const Joints& q) {
    std::string s;
    for (double v : q) s += (s.empty() ? "" : ",") + Number(v);
    return s;
}

enum class Job { kCycle, kBlended, kStep, kReplay };
const char* const kJobNames[] = {"CYCLE", "CYCLE blended", "STEP", "replay"};
const char* JobName(Job job) { return kJobNames[static_cast<int>(job)]; }

struct Case {
    long index = 0;
    Job job = Job::kCycle;
    double override_ = 1.0;
    Joints start{};                    // where the arm powers up, degrees
    std::string text;                  // the program or the trajectory file
    std::vector<std::string> answers;  // STEP: the operator's words
    std::string note;                  // the trajectory's shape
};

// Flange pose of a joint vector in degrees (position first, mm).
std::vector<double> Pose(const Joints& q) {
    Joints rad = q;
    for (double& v : rad) v *= kDeg;
    std::vector<double> pose(7, 0.0);
    GetCurrentRobot()->ForwardKinematics(rad.data(), pose.data());
    return pose;
}

double Distance(const std::vector<double>& a, const std::vector<double>& b) {
    return std::hypot(a[0] - b[0], a[1] - b[1], a[2] - b[2]);
}

// Random program lines from where the arm stands.
class ProgramWriter {
public:
    ProgramWriter(Dice* dice, double override_, const Joints& start) : d_(*dice), ov_(override_), at_(start) {}

    std::string Write(int moves) {
        std::string text = "// soak program\n";
        for (int i = 0; i < moves; ++i) {
            const int kind = i == 0 && d_.Chance(0.9) ? 0 : d_.Int(0, 19);
            text += Move(kind < 8 ? 0 : kind < 15 ? 1 : 2);
            if (d_.Chance(0.1)) text += "TIMER T=" + std::to_string(d_.Int(0, 500)) + "\n";
            if (d_.Chance(0.05)) text += std::string("DOUT 1 ") + (d_.Chance(0.5) ? "ON" : "OFF") + "\n";
            if (d_.Chance(0.05)) text += "// note\n";
        }
        return text;
    }

private:
    // Anywhere within +-120 degrees, the wrist (joint 5) away from 0.
    Joints Reachable() {
        Joints q;
        for (double& v : q) v = d_.Uniform(-120, 120);
        q[4] = d_.Sign() * d_.Uniform(15, 120);
        return q;
    }
    // Within 25 degrees of `from`, the wrist kept away from 0.
    Joints Near(const Joints& from) {
        Joints q = from;
        for (double& v : q) v = std::clamp(v + d_.Uniform(-25, 25), -120.0, 120.0);
        if (std::fabs(q[4]) < 10) q[4] = q[4] < 0 ? -10 : 10;
        return q;
    }
    // Near the soft limit, a third of the time on it or a hair either side.
    double Edge() {
        if (d_.Chance(0.67)) return d_.Uniform(kSoftLimit - 5, kSoftLimit + 8);
        return kSoftLimit + d_.Int(-1, 1) * 1e-9;
    }
    // Now and then a target the run should refuse or find hard.
    void Spoil(Joints* q) {
        const int j = d_.Int(0, 5);
        switch (d_.Int(0, 3)) {
        case 0: (*q)[j] = d_.Sign() * Edge(); break;                 // at the soft limit
        case 1: (*q)[j] = d_.Sign() * d_.Uniform(180, 400); break;    // far beyond it
        case 2: (*q)[4] = d_.Uniform(-0.5, 0.5); break;               // wrist singular
        default: (*q)[2] = -(*q)[2]; break;                           // elbow flipped
        }
    }
    Joints Target(bool cartesian) {
        Joints q = cartesian && d_.Chance(0.8) ? Near(at_) : Reachable();
        if (d_.Chance(0.06)) Spoil(&q);
        return q;
    }
    std::string Zone() {
        const int valid[] = {0, 1, 5};
        return " z" + std::to_string(d_.Chance(0.99) ? valid[d_.Int(0, 2)] : d_.Int(2, 4)) + " ";
    }
    // A random speed in lo..hi, raised so the move takes at most kMoveSeconds
    // (`needed` is the speed that does), never above hi; rarely 0.
    int Speed(int lo, int hi, double needed) {
        if (d_.Chance(0.01)) return 0;
        return std::min(hi, std::max(d_.Int(lo, hi), static_cast<int>(std::ceil(needed))));
    }
    // The arc's middle: near the joint-space midpoint, or (a third of the
    // time) nearly on the chord, off it by 1e-7 .. 3 mm.
    Joints Middle(const Joints& to) {
        Joints mid;
        for (int j = 0; j < 6; ++j) mid[j] = 0.5 * (at_[j] + to[j]);
        if (d_.Chance(0.03)) return at_;
        if (!d_.Chance(0.35)) {
            for (double& v : mid) v += d_.Uniform(-6, 6);
            return mid;
        }
        std::vector<double> pose = Pose(mid);
        const std::vector<double> a = Pose(at_), b = Pose(to);
        const double offset = std::pow(10.0, d_.Uniform(-7, 0.5));
        for (int i = 0; i < 3; ++i) pose[i] = 0.5 * (a[i] + b[i]) + offset * d_.Uniform(-1, 1);
        Joints q = mid;
        for (double& v : q) v *= kDeg;
        if (GetCurrentRobot()->InverseKinematics(q.data(), pose.data()) < 0) return mid;
        for (double& v : q) v /= kDeg;
        return q;
    }
    // MOVJ (kind 0: VJ in %), MOVL (1) or MOVC (2: an arc of up to 1.6 chords; V in mm/s).
    std::string Move(int kind) {
        const Joints to = Target(kind > 0);
        std::string points = List(to);
        double needed = 0;
        for (int j = 0; j < 6 && kind == 0; ++j)
            needed = std::max(needed, 100 * std::fabs(to[j] - at_[j]) / (kJointSpeed[j] * ov_ * kMoveSeconds));
        if (kind == 2) points = List(Middle(to)) + "," + points;
        if (kind > 0) needed = (kind == 2 ? 1.6 : 1.0) * Distance(Pose(at_), Pose(to)) / (ov_ * kMoveSeconds);
        const char* const head[] = {"MOVJ VJ=", "MOVL V=", "MOVC V="};
        const std::string line =
            head[kind] + std::to_string(Speed(1, kind == 0 ? 150 : 400, needed)) + Zone() + points + "\n";
        at_ = to;
        return line;
    }

    Dice& d_;
    double ov_;
    Joints at_;  // the previous target (first: where the arm stands), degrees
};

// A smooth random walk of joint samples (degrees, one per 4 ms), sometimes
// with a jump, a spike past the soft limit, a slow drift past it, or faster
// than the actuators allow.
std::string WriteTrajectory(Dice& d, double override_, std::string* note) {
    const int period_ms = static_cast<int>(4.0 / override_);
    const int rows = d.Int(20, std::max(20, static_cast<int>(kReplaySeconds * 1000 / period_ms)));
    const double vmax = d.Uniform(20, kActuatorSpeed * 1.07), amax = d.Uniform(100, 2000), dt = 0.004;
    const int shape = d.Int(0, 99), joint = d.Int(0, 5), at = d.Int(0, rows - 1);
    const double jump = d.Sign() * d.Uniform(1.5, 20);
    const double edge = d.Sign() * (d.Chance(0.3) ? kSoftLimit : d.Uniform(kSoftLimit - 4, kSoftLimit + 4));
    *note = "rows " + std::to_string(rows) + ", vmax " + Number(vmax) + " deg/s, " +
            (shape < 80 ? "smooth" : shape < 87 ? "jump" : shape < 92 ? "spike" : "drift") + " on joint " +
            std::to_string(joint + 1) + " at sample " + std::to_string(at + 1);
    Joints q, v{};
    for (double& x : q) x = d.Uniform(-100, 100);
    const double drift = (edge - q[joint]) / rows;
    std::string text;
    for (int k = 0; k < rows; ++k) {
        for (int j = 0; j < 6; ++j) {
            v[j] = std::clamp(v[j] + d.Uniform(-1, 1) * amax * dt, -vmax, vmax);
            if (std::fabs(q[j]) > 150) v[j] = -std::copysign(std::fabs(v[j]), q[j]);
            q[j] += v[j] * dt;
        }
        if (shape >= 80 && shape < 87 && k == at) q[joint] += jump;
        if (shape >= 92) q[joint] += drift;
        Joints sample = q;
        if (shape >= 87 && shape < 92 && k == at) sample[joint] = edge + std::copysign(5.0, edge);
        text += List(sample) + "\n";
    }
    return text;
}

// Where the arm powers up: at zero (its first power-up) or, 40 % of the
// time, anywhere within +-100 degrees with the wrist away from 0.
Joints StartPose(Dice& d) {
    Joints q{};
    if (d.Chance(0.6)) return q;
    for (double& v : q) v = d.Uniform(-100, 100);
    q[4] = d.Sign() * d.Uniform(15, 100);
    return q;
}

Case MakeCase(Dice& d, long index, const Joints& start) {
    Case c;
    c.index = index;
    c.start = start;
    const Job jobs[] = {Job::kCycle, Job::kBlended, Job::kStep, Job::kReplay};
    c.job = jobs[d.Int(0, 3)];
    c.override_ = d.Uniform(0.1, 1.0);
    if (c.job == Job::kReplay) {
        c.text = WriteTrajectory(d, c.override_, &c.note);
        return c;
    }
    const int moves = d.Int(1, 8);
    c.text = ProgramWriter(&d, c.override_, start).Write(moves);
    if (c.job == Job::kStep) {
        for (int i = d.Int(1, 2 * moves + 2); i > 0; --i) c.answers.push_back(d.Chance(0.7) ? "FORWARD" : "BACKWARD");
        c.answers.push_back(d.Chance(0.5) ? "leave" : "END");
    }
    return c;
}

// Standard input of a STEP walk: one word per line; notes the set-points
// sent when each word is asked for.
class ScriptedAnswers : public std::streambuf {
public:
    explicit ScriptedAnswers(const std::vector<std::string>& words) : words_(words) {}
    size_t Given() const { return next_; }
    long SentWhenAsked() const { return sent_; }

protected:
    int_type underflow() override {
        if (next_ >= words_.size()) return traits_type::eof();
        sent_ = tql_sim_setpoint_count(1);
        line_ = words_[next_++] + "\n";
        setg(&line_[0], &line_[0], &line_[0] + line_.size());
        return traits_type::to_int_type(line_[0]);
    }

private:
    const std::vector<std::string>& words_;
    size_t next_ = 0;
    long sent_ = 0;
    std::string line_;
};

struct Outcome {
    int result = 0;
    std::string out, err;
    long beyond = 0;
    long sent = 0;             // set-points of actuator 1 during the job
    long sent_by_refused = 0;  // of those, sent by the refused run or step
    bool step_walk_ended = false;
};

int RunJob(const Case& c, ScriptedAnswers* answers) {
    SetReplayOverride(c.override_);
    if (c.job == Job::kReplay) return MoveTrajectory(GetCurrentRobot(), kTrajectoryFile, false);
    SetOperationCycleMode(c.job == Job::kStep ? STEP : CYCLE);
    SetSmoothReplay(c.job == Job::kBlended);
    std::streambuf* keyboard = std::cin.rdbuf(answers);
    const int r = ExecuteFileInstruction(GetCurrentRobot(), kProgramFile);
    std::cin.rdbuf(keyboard);
    std::cin.clear();
    return r;
}

// Boots the arm afresh with the pre-flight on, the arm powering up at
// `start` (degrees) as it kept it in sim_state.txt. Empty, or what the boot
// printed.
std::string BootFresh(const Joints& start) {
    // Actuator revolutions per joint degree: reduction 36, joints 3 and 5 reversed.
    const double rev_per_degree[6] = {0.1, 0.1, -0.1, 0.1, -0.1, 0.1};
    std::string state = "sim_state 1\n";
    for (int j = 0; j < 6; ++j)
        state += "actuator id=" + std::to_string(j + 1) + " position=" + Number(start[j] * rev_per_degree[j]) +
                 " homing_offset=0\n";
    tqltest::WriteFile("sim_state.txt", state);
    std::string out;
    testing::internal::CaptureStderr();  // the database's greeting
    const int booted = tqltest::BootSimulatedArm(nullptr, &out);
    out += testing::internal::GetCapturedStderr();
    if (booted != 0 || !GetResourceDate()->preflight_switch) return out;
    const Joints q = tqltest::CurrentJoints();
    for (int j = 0; j < 6; ++j)
        if (!(std::fabs(q[j] - start[j] * kTrueDegree) < 1e-6)) return "not at its power-up pose";
    return "";
}

// Writes the case's file and runs it quietly on the booted arm.
void Run(const Case& c, Outcome* o) {
    tqltest::WriteFile(c.job == Job::kReplay ? kTrajectoryFile : kProgramFile, c.text);
    ScriptedAnswers answers(c.answers);
    const long before = tql_sim_setpoint_count(1);
    testing::internal::CaptureStderr();
    o->result = tqltest::Quiet([&] { return RunJob(c, &answers); }, &o->out);
    o->err = testing::internal::GetCapturedStderr();
    const long after = tql_sim_setpoint_count(1);
    o->beyond = tql_sim_beyond_limit_count();
    o->sent = after - before;
    o->step_walk_ended = answers.Given() == c.answers.size() && o->out.find("Program exit!") != std::string::npos;
    o->sent_by_refused = c.job == Job::kStep ? after - answers.SentWhenAsked() : o->sent;
}

// The first output line holding a known refusal message, or empty.
std::string KnownRefusal(const std::string& out) {
    size_t first = std::string::npos;
    for (const char* text : kRefusals) first = std::min(first, out.find(text));
    if (first == std::string::npos) return "";
    const size_t begin = out.rfind('\n', first);
    const size_t from = begin == std::string::npos ? 0 : begin + 1;
    return out.substr(from, out.find('\n', first) - from);
}

// The broken invariant, or empty. *accepted: the job ran to its end.
std::string Judge(const Case& c, const Outcome& o, bool* accepted) {
    *accepted = o.result == 0 || (c.job == Job::kStep && o.step_walk_ended);
    if (o.beyond != 0) return std::to_string(o.beyond) + " set-points beyond the actuators' limits";
    if (!o.err.empty()) return "standard error: " + o.err;
    if (o.result != 0 && o.result != -1) return "result " + std::to_string(o.result);
    if (*accepted) return "";
    if (KnownRefusal(o.out).empty()) return "-1 without a known refusal message";
    if (o.sent_by_refused != 0)
        return "refused after " + std::to_string(o.sent_by_refused) + " set-points of actuator 1" +
               (c.job == Job::kStep ? " in the refused step" : "");
    return "";
}

int report_fd = 2;                        // the process's own standard error, never captured
std::atomic<const char*> crash_note{""};  // the running case, for a crash or hang report

// Plain write(2) calls: also used from a signal handler.
void WriteReport(const char* text, size_t size) {
    for (size_t done = 0; done < size;) {
        const ssize_t n = write(report_fd, text + done, size - done);
        if (n <= 0) return;
        done += static_cast<size_t>(n);
    }
}
void WriteReport(const char* text) { WriteReport(text, std::strlen(text)); }

std::string Describe(unsigned long seed, const Case& c, const std::string& saved) {
    char head[160];
    std::snprintf(head, sizeof head, "  %s, override %.4f; again: tql_soak --seed %lu --case %ld\n", JobName(c.job),
                  c.override_, seed, c.index);
    std::string s = std::string(head) + "  the arm powers up at " + List(c.start) + "\n";
    if (!c.answers.empty()) {
        s += "  answers:";
        for (const std::string& w : c.answers) s += " " + w;
        s += "\n";
    }
    if (c.job == Job::kReplay)
        return s + "  trajectory (" + c.note + ")" + (saved.empty() ? "" : " in " + saved) + "\n";
    return s + "  " + kProgramFile + ":\n" + c.text;
}

std::string Tail(const std::string& text, size_t lines) {
    size_t at = text.size();
    for (size_t n = 0; at > 0 && n <= lines; --at)
        if (text[at - 1] == '\n') ++n;
    return text.substr(at);
}

void ReportViolation(unsigned long seed, const Case& c, const Outcome& o, const std::string& why,
                     const fs::path& launch_dir) {
    std::string saved;
    if (c.job == Job::kReplay) {
        saved = (launch_dir / ("soak-" + std::to_string(seed) + "-" + std::to_string(c.index) + ".txt")).string();
        tqltest::WriteFile(saved, c.text);
    }
    std::printf("soak: violation, seed %lu case %ld: %s\n%s  result %d, %ld set-points; output (end):\n%s\n", seed,
                c.index, why.c_str(), Describe(seed, c, saved).c_str(), o.result, o.sent, Tail(o.out, 25).c_str());
    std::fflush(stdout);
}

struct sigaction crash_handlers[NSIG];  // the handlers before ours (the sanitizers', or the default)

void OnCrash(int signo) {
    char number[] = "00) in\n";
    number[0] = static_cast<char>('0' + signo / 10 % 10);
    number[1] = static_cast<char>('0' + signo % 10);
    WriteReport("soak: violation, crash (signal ");
    WriteReport(number);
    WriteReport(crash_note);
    // The fault repeats (abort raises again) into the handler that was there before.
    sigaction(signo, &crash_handlers[signo], nullptr);
}

void ReportCrashes() {
    struct sigaction ours = {};
    ours.sa_handler = OnCrash;
    sigemptyset(&ours.sa_mask);
    for (int s : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT}) sigaction(s, &ours, &crash_handlers[s]);
}

// Ends the process when a case runs past its wall-time deadline: a thread of
// its own looks every 200 ms, whatever the case's threads are doing.
std::atomic<double> deadline{0.0};  // steady-clock seconds; 0: no case running
double WallNow() { return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count(); }
void Watch(double limit_s) {
    for (;; std::this_thread::sleep_for(std::chrono::milliseconds(200))) {
        const double due = deadline.load();
        if (due <= 0 || WallNow() <= due) continue;
        const std::string report =
            "soak: violation, no end after " + Number(limit_s) + " s of wall time in\n" + crash_note.load();
        WriteReport(report.c_str(), report.size());
        _exit(3);
    }
}

struct Options {
    long runs = 300;
    unsigned long seed = 1;
    long only_case = -1;
    double timeout_s = 20.0;
    bool list = false;  // one line per case: job, result, refusal message
};

bool Parse(int argc, char** argv, Options* o) {
    for (int i = 1; i < argc; i += 2) {
        const std::string name = argv[i];
        if (name == "--list") {
            o->list = true;
            --i;
            continue;
        }
        if (i + 1 >= argc) return false;
        char* end = nullptr;
        const double v = std::strtod(argv[i + 1], &end);
        if (*end != '\0' || !(v >= 0)) return false;
        if (name == "--runs") o->runs = static_cast<long>(v);
        else if (name == "--seed") o->seed = static_cast<unsigned long>(v);
        else if (name == "--case") o->only_case = static_cast<long>(v);
        else if (name == "--timeout") o->timeout_s = v;
        else return false;
    }
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    Options opt;
    if (!Parse(argc, argv, &opt)) {
        std::fprintf(stderr, "usage: tql_soak [--runs N] [--seed S] [--case K] [--timeout SECONDS] [--list]\n");
        return 2;
    }
    report_fd = dup(2);
    ReportCrashes();
    for (const char* name : {"TQL_SIM_INTERRUPT", "TQL_SIM_HAND", "TQL_SIM_URDF", "TQL_SIM_NOISE"}) unsetenv(name);
    const fs::path launch_dir = fs::current_path();
    tqltest::ScratchDir dir;
    std::thread(Watch, opt.timeout_s).detach();
    std::string note;
    auto watch = [&](const std::string& text) {  // (re)starts the case's wall-time limit
        crash_note = "";
        note = text;
        crash_note = note.c_str();
        deadline = WallNow() + opt.timeout_s;
    };
    long runs = 0, accepted_runs = 0, refused_runs = 0, violations = 0;
    const long first = opt.only_case >= 0 ? opt.only_case : 0;
    const long last = opt.only_case >= 0 ? opt.only_case + 1 : opt.runs;
    for (long k = first; k < last; ++k, ++runs) {
        const std::string head = "  seed " + std::to_string(opt.seed) + " case " + std::to_string(k) + "\n";
        watch(head + "  (booting)\n");
        Dice dice(opt.seed, k);
        const Joints start = StartPose(dice);
        const std::string boot = BootFresh(start);
        Case c;
        tqltest::Quiet([&] {  // after the boot: uses the robot's kinematics
            c = MakeCase(dice, k, start);
            return 0;
        });
        watch(head + Describe(opt.seed, c, ""));
        Outcome o;
        bool accepted = false;
        if (boot.empty()) Run(c, &o);
        const std::string why =
            boot.empty() ? Judge(c, o, &accepted) : "no boot with the pre-flight on at the power-up pose: " + boot;
        deadline = 0;
        if (!why.empty()) ++violations, ReportViolation(opt.seed, c, o, why, launch_dir);
        else ++(accepted ? accepted_runs : refused_runs);
        if (opt.only_case >= 0 && why.empty())  // a case repeated alone is shown whole
            std::printf("%s  result %d, %ld set-points; output (end):\n%s\n", note.c_str(), o.result, o.sent,
                        Tail(o.out, 25).c_str());
        if (opt.list)
            std::printf("case %ld %s %.3f: %d %s %s\n", k, JobName(c.job), c.override_, o.result,
                        accepted ? "accepted" : "refused", KnownRefusal(o.out).c_str());
    }
    crash_note = "";
    tqltest::RestoreRealTime();
    std::printf("soak: %ld runs, %ld accepted, %ld refused before motion, %ld violations\n", runs, accepted_runs,
                refused_runs, violations);
    return violations > 0 ? 1 : 0;
}
