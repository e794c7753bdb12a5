#include "desk.h"

#include <dlfcn.h>
#include <pthread.h>
#include <sched.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <list>
#include <memory>
#include <sstream>

#include "database.h"
#include "durable_file.h"
#include "editor.h"
#include "execute.h"
#include "instruction.h"
#include "interface.h"
#include "interpolation.h"
#include "program.h"
#include "timing.h"

namespace pendant {

namespace {

constexpr size_t kKeptLines = 200;       // dialogue lines kept for the pages
constexpr size_t kMaxProgramBytes = 200000;  // the editor's text (a program of 1000 moves is ~90 kB)
constexpr double kDegree = 180.0 / 3.1415926;  // rad to degrees as program lines write them
constexpr double kTrajectoryDegrees = 57.295780490442965;  // rad to degrees, as recorded trajectories

Json Error(std::string text) { return Json{{"ok", false}, {"error", std::move(text)}}; }
Json Ok() { return Json{{"ok", true}}; }

// The words a STEP run waits for, from the pages (FORWARD, BACKWARD, EXIT).
std::mutex step_mutex;
std::condition_variable step_wake;
std::deque<std::string> step_words;

void PushStepWord(const std::string& word) {
    {
        std::lock_guard<std::mutex> lock(step_mutex);
        step_words.push_back(word);
    }
    step_wake.notify_all();
}

// What a run prints to std::cout while `body` runs on the worker (nothing
// else writes there then: the worker is the only thread in the library).
template <typename Body>
std::string Captured(Body body) {
    std::ostringstream text;
    std::streambuf* saved = std::cout.rdbuf(text.rdbuf());
    body();
    std::cout.rdbuf(saved);
    return text.str();
}

std::vector<std::string> Lines(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        if (!line.empty() && line.back() == '\r') line.pop_back();
        lines.push_back(line);
    }
    return lines;
}

bool CommentLine(const std::string& line) {
    const size_t first = line.find_first_not_of(" \t");
    return first != std::string::npos && line.compare(first, 2, "//") == 0;
}

// The program line a message names ("Line N ..."), 0 when it names none.
int NamedLine(const std::string& message) {
    int line = 0;
    return std::sscanf(message.c_str(), "Line %d", &line) == 1 && line > 0 ? line : 0;
}

int Joints() { return GetCurrentRobot()->GetRobotJointNum(); }

// The digital outputs as the programs switched them, for the pages; passed on
// to the simulated bus's outputs when it offers them (on the board, the
// integrator's own handler takes this one's place).
std::atomic<bool> outputs[kMaxDigitalOutput + 1];
DigitalOutputHandler bus_outputs = nullptr;

void SwitchOutput(int output, int on) {
    if (output < 0 || output > kMaxDigitalOutput) return;
    outputs[output].store(on != 0);
    if (bus_outputs != nullptr) bus_outputs(output, on);
}

}  // namespace

// ---- the library's dialogue

bool OutputTap::Start() {
    int fds[2];
    if (pipe(fds) != 0) return false;
    original_fd_ = dup(STDOUT_FILENO);
    if (original_fd_ < 0 || dup2(fds[1], STDOUT_FILENO) < 0) {
        close(fds[0]);
        close(fds[1]);
        return false;
    }
    close(fds[1]);
    read_fd_ = fds[0];
    // Line by line into the pipe, so a page sees a message when it is whole.
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    thread_ = std::thread([this] { Pump(); });
    return true;
}

void OutputTap::Stop() {
    if (read_fd_ < 0) return;
    std::fflush(stdout);
    std::cout.flush();
    dup2(original_fd_, STDOUT_FILENO);  // the pipe's last writer closes: the pump reads its end
    if (thread_.joinable()) thread_.join();
    close(read_fd_);
    close(original_fd_);
    read_fd_ = original_fd_ = -1;
}

void OutputTap::Pump() {
    char buffer[4096];
    for (;;) {
        const ssize_t got = read(read_fd_, buffer, sizeof buffer);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) break;
        for (ssize_t done = 0; done < got;) {
            const ssize_t put = write(original_fd_, buffer + done, static_cast<size_t>(got - done));
            if (put < 0 && errno == EINTR) continue;
            if (put <= 0) break;
            done += put;
        }
        std::lock_guard<std::mutex> lock(mutex_);
        for (ssize_t i = 0; i < got; ++i) {
            if (buffer[i] != '\n') {
                if (partial_.size() < 1000) partial_ += buffer[i];
                continue;
            }
            lines_.push_back(partial_);
            partial_.clear();
            if (lines_.size() > kKeptLines) lines_.pop_front();
        }
    }
}

std::vector<std::string> OutputTap::Last(size_t count) const {
    std::lock_guard<std::mutex> lock(mutex_);
    const size_t from = lines_.size() > count ? lines_.size() - count : 0;
    return std::vector<std::string>(lines_.begin() + static_cast<long>(from), lines_.end());
}

// ---- the worker

Desk::Desk(std::string program, std::string trajectory, OutputTap* tap)
    : program_(std::move(program)), trajectory_(std::move(trajectory)), tap_(tap) {}

Desk::~Desk() { Stop(); }

void Desk::Start(const std::string& job, bool stay) {
    job_ = job;
    stay_ = stay;
    SetStepWordSource(&Desk::StepWord);
    bus_outputs = reinterpret_cast<DigitalOutputHandler>(dlsym(RTLD_DEFAULT, "tql_sim_digital_output"));
    SetDigitalOutputHandler(&SwitchOutput);
    worker_ = std::thread([this] { Work(); });
}

void Desk::Stop() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        quit_ = true;
    }
    wake_.notify_all();
    if (Busy()) SetStopFlag();
    ReleaseJog();
    PushStepWord("EXIT");
    if (freed_.load()) SetRunningMode(kReplayPathMode);
    if (worker_.joinable()) worker_.join();
    SetStepWordSource(nullptr);
}

bool Desk::StepWord(std::string* word) {
    std::unique_lock<std::mutex> lock(step_mutex);
    step_wake.wait(lock, [] { return !step_words.empty(); });
    *word = step_words.front();
    step_words.pop_front();
    return true;
}

void Desk::Work() {
    // The control loops run on this thread: real-time priority when
    // TQL_REALTIME=1 asks for it, for this thread alone (the server's and the
    // dialogue's threads started before it and keep the normal one).
    tql::RequestRealTimeIfAsked();
    if (!job_.empty()) {
        char name[] = "tql";
        std::vector<char> word(job_.begin(), job_.end());
        word.push_back('\0');
        char* argv[] = {name, word.data(), nullptr};
        job_result_.store(RunningProgram(2, argv));
        job_done_.store(true);
        ClearTerminalFlag();
        if (job_ == "mode0" || !stay_) {
            std::lock_guard<std::mutex> lock(mutex_);
            activity_ = "idle";
            return;
        }
    }
    // After a job too: the job's end may have switched the actuators off.
    if (Boot() < 0) std::cerr << "tql-pendant: the arm did not boot; the pendant only shows it" << std::endl;
    for (;;) {
        Task task;
        {
            std::unique_lock<std::mutex> lock(mutex_);
            activity_ = "idle";
            wake_.wait(lock, [this] { return quit_ || pending_; });
            if (quit_) return;
            task = std::move(pending_);
            pending_ = nullptr;
        }
        task();
    }
}

void Desk::Submit(const std::string& activity, const Json& request, Reply reply, std::function<Json()> task) {
    const Json id = request.value("id", Json());
    std::unique_lock<std::mutex> lock(mutex_);
    if (activity_ != "idle" || pending_) {
        lock.unlock();
        Json busy = Error("the arm is busy (" + activity_ + "); stop it first");
        busy["id"] = id;
        reply(std::move(busy));
        return;
    }
    activity_ = activity;
    pending_ = [this, task = std::move(task), reply = std::move(reply), id] {
        InitStopFlag();
        Json answer = task();
        answer["id"] = id;
        {
            // At rest before the reply: the page's next request finds the arm free.
            std::lock_guard<std::mutex> done(mutex_);
            activity_ = "idle";
        }
        reply(std::move(answer));
    };
    lock.unlock();
    wake_.notify_all();
}

bool Desk::Busy() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return activity_ != "idle";
}

// ---- what the pages see

Json Desk::Hello() const {
    Robot* robot = GetCurrentRobot();
    const int n = robot->GetRobotJointNum();
    double lo[kMaxJointNum] = {}, hi[kMaxJointNum] = {};
    GetMinLimit(lo);
    GetMaxLimit(hi);
    AccDecDate limits[kMaxJointNum], line, turn;
    robot->GetJointSpeedAccDecParameters(limits);
    robot->GetLineSpeedAccDecParameters(&line);
    robot->GetRotateSpeedAccDecParameters(&turn);
    Json joints = Json::array();
    for (int i = 0; i < n; ++i)
        joints.push_back({{"min_deg", lo[i]},
                          {"max_deg", hi[i]},
                          // JogWhileHeld's speed at a share of 1: a quarter of the limit.
                          {"jog_deg_s", 0.25 * limits[i].speed * 180.0 / M_PI}});
    const ResourceData* rd = GetResourceDate();
    Json workspace = nullptr;
    if (rd->workspace_box_set)
        workspace = std::vector<double>(rd->workspace_box, rd->workspace_box + 6);
    return {{"type", "hello"},
            {"joints", joints},
            {"jog_mm_s", 0.25 * line.speed},
            {"jog_turn_deg_s", 0.25 * turn.speed * 180.0 / M_PI},
            {"workspace_box_mm", workspace},
            {"program", program_},
            {"trajectory", trajectory_},
            {"renew_timeout_s", kJogRenewTimeout}};
}

Json Desk::State() const {
    const int n = Joints();
    double q[kMaxJointNum] = {}, pose[6] = {};
    GetRealTimePos(q, pose);
    std::string error;
    GetErrorCode(error);
    if (error == "NULL") error.clear();  // the library's text for no report yet
    Json outputs = Json::array();
    for (int k = 0; k <= kMaxDigitalOutput; ++k)
        if (pendant::outputs[k].load()) outputs.push_back(k);
    std::string activity;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        activity = activity_;
    }
    if (activity == "idle" && freed_.load()) activity = "free";
    return {{"type", "state"},
            {"joints_deg", std::vector<double>(q, q + n)},
            {"pose", std::vector<double>(pose, pose + 6)},
            {"activity", activity},
            {"recording", recording_.load()},
            {"mode", static_cast<int>(GetCurrentRunningMode())},
            {"status", GetSystemStatus()},
            {"line", GetRunningProgramLine()},
            {"outputs", outputs},
            {"error", error},
            {"messages", tap_ != nullptr ? tap_->Last(12) : std::vector<std::string>()}};
}

// ---- requests

void Desk::Handle(const Json& request, Reply reply) {
    const std::string op = request.value("op", "");
    const Json id = request.value("id", Json());
    auto answer = [&](Json j) {
        j["id"] = id;
        reply(std::move(j));
    };
    // Requests that never wait on a motion.
    if (op == "heartbeat") {
        RenewJog();
        return;  // no reply: ten a second
    }
    if (op == "release") {
        ReleaseJog();
        return answer(Ok());
    }
    if (op == "stop") {
        ReleaseJog();
        SetStopFlag();
        PushStepWord("EXIT");
        if (freed_.load()) EndFree();
        return answer(Ok());
    }
    if (op == "step") {
        const std::string direction = request.value("direction", "");
        if (direction != "forward" && direction != "backward") return answer(Error("step: forward or backward"));
        PushStepWord(direction == "forward" ? "FORWARD" : "BACKWARD");
        return answer(Ok());
    }
    if (op == "teach") return answer(Teach(request.value("move", "MOVJ")));
    if (op == "load_program") {
        std::ifstream in(program_, std::ios::binary);
        std::ostringstream text;
        text << in.rdbuf();
        return answer({{"ok", static_cast<bool>(in)}, {"text", text.str()}});
    }
    if (op == "hold") {
        if (!freed_.load()) return answer(Error("the arm is not free"));
        EndFree();
        return answer(Ok());
    }
    if (op == "record_start") {
        if (!freed_.load()) return answer(Error("free the arm first: a recording follows the hand"));
        if (recording_.exchange(true)) return answer(Error("already recording"));
        samples_.assign(static_cast<size_t>(kMaxTrajectoryRows) * Joints(), 0.0);
        StartMonitoredRecording(samples_.data(), kMaxTrajectoryRows, Joints());
        return answer(Ok());
    }
    if (op == "record_stop") return answer(RecordStop());

    // Requests that move the arm or need it at rest: on the worker.
    if (op == "jog") {
        const std::string kind = request.value("kind", "joint");
        const int index = request.value("index", -1), direction = request.value("direction", 0);
        const double speed = request.value("speed", 0.5);
        if ((kind != "joint" && kind != "cartesian") || index < 0 || index > 5 || (direction != 1 && direction != -1) ||
            !(speed > 0.0 && speed <= 1.0))
            return answer(Error("jog: kind joint or cartesian, index 0..5, direction 1 or -1, speed (0, 1]"));
        if (freed_.load()) return answer(Error("the arm is free: hold it first"));
        const auto pressed = std::chrono::steady_clock::now();
        return Submit("jog", request, std::move(reply), [=] {
            // The pendant's own latency: from the request's arrival to the
            // first set-point, seen as the real-time position changing.
            const int n = Joints();
            std::atomic<bool> jogging{true};
            double first_ms = -1.0;
            std::thread watch([&] {
                sched_param normal{};
                pthread_setschedparam(pthread_self(), SCHED_OTHER, &normal);  // not the worker's priority
                double start[kMaxJointNum] = {}, q[kMaxJointNum] = {};
                CopyRealTimePos(start, n);
                while (jogging.load()) {
                    CopyRealTimePos(q, n);
                    if (!std::equal(q, q + n, start)) {
                        first_ms = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - pressed).count();
                        return;
                    }
                    std::this_thread::sleep_for(std::chrono::microseconds(200));
                }
            });
            const int result = JogWhileHeld(kind == "joint" ? kHeldJogJoint : kHeldJogCartesian, index, direction, speed);
            jogging.store(false);
            watch.join();
            Json answer = result < 0 ? Error("jog refused or stopped (see the messages)") : Ok();
            if (first_ms >= 0.0) answer["first_setpoint_ms"] = first_ms;
            return answer;
        });
    }
    if (op == "check_program") {
        const std::string text = request.value("text", "");
        if (text.size() > kMaxProgramBytes) return answer(Error("the program is too long"));
        return Submit("check", request, std::move(reply), [this, text] {
            const std::string scratch = program_ + ".check";
            { std::ofstream(scratch, std::ios::binary | std::ios::trunc) << text; }
            Json result = Check(scratch);
            std::remove(scratch.c_str());
            return result;
        });
    }
    if (op == "save_program") {
        const std::string text = request.value("text", "");
        if (text.size() > kMaxProgramBytes) return answer(Error("the program is too long"));
        // A half-taught arc belongs to the program being replaced. Here, on
        // the server's thread, where teaching keeps it.
        have_auxiliary_ = false;
        return Submit("save", request, std::move(reply), [this, text] { return SaveProgram(text); });
    }
    if (op == "run") {
        if (freed_.load()) return answer(Error("the arm is free: hold it first"));
        {
            // Words sent before this run are not its steps; those sent from
            // now on are, even before the worker takes the run up.
            std::lock_guard<std::mutex> lock(step_mutex);
            step_words.clear();
        }
        return Submit("program", request, std::move(reply), [this, request] { return RunProgram(request); });
    }
    if (op == "free") return Submit("free", request, std::move(reply), [this] { return Free(); });
    if (op == "replay") {
        if (freed_.load()) return answer(Error("the arm is free: hold it first"));
        const double override_value = request.value("override", 1.0);
        if (!(override_value > kOverrideLow && override_value < kOverrideHigh)) return answer(Error("override: 0.1 .. 1"));
        return Submit("replay", request, std::move(reply), [this, override_value] {
            SetReplayOverride(override_value);
            return MoveTrajectory(GetCurrentRobot(), trajectory_, false) < 0 ? Error("replay refused or stopped")
                                                                              : Ok();
        });
    }
    if (op == "home") {
        if (freed_.load()) return answer(Error("the arm is free: hold it first"));
        return Submit("home", request, std::move(reply),
                      [] { return MoveToHomePosition() < 0 ? Error("the move home was refused or stopped") : Ok(); });
    }
    answer(Error("unknown op \"" + op + "\""));
}

void Desk::ControllerGone() { ReleaseJog(); }

Json Desk::Teach(const std::string& move) {
    if (move != "MOVJ" && move != "MOVL" && move != "MOVC") return Error("teach: MOVJ, MOVL or MOVC");
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (activity_ != "idle" && !freed_.load()) return Error("the arm is moving (" + activity_ + ")");
    }
    const int n = Joints();
    double q[kMaxJointNum] = {};
    CopyRealTimePos(q, n);
    if (move == "MOVC" && !have_auxiliary_) {
        std::copy(q, q + n, auxiliary_);
        have_auxiliary_ = true;
        return {{"ok", true}, {"auxiliary", true}};
    }
    // The line as the teaching dialogue writes it.
    std::ostringstream line;
    if (move == "MOVJ") WriteProgramLine(line, "MOVJ VJ=100 z5 ", q, n);
    if (move == "MOVL") WriteProgramLine(line, "MOVL V=200 z5 ", q, n);
    if (move == "MOVC") {
        line << "MOVC V=200 z5 ";
        WriteProgramDegrees(line, auxiliary_, n);
        line << ',';
        WriteProgramLine(line, "", q, n);
        have_auxiliary_ = false;
    }
    // The program is written whole beside its name and renamed into place.
    std::ifstream in(program_, std::ios::binary);
    std::ostringstream text;
    if (in) text << in.rdbuf();
    std::string whole = text.str();
    if (!whole.empty() && whole.back() != '\n') whole += '\n';
    whole += line.str();
    const std::string part = tql::PartFileName(program_);
    { std::ofstream(part, std::ios::binary | std::ios::trunc) << whole; }
    if (tql::CommitFile(part, program_) < 0) return Error("could not write " + program_);
    std::string written = line.str();
    if (!written.empty() && written.back() == '\n') written.pop_back();
    return {{"ok", true}, {"line", written}};
}

Json Desk::Check(const std::string& file) {
    Robot* robot = GetCurrentRobot();
    const int n = Joints();
    int count = 0;
    bool decoded = true;
    const std::string printed = Captured([&] {
        std::list<InstructionUnit> list;
        if (DecodeInstructionFile(file, &list) < 0) {
            decoded = false;
            return;
        }
        std::unique_ptr<InterpolationData[]> table(new InterpolationData[kInterpolationTableSize]);
        double current[kMaxJointNum] = {};
        CopyRealTimePos(current, n);
        if (InstructionDataToMoveData(&list, table.get(), current, robot, &count) < 0) count = -1;
    });
    // The decoder counts instructions in its message: find the physical line
    // it stopped at by decoding the lines one by one.
    int failing = 0;
    if (!decoded) {
        std::ifstream in(file, std::ios::binary);
        std::ostringstream text;
        text << in.rdbuf();
        const std::vector<std::string> lines = Lines(text.str());
        Captured([&] {
            for (size_t k = 0; k < lines.size() && failing == 0; ++k) {
                if (lines[k].size() > static_cast<size_t>(kMaxInstructionLineLength)) {
                    failing = static_cast<int>(k + 1);
                    continue;
                }
                if (CommentLine(lines[k])) continue;
                std::vector<char> buffer(lines[k].begin(), lines[k].end());
                buffer.resize(kMaxInstructionLineLength + 2, '\0');
                InstructionUnit unit;
                if (unit.DecodeInstruction(buffer.data()) < 0) failing = static_cast<int>(k + 1);
            }
        });
    }
    Json messages = Json::array();
    for (std::string message : Lines(printed)) {
        if (message.empty()) continue;
        // A check of the editor's text names the program, not its scratch copy.
        for (size_t at; (at = message.find(file)) != std::string::npos && file != program_;)
            message.replace(at, file.size(), program_);
        const int named = NamedLine(message);
        messages.push_back({{"line", !decoded && failing > 0 ? failing : named}, {"text", message}});
    }
    const bool ok = decoded && count > 0;
    return {{"ok", ok}, {"moves", std::max(count, 0)}, {"messages", messages}};
}

Json Desk::SaveProgram(const std::string& text) {
    const std::string part = tql::PartFileName(program_);
    {
        std::ofstream out(part, std::ios::binary | std::ios::trunc);
        out << text;
        if (!out) {
            std::remove(part.c_str());
            return Error("could not write " + program_);
        }
    }
    if (tql::CommitFile(part, program_) < 0) return Error("could not write " + program_ + ": it is unchanged");
    Json result = Check(program_);
    result["saved"] = true;
    return result;
}

Json Desk::RunProgram(const Json& request) {
    Json check = Check(program_);
    if (!check["ok"].get<bool>()) {
        check["error"] = "the program does not decode: nothing moved";
        return check;
    }
    const std::string cycle = request.value("cycle", "once");
    const double override_value = request.value("override", 1.0);
    if (!(override_value > kOverrideLow && override_value < kOverrideHigh)) return Error("override: 0.1 .. 1");
    SetReplayOverride(override_value);
    SetSmoothReplay(request.value("blend", false));
    SetOperationCycleMode(cycle == "step" ? STEP : cycle == "continuous" ? CONTINUOUS : CYCLE);
    const int result = ReplayPath(program_);
    return result < 0 ? Error("the program was refused or stopped (see the messages)") : Ok();
}

Json Desk::Free() {
    if (GetCurrentRobot()->GetRobotJointNum() <= 0) return Error("no arm");
    freed_.store(true);
    SetRunningMode(kDragTeachingMode);
    InitStopFlag();  // the mode switch's stop would keep the recording from taking samples
    const int result = RealTimeMonitoringStartButton();
    if (recording_.exchange(false)) StopMonitoredRecording();
    freed_.store(false);
    ReplayMode();  // held where it stands
    return result < 0 ? Error("hand guiding refused or ended by a fault (see the messages)") : Ok();
}

void Desk::EndFree() { SetRunningMode(kReplayPathMode); }

Json Desk::RecordStop() {
    if (!recording_.exchange(false)) return Error("not recording");
    const long stored = StopMonitoredRecording();
    const int n = Joints();
    if (stored <= 1) return Error("nothing recorded: " + trajectory_ + " is unchanged");
    std::vector<double> degrees(samples_.begin(), samples_.begin() + stored * n);
    for (double& v : degrees) v *= kTrajectoryDegrees;
    if (SaveMatrixToFile(trajectory_, degrees.data(), static_cast<int>(stored), n) < 0)
        return Error("could not write " + trajectory_);
    return {{"ok", true}, {"samples", stored}};
}

}  // namespace pendant
