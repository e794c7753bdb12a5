// Seeded safety soak of motion programs, trajectory files, hand guiding and
// the identification run on the simulated arm.
//
// Every case boots a fresh simulated arm (virtual clock, pre-flight on) in a
// scratch copy of the demo directory and runs one random job:
//   - a motion program (file/data.txt) once in CYCLE, plain or blended, or
//     walked in STEP with random FORWARD / BACKWARD answers;
//   - a trajectory file replayed once, now and then malformed or spiked;
//   - hand guiding: the host's monitoring loop floating the arm under gravity
//     compensation for a while, on the dynamic parameters (row 13 of the
//     robot type's table) as built or spoiled;
//   - the excitation of the identification run, on its coefficients (row 14)
//     as built or spoiled.
// A third of the motion jobs are stopped (as by Ctrl-C) after a random number
// of set-points, and a quarter run with the pre-flight off (from a Dice stream of
// their own, so the jobs themselves stay as they were).
// Invariants of a case: no set-point beyond an actuator's limits and no
// current beyond its peak; the set-points of a motion job within the
// database's joint speed, acceleration and jerk limits by finite differences
// at the stream's period, within 1 % (a replay's jerk is its file's own; a
// job made to be beyond them, or one that with the pre-flight off moves up to
// a refused period or replays its file as it stands, aside); no collision
// noticed, with the collision switch on and no obstacle in the world (but in
// such a job beyond the limits by design, or hand guiding on a spoiled row
// 13); no crash and no hang (a watchdog ends the
// process), a result of 0 or -1 with a known refusal message, and a refused
// stream that sent none of its set-points (a CYCLE run or a replay nothing at
// all; a STEP walk nothing of the refused step; hand guiding and the
// excitation nothing when refused before motion). A malformed or spiked
// trajectory file is refused; hand guiding leaves the arm held in position mode.
//
//   tql_soak [--runs N] [--seed S] [--case K] [--timeout SECONDS] [--list]
//
// Case K of seed S is the same job whatever the run count, so --case K
// repeats it alone.
#include <signal.h>
#include <sqlite3.h>
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
#include "dynamics.h"
#include "execute.h"
#include "interface.h"
#include "interpolation.h"
#include "program.h"
#include "progress.h"
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
constexpr double kPi = 3.14159265358979323846;
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
    "Workspace: the ",
    "Program exit!",               "Parameter error",             "Trajectory format error",
    "beyond peak current",         "Gravity Compensation error",
};
// Refusals made before anything moves: nothing may have been sent.
const char* const kBeforeMotion[] = {"refused before motion", "Parameter error", "Trajectory format error"};

class Dice {
public:
    // 64-bit on every target: the board's long is 32 bits wide.
    // Stream 0 is the case's original sequence; another stream is a sequence
    // of its own for the same case, so drawing from it leaves stream 0 alone.
    Dice(std::uint64_t seed, std::int64_t index, unsigned stream = 0) {
        std::vector<unsigned> words{static_cast<unsigned>(seed), static_cast<unsigned>(seed >> 32),
                                    static_cast<unsigned>(index), static_cast<unsigned>(index >> 32)};
        if (stream != 0) words.push_back(stream);
        std::seed_seq seq(words.begin(), words.end());
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

enum class Job { kCycle, kBlended, kStep, kReplay, kHandGuiding, kExcitation };
const char* const kJobNames[] = {"CYCLE", "CYCLE blended", "STEP", "replay", "hand guiding", "excitation"};
const char* JobName(Job job) { return kJobNames[static_cast<int>(job)]; }
// The draws of the hand-guiding and excitation cases and of the malformed
// trajectory files (Dice stream), so the other cases stay as they were.
constexpr unsigned kNewJobStream = 1;
// The draws of the stops and of the pre-flight switched off.
constexpr unsigned kStopStream = 2;

struct Case {
    long index = 0;
    Job job = Job::kCycle;
    double override_ = 1.0;
    Joints start{};                    // where the arm powers up, degrees
    std::string text;                  // the program or the trajectory file
    std::vector<std::string> answers;  // STEP: the operator's words
    std::string note;                  // the trajectory's shape, or the database rows used
    bool must_refuse = false;          // a malformed or spiked trajectory file
    double guide_seconds = 0.0;        // hand guiding: bus time the loop runs, s
    std::string row13, row14;          // VALUE of rows 13 and 14 of GL_6L3; empty: as built
    long stop_after = -1;              // a stop asked for after this many set-points of actuator 1; -1: none
    bool preflight_off = false;        // row 6 OFF for the job
    bool beyond_by_design = false;     // a trajectory made faster than the joints' limits
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

// A smooth random walk of joint samples (degrees, one per 4 ms) from rest to
// rest, mostly within the demo arm's joint limits (90 deg/s, 180 deg/s^2 on
// joints 1-3; a tenth a little beyond them, one in ten far faster, towards
// the actuators' own limit), sometimes with a jump, a spike past the soft
// limit or a slow drift past it.
std::string WriteTrajectory(Dice& d, double override_, std::string* note, bool& beyond) {
    const int period_ms = static_cast<int>(4.0 / override_);
    const int rows = d.Int(20, std::max(20, static_cast<int>(kReplaySeconds * 1000 / period_ms)));
    const double vmax = d.Chance(0.1) ? d.Uniform(250, kActuatorSpeed * 1.07) : d.Uniform(10, kJointSpeed[0] * 1.1);
    const double amax = d.Uniform(20, 180 * 1.1), dt = 0.004;
    const int shape = d.Int(0, 99), joint = d.Int(0, 5), at = d.Int(0, rows - 1);
    const double jump = d.Sign() * d.Uniform(1.5, 20);
    const double edge = d.Sign() * (d.Chance(0.3) ? kSoftLimit : d.Uniform(kSoftLimit - 4, kSoftLimit + 4));
    beyond = vmax > kJointSpeed[0] || amax > 180 || shape >= 80;
    *note = "rows " + std::to_string(rows) + ", vmax " + Number(vmax) + " deg/s, amax " + Number(amax) +
            " deg/s^2, " + (shape < 80 ? "smooth" : shape < 87 ? "jump" : shape < 92 ? "spike" : "drift") +
            " on joint " + std::to_string(joint + 1) + " at sample " + std::to_string(at + 1);
    Joints q, v{};
    for (double& x : q) x = d.Uniform(-100, 100);
    const double drift = (edge - q[joint]) / rows;
    std::string text;
    // The walk, then the braking tail that brings every joint to rest.
    for (int k = 0; k < rows || v != Joints{}; ++k) {
        for (int j = 0; j < 6; ++j) {
            const double pull = std::fabs(q[j]) > 140 ? -std::copysign(amax * dt, q[j]) : 0.0;  // back from the edge
            if (k < rows)
                v[j] = std::clamp(v[j] + (pull != 0.0 ? pull : d.Uniform(-1, 1) * amax * dt), -vmax, vmax);
            else
                v[j] = std::fabs(v[j]) <= amax * dt ? 0.0 : v[j] - std::copysign(amax * dt, v[j]);
            q[j] += v[j] * dt;
        }
        if (shape >= 80 && shape < 87 && k == at) q[joint] += jump;
        if (shape >= 92 && k < rows) q[joint] += drift;
        Joints sample = q;
        if (shape >= 87 && shape < 92 && k == at) sample[joint] = edge + std::copysign(5.0, edge);
        text += List(sample) + "\n";
    }
    return text;
}

std::vector<std::string> Split(const std::string& text, char separator) {
    std::vector<std::string> parts;
    size_t start = 0;
    for (size_t at; (at = text.find(separator, start)) != std::string::npos; start = at + 1)
        parts.push_back(text.substr(start, at - start));
    parts.push_back(text.substr(start));
    return parts;
}

std::string Join(const std::vector<std::string>& parts, const std::string& separator) {
    std::string text;
    for (size_t k = 0; k < parts.size(); ++k) text += (k ? separator : "") + parts[k];
    return text;
}

// A trajectory every replay would accept: each joint from rest to rest along
// a raised cosine, its swing kept so that speed and acceleration stay within
// half the database's joint limits (90 deg/s, 180 deg/s^2) at 4 ms a sample,
// the fastest period (a slower override only lowers them).
std::string GentleTrajectory(Dice& d, std::string* note) {
    const int rows = d.Int(50, 600);
    const double n = rows - 1;
    // Per sample: peak step swing * pi / 2n, peak second difference swing * pi^2 / 2n^2.
    const double most = std::min({30.0, 45 * 0.004 * 2 * n / kPi, 90 * 0.004 * 0.004 * 2 * n * n / (kPi * kPi)});
    Joints from, swing;
    for (int j = 0; j < 6; ++j) {
        from[j] = d.Uniform(-100, 100);
        swing[j] = d.Uniform(-1, 1) * most;
    }
    std::string text;
    for (int k = 0; k < rows; ++k) {
        Joints q;
        for (int j = 0; j < 6; ++j) q[j] = from[j] + swing[j] * 0.5 * (1 - std::cos(kPi * k / n));
        text += List(q) + "\n";
    }
    *note = "rows " + std::to_string(rows) + ", a raised cosine of up to " + Number(most) + " deg on every joint";
    return text;
}

// A gentle trajectory with one line spoiled so that it must be refused before
// anything moves: a blank line (at the start, in the middle or at the end),
// a line with another separator, with text, with a value missing or one too
// many, with a value that is not finite, or a spike of 1 .. 5 degrees on one
// joint for one sample. The spike stays inside the soft limits, but its step
// there and back is beyond every joint's acceleration limit (180 deg/s^2 at
// most) even at the slowest period of 40 ms; half the spikes stay under 1.15
// degrees, a step the actuators' own 300 deg/s over 4 ms would let pass.
void Malform(Dice& d, Case* c) {
    c->text = GentleTrajectory(d, &c->note);
    std::vector<std::string> lines = Split(c->text, '\n');
    lines.pop_back();  // after the final newline
    const int rows = static_cast<int>(lines.size());
    const int at = d.Chance(0.2) ? 0 : d.Chance(0.25) ? rows - 1 : d.Int(0, rows - 1);
    const int field = d.Int(0, 5);
    std::vector<std::string> fields = Split(lines[at], ',');
    std::string what;
    switch (d.Int(0, 6)) {
    case 0: {
        const int where = d.Int(0, 2);
        const int blank = where == 0 ? 0 : where == 1 ? d.Int(1, rows - 1) : rows;
        lines.insert(lines.begin() + blank, "");
        c->text = Join(lines, "\n") + "\n";
        c->note += ", then a blank line as line " + std::to_string(blank + 1);
        c->must_refuse = true;
        return;
    }
    case 1: {
        const char* const separators[] = {";", " ", "\t"};
        const int which = d.Int(0, 2);
        const bool all = d.Chance(0.5);  // else only the one after joint 1 + field % 5
        lines[at] = fields[0];
        for (int k = 1; k < static_cast<int>(fields.size()); ++k)
            lines[at] += (all || k == 1 + field % 5 ? separators[which] : ",") + fields[k];
        what = std::string(all ? "every" : "one") + " separator " + (which == 0 ? "';'" : which == 1 ? "' '" : "tab");
        break;
    }
    case 2:
        if (d.Chance(0.5)) {
            fields = {"abc"};
            what = "the text abc";
        } else {
            fields[field] = "abc";
            what = "the text abc for joint " + std::to_string(field + 1);
        }
        lines[at] = Join(fields, ",");
        break;
    case 3:
        fields.erase(fields.begin() + field);
        lines[at] = Join(fields, ",");
        what = "joint " + std::to_string(field + 1) + " missing";
        break;
    case 4:
        lines[at] += "," + Number(d.Uniform(-100, 100));
        what = "a 7th value";
        break;
    case 5: {
        const char* const words[] = {"nan", "inf", "-inf"};
        fields[field] = words[d.Int(0, 2)];
        lines[at] = Join(fields, ",");
        what = fields[field] + " for joint " + std::to_string(field + 1);
        break;
    }
    default: {
        const double q = std::strtod(fields[field].c_str(), nullptr);
        double spike = d.Sign() * (d.Chance(0.5) ? d.Uniform(1, 1.15) : d.Uniform(1.15, 5));
        if (std::fabs(q + spike) > kSoftLimit - 5) spike = -spike;
        fields[field] = Number(q + spike);
        lines[at] = Join(fields, ",");
        what = "a spike of " + Number(spike) + " deg on joint " + std::to_string(field + 1);
        break;
    }
    }
    c->text = Join(lines, "\n") + "\n";
    c->note += ", then " + what + " at line " + std::to_string(at + 1);
    c->must_refuse = true;
    c->beyond_by_design = c->beyond_by_design || what.find("spike") != std::string::npos;
}

// Rows 13 (the dynamic parameters: 36 base parameters, then a viscous and a
// Coulomb friction coefficient per joint) and 14 (the excitation
// coefficients, radians, per joint q0, a1..a5, b1..b5) of the demo arm's table
// in the scratch parameter.db: what the build wrote, and what a case boots on.
class ModelRows {
public:
    ModelRows() {
        for (int row : {13, 14}) {
            built_[row - 13] = written_[row - 13] = Value(row);
            const std::string& text = built_[row - 13];
            for (const std::string& v : Split(text.substr(1, text.size() - 2), ','))
                values_[row - 13].push_back(std::strtod(v.c_str(), nullptr));
        }
    }
    bool Read() const { return values_[0].size() > 1 && values_[1].size() > 1; }
    const std::vector<double>& Built(int row) const { return values_[row - 13]; }
    // The case's rows, the built ones where it keeps them. False on failure.
    bool Write(const Case& c) {
        const std::string* wanted[] = {&c.row13, &c.row14};
        for (int k = 0; k < 2; ++k) {
            const std::string& value = wanted[k]->empty() ? built_[k] : *wanted[k];
            if (value == written_[k]) continue;
            if (!tqltest::ExecSql("parameter.db", "UPDATE GL_6L3 SET VALUE = '" + value +
                                                      "' WHERE ID = " + std::to_string(13 + k) + ";"))
                return false;
            written_[k] = value;
        }
        return true;
    }
    static std::string Text(const std::vector<double>& values) {
        std::vector<std::string> words;
        for (double v : values) words.push_back(Number(v));  // "nan" for a NaN
        return "[" + Join(words, ",") + "]";
    }

private:
    static std::string Value(int row) {
        sqlite3* db = nullptr;
        sqlite3_stmt* query = nullptr;
        std::string value;
        if (sqlite3_open_v2("parameter.db", &db, SQLITE_OPEN_READONLY, nullptr) == SQLITE_OK &&
            sqlite3_prepare_v2(db, "SELECT VALUE FROM GL_6L3 WHERE ID = ?1", -1, &query, nullptr) == SQLITE_OK &&
            sqlite3_bind_int(query, 1, row) == SQLITE_OK && sqlite3_step(query) == SQLITE_ROW)
            value = reinterpret_cast<const char*>(sqlite3_column_text(query, 0));
        sqlite3_finalize(query);
        sqlite3_close(db);
        return value.size() >= 2 ? value : "[]";
    }

    std::string built_[2], written_[2];
    std::vector<double> values_[2];
};

// Row 13 as built, scaled by 10^U(-1, 2.5), with one entry huge or not a
// number, or all zero (nothing compensated: the arm sinks when let go).
std::string SpoilDynamicRow(Dice& d, std::vector<double> v, std::string* note) {
    const int kind = d.Int(0, 9), entry = d.Int(0, static_cast<int>(v.size()) - 1);
    if (kind < 3) {
        *note = "row 13 as built";
        return "";
    }
    if (kind < 7) {
        const double scale = std::pow(10.0, d.Uniform(-1, 2.5));
        for (double& x : v) x *= scale;
        *note = "row 13 scaled by " + Number(scale);
    } else if (kind < 9) {
        v[entry] = d.Chance(0.5) ? 1e9 : std::nan("");
        *note = "row 13 entry " + std::to_string(entry + 1) + " = " + Number(v[entry]);
    } else {
        v.assign(v.size(), 0.0);
        *note = "row 13 all 0";
    }
    return ModelRows::Text(v);
}

// Row 14 as built, scaled by U(0.5, 60), or with one coefficient U(1, 50)
// rad or not a number.
std::string SpoilExcitationRow(Dice& d, std::vector<double> v, std::string* note) {
    const int kind = d.Int(0, 9), entry = d.Int(0, static_cast<int>(v.size()) - 1);
    if (kind < 4) {
        *note = "row 14 as built";
        return "";
    }
    if (kind < 7) {
        const double scale = d.Uniform(0.5, 60);
        for (double& x : v) x *= scale;
        *note = "row 14 scaled by " + Number(scale);
    } else {
        v[entry] = kind < 9 ? d.Sign() * d.Uniform(1, 50) : std::nan("");
        *note = "row 14 coefficient " + std::to_string(entry + 1) + " = " + Number(v[entry]);
    }
    return ModelRows::Text(v);
}

// Picks a hand-guiding or an excitation case (a quarter of the cases) with
// its database rows; false for the other jobs.
bool MakeNewJobCase(Dice& d, long index, const Joints& start, const ModelRows& model, Case* c) {
    const int pick = d.Int(0, 99);
    if (pick >= 26) return false;
    c->index = index;
    c->start = start;
    c->override_ = 1.0;  // the excitation at 4 ms a sample: about 12 s of bus time
    if (pick < 13) {
        c->job = Job::kHandGuiding;
        c->row13 = SpoilDynamicRow(d, model.Built(13), &c->note);
        c->guide_seconds = d.Uniform(0.5, 2.0);
        c->note += ", guided for " + Number(c->guide_seconds) + " s";
    } else {
        c->job = Job::kExcitation;
        c->row14 = SpoilExcitationRow(d, model.Built(14), &c->note);
    }
    return true;
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
        c.text = WriteTrajectory(d, c.override_, &c.note, c.beyond_by_design);
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

// The set-points of a motion job, as the arm received them: the real-time
// position after every period of a stream (bus time, joints in rad), and the
// stop to ask for.
struct Tape {
    bool on = false;
    std::vector<double> time;
    std::vector<Joints> q;
    long stop_at = -1;  // actuator 1's set-point count
};
Tape tape;

struct Outcome {
    int result = 0;
    std::string out, err;
    long beyond = 0;
    long beyond_peak = 0;      // of those, current set-points beyond the peak current
    long sent = 0;             // set-points of actuator 1 during the job
    long sent_by_refused = 0;  // of those, sent by the refused run or step
    bool step_walk_ended = false;
    int floating = 0;          // hand guiding: an actuator left out of position mode, 0 for none
    double worst_ratio = 0.0;  // finite differences of the set-points over the joints' limits
    bool ran_to_refusal = false;  // pre-flight off: moved up to a failing period
    std::string worst_at;      // where
};

// The largest ratio of a set-point's finite difference (speed, acceleration,
// and with `jerk` the jerk) to the database's joint limit, over runs of
// equally spaced periods, the arm at rest before the first and after the last.
double WorstRatio(const Tape& t, bool with_jerk, std::string* where) {
    const ResourceData* rd = GetResourceDate();
    double worst = 0.0;
    std::vector<Joints> q;
    // Runs of equal spacing; each starts with the set-point before it thrice.
    size_t begin = 0;
    while (begin + 1 < t.q.size()) {
        const double h = t.time[begin + 1] - t.time[begin];
        size_t end = begin + 1;
        while (end + 1 < t.q.size() && std::fabs(t.time[end + 1] - t.time[end] - h) < 1e-7) ++end;
        // After a longer gap (a wait, a prompt) the arm rested where the
        // entry before the run left it, and the run's first entry is its
        // first step from there.
        const bool after_gap = begin > 0 && t.time[begin] - t.time[begin - 1] > 1.5 * h;
        q.assign(3, after_gap ? t.q[begin - 1] : t.q[begin]);
        for (size_t k = after_gap ? begin : begin + 1; k <= end; ++k) q.push_back(t.q[k]);
        for (int r = 0; r < 3; ++r) q.push_back(q.back());
        for (size_t k = 3; k < q.size(); ++k)
            for (int j = 0; j < 6; ++j) {
                const double v = (q[k][j] - q[k - 1][j]) / h;
                const double a = (q[k][j] - 2 * q[k - 1][j] + q[k - 2][j]) / (h * h);
                const double jerk = (q[k][j] - 3 * q[k - 1][j] + 3 * q[k - 2][j] - q[k - 3][j]) / (h * h * h);
                const double ratios[3] = {std::fabs(v) / (rd->joint_speed[j] * kDeg),
                                          std::fabs(a) / (rd->joint_acceleration[j] * kDeg),
                                          std::fabs(jerk) / (rd->joint_jerk[j] * kDeg)};
                for (int o = 0; o < (with_jerk ? 3 : 2); ++o)
                    if (ratios[o] > worst) {
                        worst = ratios[o];
                        *where = std::string(o == 0 ? "speed" : o == 1 ? "acceleration" : "jerk") + " of joint " +
                                 std::to_string(j + 1) + " at " + Number(t.time[std::min(begin + k - 3, end)]) +
                                 " s";
                    }
            }
        begin = end;
    }
    return worst;
}

// The host of hand guiding: the monitoring loop runs on the soak's thread
// and the library's sleeps (every motion loop's) come through SoakSleep.
// While a guide is armed, the first sleep with actuator 1 in current mode
// (the arm let go) starts its clock, and the first wake `seconds` of bus time
// later presses the host's button from another thread: SetRunningMode, which
// ends the loop. So the loop runs on the virtual clock alone and its length
// is the same on every run of the case.
struct Guide {
    std::atomic<bool> armed{false};
    double seconds = 0.0;
    double from = -1.0;  // bus time the arm was let go, s; -1: not yet
};
Guide guide;


void SoakSleep(double seconds) {
    if (tape.on && seconds > 0.0 && seconds < 0.1) {
        Joints q;
        CopyRealTimePos(q.data(), 6);
        tape.time.push_back(tql_sim_now() + seconds);
        tape.q.push_back(q);
        if (tape.stop_at >= 0 && tql_sim_setpoint_count(1) >= tape.stop_at) {
            tape.stop_at = -1;
            std::thread([] { SetStopFlag(); }).join();
        }
    }
    const bool armed = guide.armed;
    if (armed && guide.from < 0 && tql_sim_actuator_mode(1) == Actuator::Mode_Cur) guide.from = tql_sim_now();
    tql_sim_sleep(seconds);
    if (armed && guide.from >= 0 && tql_sim_now() - guide.from >= guide.seconds) {
        guide.armed = false;
        std::thread([] { SetRunningMode(kReplayTrajectoryMode); }).join();
    }
}

// Hand guiding for `seconds` after the arm is let go. The running mode is
// drag teaching again afterwards, as every case expects.
int GuideByHand(double seconds) {
    SetRunningMode(kDragTeachingMode);
    InitStopFlag();
    guide.seconds = seconds;
    guide.from = -1.0;
    guide.armed = true;
    const int result = RealTimeMonitoringStartButton();
    guide.armed = false;
    SetRunningMode(kDragTeachingMode);
    InitStopFlag();
    return result;
}

int RunJob(const Case& c, ScriptedAnswers* answers) {
    SetReplayOverride(c.override_);
    if (c.job == Job::kReplay) return MoveTrajectory(GetCurrentRobot(), kTrajectoryFile, false);
    if (c.job == Job::kHandGuiding) return GuideByHand(c.guide_seconds);
    if (c.job == Job::kExcitation) return MoveExcitationTrajectories(GetCurrentRobot(), 1);
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
    const int booted = tqltest::BootSimulatedArm(&SoakSleep, &out);
    out += testing::internal::GetCapturedStderr();
    if (booted != 0 || !GetResourceDate()->preflight_switch) return out;
    const Joints q = tqltest::CurrentJoints();
    for (int j = 0; j < 6; ++j)
        if (!(std::fabs(q[j] - start[j] * kTrueDegree) < 1e-6)) return "not at its power-up pose";
    return "";
}

std::string KnownRefusal(const std::string& out);

// Writes the case's file and runs it quietly on the booted arm.
void Run(const Case& c, Outcome* o) {
    if (c.job == Job::kReplay) tqltest::WriteFile(kTrajectoryFile, c.text);
    if (c.job <= Job::kStep) tqltest::WriteFile(kProgramFile, c.text);
    ScriptedAnswers answers(c.answers);
    const long before = tql_sim_setpoint_count(1);
    if (c.preflight_off) GetResourceDate()->preflight_switch = false;
    tape = Tape();
    tape.on = c.job <= Job::kReplay;
    tape.time.push_back(tql_sim_now());  // at rest where the job starts
    tape.q.push_back(tqltest::CurrentJoints());
    tape.stop_at = c.stop_after >= 0 ? before + c.stop_after : -1;
    testing::internal::CaptureStderr();
    o->result = tqltest::Quiet([&] { return RunJob(c, &answers); }, &o->out);
    o->err = testing::internal::GetCapturedStderr();
    tape.on = false;
    // A replay reproduces its file, whose jerk is the recording's own: held
    // to the speed and acceleration limits only.
    // With the pre-flight off a stream that fails on the way runs up to the
    // failing period and stops there dead, as described: not measured.
    // A replay with the pre-flight off replays its file as it stands (the
    // pre-flight is what holds a file to the limits): not measured either.
    o->ran_to_refusal = c.preflight_off && ((o->result == -1 && !KnownRefusal(o->out).empty() &&
                                             o->out.find("refused before motion") == std::string::npos) ||
                                            c.job == Job::kReplay);
    if (!o->ran_to_refusal) o->worst_ratio = WorstRatio(tape, c.job != Job::kReplay, &o->worst_at);
    InitStopFlag();
    const long after = tql_sim_setpoint_count(1);
    o->beyond = tql_sim_beyond_limit_count();
    o->beyond_peak = tql_sim_current_beyond_peak_count();
    o->sent = after - before;
    o->step_walk_ended = answers.Given() == c.answers.size() && o->out.find("Program exit!") != std::string::npos;
    o->sent_by_refused = c.job == Job::kStep ? after - answers.SentWhenAsked() : o->sent;
    for (int id = 6; id >= 1 && c.job == Job::kHandGuiding; --id)
        if (tql_sim_actuator_mode(id) != Actuator::Mode_Pos) o->floating = id;
}

// A boot that refused the case's database rows: nothing may have moved.
void RefusedAtBoot(const std::string& boot, Outcome* o) {
    o->result = -1;
    o->out = boot;
    o->beyond = tql_sim_beyond_limit_count();
    o->beyond_peak = tql_sim_current_beyond_peak_count();
    o->sent = o->sent_by_refused = tql_sim_setpoint_count(1);
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

// The broken invariant, or empty. *accepted: the job ran to its end (hand
// guiding: without a refusal on the way, since the loop ends with 0 after a
// fault too).
std::string Judge(const Case& c, const Outcome& o, bool* accepted) {
    const std::string refusal = KnownRefusal(o.out);
    *accepted = (o.result == 0 && (c.job != Job::kHandGuiding || refusal.empty())) ||
                (c.job == Job::kStep && o.step_walk_ended);
    if (o.beyond_peak != 0)
        return std::to_string(o.beyond_peak) + " current set-points beyond the actuators' peak current";
    if (o.beyond != 0) return std::to_string(o.beyond) + " set-points beyond the actuators' limits";
    if (o.worst_ratio > 1.01 && !(c.preflight_off && c.beyond_by_design))
        return "set-points beyond the joints' limits: " + Number(o.worst_ratio) + " times the " + o.worst_at;
    // No obstacle stands in the soak's world: a collision reported is a false
    // stop, unless the job was made beyond the joints' limits and run with
    // the pre-flight off (a spike jerks the arm by more than its drives can
    // deliver), or floats the arm on a spoiled row 13 (it moves as the model
    // says it cannot): the monitor rightly does not explain either.
    const bool wrong_by_design = (c.preflight_off && c.beyond_by_design) || !c.row13.empty();
    bool only_collision = !o.err.empty();  // every line of standard error the collision reflex's
    for (size_t at = 0; only_collision && at < o.err.size(); at = o.err.find('\n', at) + 1)
        only_collision = o.err.compare(at, 11, "collision: ") == 0 && o.err.find('\n', at) != std::string::npos;
    const bool collision_by_design = wrong_by_design && only_collision;
    if (!o.err.empty() && !collision_by_design) return "standard error: " + o.err;
    if (o.result != 0 && o.result != -1) return "result " + std::to_string(o.result);
    if (o.floating != 0)
        return "the arm left floating: actuator " + std::to_string(o.floating) + " not in position mode";
    // A spike is refused by the pre-flight; malformed text by the reader.
    const bool must_refuse = c.must_refuse && !(c.preflight_off && c.note.find("spike") != std::string::npos);
    if (*accepted) return must_refuse ? "a trajectory file that must be refused was replayed" : "";
    // A job stopped on the way ends with -1 and says nothing more.
    if (c.stop_after >= 0 && o.result == -1 && refusal.empty()) return "";
    if (collision_by_design && o.result == -1 && refusal.empty()) return "";  // braked, as for a stop
    if (refusal.empty()) return std::to_string(o.result) + " without a known refusal message";
    // Hand guiding and the excitation move the arm before they can fail on
    // the way; only their refusals before motion must have sent nothing.
    // With the pre-flight off, only what is refused before any stream (a
    // file or a database row) must have sent nothing.
    bool before_motion = c.job != Job::kHandGuiding && c.job != Job::kExcitation && !c.preflight_off;
    for (const char* text : kBeforeMotion) before_motion = before_motion || o.out.find(text) != std::string::npos;
    if (o.sent_by_refused != 0 && before_motion)
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
    if (c.stop_after >= 0) s += "  stopped after " + std::to_string(c.stop_after) + " set-points\n";
    if (c.preflight_off) s += "  pre-flight off\n";
    if (c.job == Job::kReplay)
        return s + "  trajectory (" + c.note + ")" + (saved.empty() ? "" : " in " + saved) + "\n";
    if (c.job > Job::kReplay) return s + "  " + c.note + "\n";
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
    ModelRows model;
    if (!model.Read()) {
        std::fprintf(stderr, "tql_soak: no rows 13 and 14 of GL_6L3 in %s/parameter.db\n", dir.path().c_str());
        return 2;
    }
    std::thread(Watch, opt.timeout_s).detach();
    std::string note;
    auto watch = [&](const std::string& text) {  // (re)starts the case's wall-time limit
        crash_note = "";
        note = text;
        crash_note = note.c_str();
        deadline = WallNow() + opt.timeout_s;
    };
    long runs = 0, accepted_runs = 0, refused_runs = 0, violations = 0;
    long beyond_limits = 0, beyond_peak = 0;  // over all cases
    long beyond_joint_limits = 0;             // cases beyond the joints' limits by finite differences (1 %)
    long ran_to_refusal = 0;                  // pre-flight off: moved up to a failing period
    long collisions = 0, collisions_spoiled = 0;  // jobs stopped by the collision monitor (on a spoiled row 13)
    double worst_ratio = 0.0;
    std::string worst_case;
    const long first = opt.only_case >= 0 ? opt.only_case : 0;
    const long last = opt.only_case >= 0 ? opt.only_case + 1 : opt.runs;
    tql::Progress progress("soak: case", last - first);
    for (long k = first; k < last; ++k, ++runs) {
        progress.Update(k - first + 1);
        const std::string head = "  seed " + std::to_string(opt.seed) + " case " + std::to_string(k) + "\n";
        watch(head + "  (booting)\n");
        Dice dice(opt.seed, k), fresh(opt.seed, k, kNewJobStream);
        const Joints start = StartPose(dice);
        Case c;
        const bool new_job = MakeNewJobCase(fresh, k, start, model, &c);
        const bool rows_written = model.Write(c);
        const std::string boot = BootFresh(start);
        tqltest::Quiet([&] {  // after the boot: uses the robot's kinematics
            if (!new_job) c = MakeCase(dice, k, start);
            if (c.job == Job::kReplay && fresh.Chance(0.5)) Malform(fresh, &c);
            return 0;
        });
        Dice stops(opt.seed, k, kStopStream);
        if (c.job <= Job::kReplay && stops.Chance(1.0 / 3)) c.stop_after = stops.Int(1, 1500);
        c.preflight_off = stops.Chance(0.25);
        watch(head + Describe(opt.seed, c, ""));
        Outcome o;
        bool accepted = false;
        // Spoiled rows may be refused by the boot already.
        const bool refused_at_boot = new_job && boot.find("Parameter error") != std::string::npos;
        if (boot.empty()) Run(c, &o);
        if (refused_at_boot) RefusedAtBoot(boot, &o);
        std::string why = "no boot with the pre-flight on at the power-up pose: " + boot;
        if (boot.empty() || refused_at_boot) why = Judge(c, o, &accepted);
        if (!rows_written) why = "cannot write the case's rows into parameter.db";
        deadline = 0;
        ran_to_refusal += o.ran_to_refusal;
        if (o.out.find("  CollisionDetection.") != std::string::npos) ++(c.row13.empty() ? collisions : collisions_spoiled);
        if (!(c.preflight_off && c.beyond_by_design)) {
            beyond_joint_limits += o.worst_ratio > 1.01;
            if (o.worst_ratio > worst_ratio)
                worst_ratio = o.worst_ratio, worst_case = "case " + std::to_string(k) + ", the " + o.worst_at;
        }
        beyond_limits += o.beyond - o.beyond_peak;
        beyond_peak += o.beyond_peak;
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
    std::printf("soak: %ld set-points beyond the actuators' limits, %ld currents beyond their peak\n", beyond_limits,
                beyond_peak);
    std::printf("soak: %ld cases with the pre-flight off ran up to a refused period\n", ran_to_refusal);
    std::printf("soak: %ld collisions noticed where no obstacle stands: %ld in jobs beyond the joints' limits by design "
                "with the pre-flight off, %ld floating the arm on a spoiled row 13, 0 elsewhere\n",
                collisions + collisions_spoiled, collisions, collisions_spoiled);
    std::printf("soak: %ld cases beyond the joints' limits by finite differences (1 %%)%s\n", beyond_joint_limits,
                worst_case.empty() ? ""
                                   : ("; the closest: " + Number(worst_ratio) + " times, " + worst_case).c_str());
    return violations > 0 ? 1 : 0;
}
