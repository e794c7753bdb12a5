// The bus: loading from the working directory, the per-call lock, motion of
// the actuators over bus time, errors, command bookkeeping and the exit work
// (state file, recorder summary).
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <limits>

#include "sim_bus.h"

namespace tqlsim {
namespace {

std::atomic<bool> bus_loaded{false};
bool exit_handler_registered = false;  // guarded by the bus mutex
// Bus time of the earliest scripted interrupt not yet raised (infinite: none),
// so calls need no scan of the list, and the clock functions no lock, until then.
std::atomic<double> next_interrupt{std::numeric_limits<double>::infinity()};

std::string CurrentDirectory() {
    char buf[PATH_MAX];
    if (getcwd(buf, sizeof buf) == nullptr) return ".";
    return buf;
}

// At process exit: the arm keeps its state, and a recording ends with its
// one-line summary on standard error.
void OnExit() {
    Bus& bus = TheBus();
    std::lock_guard<std::mutex> lock(bus.mutex);
    if (!bus.loaded) return;
    SaveBusState(bus);  // a vanished working directory just means nothing is kept
    if (bus.recorder.IsOpen()) {
        bus.recorder.Close();
        std::fprintf(stderr, "sim: %ld commands, %ld beyond limits\n", bus.command_count, bus.beyond_limit_count);
        std::fflush(stderr);
    }
}

SimActuator MakeActuator(const Config& config, const PersistedState& persisted, uint8_t id) {
    SimActuator a;
    a.id = id;
    auto it = persisted.find(id);
    if (it != persisted.end()) {
        a.raw_position = it->second.position;
        a.homing_offset = it->second.homing_offset;
        a.has_saved = it->second.has_settings;
    } else {
        a.raw_position = config.InitialPosition(id);
    }
    a.saved = a.has_saved ? it->second.settings : config.FactorySettings(id);
    a.live = a.saved;
    a.seen_position = ReportedPosition(a);
    a.reference_setpoint = a.seen_position;
    RestartReference(a, 0.0);
    return a;
}

}  // namespace

std::string InDirectory(const std::string& dir, const std::string& path) {
    if (!path.empty() && path[0] == '/') return path;
    return dir + "/" + path;
}

Bus& TheBus() {
    // Never destroyed, so the exit handler finds it whatever the order of exit work.
    static Bus* bus = new Bus;
    return *bus;
}

void LoadBus(Bus& bus) {
    bus.recorder.Close();
    bus.directory = CurrentDirectory();
    bus.config = LoadConfig(bus.directory);
    StartClock(bus.config.virtual_clock);
    ArmInterrupts(bus);

    std::string problem;
    const std::string state_path = bus.directory + "/sim_state.txt";
    if (!ReadStateFile(state_path, &bus.persisted, &problem) && !problem.empty())
        std::fprintf(stderr, "sim: %s: %s; starting from the factory defaults\n", state_path.c_str(),
                     problem.c_str());

    bus.actuators.clear();
    for (uint8_t id : bus.config.ids) bus.actuators.push_back(MakeActuator(bus.config, bus.persisted, id));
    bus.discovered = false;
    bus.command_count = 0;
    bus.beyond_limit_count = 0;
    bus.current_beyond_peak_count = 0;
    bus.digital_outputs.clear();
    bus.error_callbacks.clear();
    bus.para_callbacks.clear();
    LoadPhysics(bus);

    if (!bus.config.record_path.empty()) {
        const std::string path = InDirectory(bus.directory, bus.config.record_path);
        if (!bus.recorder.Open(path)) std::fprintf(stderr, "sim: cannot write the recording %s\n", path.c_str());
    }
    if (!exit_handler_registered) {
        std::atexit(&OnExit);
        exit_handler_registered = true;
    }
    bus.loaded = true;
    bus_loaded.store(true);
}

void ArmInterrupts(Bus& bus) {
    double next = std::numeric_limits<double>::infinity();
    for (const ScriptedInterrupt& i : bus.config.interrupts)
        if (!i.fired) next = std::min(next, i.at_time);
    next_interrupt.store(next);
}

int TakeDueInterrupts(Bus& bus, double now) {
    if (now < next_interrupt.load()) return 0;
    int due = 0;
    for (ScriptedInterrupt& i : bus.config.interrupts) {
        if (i.fired || now < i.at_time) continue;
        i.fired = true;
        ++due;
    }
    ArmInterrupts(bus);
    return due;
}

void RaiseInterrupts(int count) {
    // One per listed time, as the operator pressing Ctrl-C that often. Sent to
    // the process, as the terminal does, so it reaches whichever thread takes
    // it (a thread that blocks SIGINT, e.g. the hand-guiding loop's, never does).
    for (int k = 0; k < count; ++k) kill(getpid(), SIGINT);
}

void RaiseDueInterrupts() {
    if (BusNow() < next_interrupt.load()) return;
    int due = 0;
    {
        Bus& bus = TheBus();
        std::lock_guard<std::mutex> lock(bus.mutex);
        due = TakeDueInterrupts(bus, BusNow());
    }
    RaiseInterrupts(due);
}

void EnsureLoaded() {
    if (bus_loaded.load()) return;
    BusCall call;
}

bool SaveBusState(Bus& bus) {
    for (const SimActuator& a : bus.actuators) {
        PersistedActuator& p = bus.persisted[a.id];
        p.position = a.raw_position;
        p.homing_offset = a.homing_offset;
        p.has_settings = a.has_saved;
        p.settings = a.saved;
    }
    return WriteStateFile(bus.directory + "/sim_state.txt", bus.persisted);
}

SimActuator* FindActuator(Bus& bus, uint8_t id) {
    for (SimActuator& a : bus.actuators)
        if (a.id == id) return &a;
    return nullptr;
}

std::string ErrorText(uint32_t code) {
    struct Name {
        uint32_t code;
        const char* text;
    };
    static const Name names[] = {
        {Actuator::ERR_ACTUATOR_OVERVOLTAGE, "actuator overvoltage"},
        {Actuator::ERR_ACTUATOR_UNDERVOLTAGE, "actuator undervoltage"},
        {Actuator::ERR_ACTUATOR_LOCKED_ROTOR, "actuator locked rotor"},
        {Actuator::ERR_ACTUATOR_OVERHEATING, "actuator overheating"},
        {Actuator::ERR_ACTUATOR_READ_OR_WRITE, "actuator read or write error"},
        {Actuator::ERR_ACTUATOR_MULTI_TURN, "actuator multi-turn error"},
        {Actuator::ERR_INVERTOR_TEMPERATURE_SENSOR, "inverter temperature sensor error"},
        {Actuator::ERR_CAN_COMMUNICATION, "CAN communication error"},
        {Actuator::ERR_ACTUATOR_TEMPERATURE_SENSOR, "actuator temperature sensor error"},
        {Actuator::ERR_STEP_OVER, "step over"},
        {Actuator::ERR_DRV_PROTECTION, "driver protection"},
        {Actuator::ERR_CODER_DISABLED, "encoder disabled"},
        {Actuator::ERR_ACTUATOR_DISCONNECTION, "actuator disconnected"},
        {Actuator::ERR_CAN_DISCONNECTION, "CAN disconnected"},
        {Actuator::ERR_IP_ADDRESS_NOT_FOUND, "IP address not found"},
        {Actuator::ERR_ABNORMAL_SHUTDOWN, "abnormal shutdown"},
        {Actuator::ERR_SHUTDOWN_SAVING, "shutdown saving"},
        {Actuator::ERR_IP_HAS_BIND, "IP address already bound"},
        {Actuator::ERR_ID_UNUNIQUE, "actuator id not unique"},
        {Actuator::ERR_IP_CONFLICT, "IP address conflict"},
    };
    for (const Name& n : names)
        if (n.code == code) return n.text;
    for (const Name& n : names)  // several bits: name the lowest known one
        if (n.code <= 0x800 && (code & n.code) != 0) return n.text;
    return "unknown error";
}

BusCall::BusCall() : bus(TheBus()), now(0.0), lock_(TheBus().mutex) {
    if (!bus.loaded) LoadBus(bus);
    now = BusNow();
    for (SimActuator& a : bus.actuators) Advance(a, now);
    AdvanceWorld(bus, now);
    for (ErrorFault& f : bus.config.faults.errors) {
        if (f.fired || !f.by_time || now < f.at_time) continue;
        f.fired = true;
        if (SimActuator* a = FindActuator(bus, f.id)) RaiseError(*this, *a, f.code);
    }
    interrupts = TakeDueInterrupts(bus, now);
}

BusCall::~BusCall() {
    std::vector<ActuatorController::ErrorCallback> error_cbs;
    std::vector<ActuatorController::ParaRequestCallback> para_cbs;
    if (!errors.empty()) error_cbs = bus.error_callbacks;
    if (!paras.empty()) para_cbs = bus.para_callbacks;
    const std::string ip = bus.config.ip_address;
    lock_.unlock();
    RaiseInterrupts(interrupts);
    // The callbacks belong to the caller; an exception from one has nowhere to go.
    try {
        for (const ErrorNotice& e : errors)
            for (auto& cb : error_cbs)
                if (cb) cb(ActuatorController::UnifiedID(e.id, ip), static_cast<uint16_t>(e.code), ErrorText(e.code));
        for (const ParaNotice& p : paras)
            for (auto& cb : para_cbs)
                if (cb) cb(ActuatorController::UnifiedID(p.id, ip), p.attribute, p.value);
    } catch (...) {
    }
}

void RecordCommand(BusCall& call, int id, const char* command, double value) {
    const SimActuator* a = FindActuator(call.bus, static_cast<uint8_t>(id));
    ++call.bus.command_count;
    ++call.bus.physics.generation;  // the readings' commanded motion may change
    call.bus.recorder.Row(call.now, id, a != nullptr ? a->mode : 0, command, value);
}

void RaiseError(BusCall& call, SimActuator& a, uint32_t code) {
    const bool already = (a.error_word & code) == code;
    a.error_word |= code;
    // A faulted actuator stops where it is.
    a.step_time = -1.0;
    a.velocity_command = 0.0;
    ++call.bus.physics.generation;
    if (!already) call.errors.push_back(ErrorNotice{a.id, code});
}

double ReportedPosition(const SimActuator& a) { return a.raw_position - a.homing_offset; }

double ClampToLimits(const SimActuator& a, double reported) {
    if (a.live.min_position > a.live.max_position) return reported;  // limits unusable
    return std::min(std::max(reported, a.live.min_position), a.live.max_position);
}

bool Moving(const SimActuator& a) { return a.enabled && a.error_word == 0; }

namespace {

double CommandedRpm(const SimActuator& a) {
    const double lim = std::fabs(a.live.velocity_limit);
    return std::min(std::max(a.velocity_command, -lim), lim);
}

}  // namespace

void Advance(SimActuator& a, double now) {
    const double dt = now - a.motion_time;
    a.motion_time = now;
    if (!(dt > 0.0) || a.mode != Actuator::Mode_Vel || !Moving(a)) return;
    const double reported = ReportedPosition(a) + CommandedRpm(a) / 60.0 * dt;
    a.raw_position = ClampToLimits(a, reported) + a.homing_offset;
}

double LiveVelocity(Bus& bus, const SimActuator& a, double now) {
    if (!Moving(a)) return 0.0;
    if (a.mode == Actuator::Mode_Cur) return WorldRpm(bus, a);
    if (a.mode == Actuator::Mode_Pos)
        return (a.step_time >= 0.0 && now - a.step_time <= kMotionHold + 1e-12) ? a.step_velocity : 0.0;
    if (a.mode == Actuator::Mode_Vel) {
        const double v = CommandedRpm(a);
        const double p = ReportedPosition(a);
        if (a.live.min_position <= a.live.max_position &&
            ((v > 0.0 && p >= a.live.max_position) || (v < 0.0 && p <= a.live.min_position)))
            return 0.0;  // standing at a limit
        return v;
    }
    return 0.0;
}

void RestartReference(SimActuator& a, double now) {
    a.reference_setpoint = ReportedPosition(a);
    a.reference_time = now;
    a.step_time = -1.0;
    for (int k = 0; k < 3; ++k) {
        a.applied_raw[k] = a.raw_position;
        a.applied_time[k] = now;
    }
}

void NoteAppliedSetpoint(SimActuator& a, double raw, double now) {
    for (int k = 2; k > 0; --k) {
        a.applied_raw[k] = a.applied_raw[k - 1];
        a.applied_time[k] = a.applied_time[k - 1];
    }
    a.applied_raw[0] = raw;
    a.applied_time[0] = now;
}

}  // namespace tqlsim
