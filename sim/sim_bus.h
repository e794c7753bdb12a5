// Internal state of the simulated actuator bus, shared by the files of sim/.
//
// Frames and units: an actuator's raw position is its encoder position in
// revolutions; the reported position (what getPosition returns, what
// setPosition commands and what the limits bound) is raw - homing_offset.
// Velocities in revolutions per minute, currents in amperes, bus time in
// seconds since the bus was loaded (or reset).
#ifndef TQL_SIM_BUS_H
#define TQL_SIM_BUS_H

#include <cstdint>
#include <cstdio>
#include <map>
#include <mutex>
#include <random>
#include <string>
#include <vector>

#include "actuatorcontroller.h"
#include "sim_world.h"

namespace tqlsim {

// The library's control period; set-points closer together than this count
// as one period apart (two set-points in one tick are not an infinite speed).
constexpr double kPeriod = 0.004;
// A position-mode actuator reports the speed of its last set-point step for
// this long after it, then reports standing still.
constexpr double kMotionHold = 2.0 * kPeriod;
// Slack in the limit checks, so values that only went through a unit
// conversion round trip are not counted as beyond a limit.
constexpr double kLimitSlack = 1e-9;

// Settings an actuator keeps (in RAM until saveAllParams writes them to flash).
struct Settings {
    double min_position = -17.0;  // reported revolutions
    double max_position = 17.0;   // reported revolutions
    double velocity_limit = 1800.0;  // rpm
    double position_kp = 0.05;
    double position_ki = 0.0;
    double position_kd = 0.0;
    double velocity_kp = 12.0;
    double velocity_ki = 0.01;
    double lock_energy = 20000000.0;
};

// Drive train and current sensor of one actuator, as the physical world sees
// them. Joint angle [rad] = raw position [rev] * direction / reduction_ratio *
// 2*pi; joint torque [N*m] = current [A] * torque_constant * direction.
struct Drive {
    double reduction_ratio = 36.0;    // actuator turns per joint turn
    double torque_constant = 1.0623;  // joint N*m per ampere
    double direction = 1.0;           // mounting direction, +1 or -1
    double current_noise = 0.02;      // reading noise, standard deviation / peak_current
    double peak_current = 10.0;       // A
    double noise_seed = 1.0;          // seed of the reading noise (a whole number)
    double hand_stiffness = 40.0;     // scripted hand's spring, N*m/rad
    double hand_damping = 2.0;        // and damper, N*m*s/rad
};

// An error word that appears on one actuator at a set-point count or a time.
struct ErrorFault {
    uint8_t id = 0;
    uint32_t code = 0;
    bool by_time = false;
    long at_setpoint = 0;  // fires on this set-point count (since load/reset)
    double at_time = 0.0;  // bus seconds
    bool fired = false;
};

// The scripted operator's Ctrl-C: SIGINT, raised once by the first bus call
// at or after `at_time` (bus seconds).
struct ScriptedInterrupt {
    double at_time = 0.0;
    bool fired = false;
};

struct Faults {
    bool no_actuators = false;
    bool enable_failure = false;
    bool save_failure = false;
    std::vector<ErrorFault> errors;
};

// What sim.conf and the environment select.
// Something in the arm's way: a sphere (size[0] its radius) or a box
// (size its three edge lengths, axes of the base frame), base frame, m. The
// links, capsules of Config::link_radius along each link, are pushed back by
// stiffness * depth + damping * depth rate (N/m, N*s/m) where they reach in.
struct Obstacle {
    bool box = false;
    double centre[3] = {0.0, 0.0, 0.0};
    double size[3] = {0.0, 0.0, 0.0};
    double stiffness = 5000.0;
    double damping = 50.0;
};

// A scripted external torque on one joint (tql_sim_torque_pulse).
struct TorquePulse {
    int joint = 0;
    double at = 0.0;        // bus time it starts, s
    double torque = 0.0;    // N*m
    double duration = 0.0;  // s
};

struct Config {
    std::vector<uint8_t> ids{1, 2, 3, 4, 5, 6};
    std::string ip_address = "192.168.1.30";
    bool virtual_clock = false;
    std::string record_path;  // empty: recorder off
    Settings defaults;
    std::map<uint8_t, Settings> per_id;  // factory settings of single actuators
    double initial_position = 0.0;
    std::map<uint8_t, double> initial_per_id;
    Faults faults;
    std::string urdf_path = "arm.urdf";  // the world; empty: no physics (kinematic arm)
    std::string hand_path;              // scripted operator hand (CSV); empty: none
    Drive drive;                        // every actuator's drive train ...
    std::map<uint8_t, Drive> drive_per_id;  // ... unless given for one actuator
    std::vector<ScriptedInterrupt> interrupts;  // sim.conf "interrupt_at"
    std::vector<Obstacle> obstacles;  // sim.conf "obstacle" lines, or TQL_SIM_OBSTACLE
    double link_radius = 0.04;        // m, the links' capsules for contacts
    // What the arm carries (sim.conf "payload = M X Y Z": kg, and the centre
    // of mass in mm in the flange frame): a point mass on the last link.
    double payload_kg = 0.0;
    double payload_com[3] = {};  // m

    const Settings& FactorySettings(uint8_t id) const;
    double InitialPosition(uint8_t id) const;
    const Drive& DriveOf(uint8_t id) const;
};

// What sim_state.txt keeps of one actuator.
struct PersistedActuator {
    double position = 0.0;       // raw revolutions
    double homing_offset = 0.0;  // revolutions
    bool has_settings = false;   // saveAllParams was called at some time
    Settings settings;
};
using PersistedState = std::map<uint8_t, PersistedActuator>;

struct SimActuator {
    uint8_t id = 0;
    bool enabled = false;
    int mode = Actuator::Mode_None;
    uint32_t error_word = 0;

    double raw_position = 0.0;
    double homing_offset = 0.0;
    double motion_time = 0.0;       // bus time the motion state refers to
    double step_velocity = 0.0;     // rpm of the last applied position step
    double step_time = -1.0;        // bus time of that step
    double velocity_command = 0.0;  // rpm, velocity mode
    // A, current mode: the last finite set-point held within +-peak_current,
    // what the drive delivers (and what a current-mode reading reports).
    double current_command = 0.0;
    // A drive switched into current mode keeps holding its position until its
    // first current set-point arrives, so a mode switch never drops the arm.
    bool current_received = false;

    // The command stream: previous position set-point (reported frame) and its
    // time, restarted at the present position on enable and mode switches.
    double reference_setpoint = 0.0;
    double reference_time = 0.0;
    long setpoint_count = 0;
    double last_setpoint = 0.0;
    bool has_setpoint = false;
    // Position set-points applied in position mode, newest first: raw
    // revolutions and bus time (the commanded motion of the inverse dynamics;
    // a restart fills them with the present position).
    double applied_raw[3] = {0.0, 0.0, 0.0};
    double applied_time[3] = {-1.0, -1.0, -1.0};
    int joint = -1;  // world joint it drives, -1 without physics

    Settings live;   // in RAM
    Settings saved;  // in flash
    bool has_saved = false;

    // The SDK's copy of the last values received from the actuator.
    double seen_current = 0.0, seen_velocity = 0.0, seen_position = 0.0;
    bool reply_pending = false;
    double reply_current = 0.0, reply_velocity = 0.0, reply_position = 0.0;
};

// A notification to deliver once the bus lock is released.
struct ErrorNotice {
    uint8_t id;
    uint32_t code;
};
struct ParaNotice {
    uint8_t id;
    uint8_t attribute;
    double value;
};

class Recorder {
public:
    ~Recorder();
    // Starts recording to `path` (truncating it). False if it cannot be opened.
    bool Open(const std::string& path);
    bool IsOpen() const { return file_ != nullptr; }
    void Row(double time, int id, int mode, const char* command, double value);
    void Flush();
    void Close();

private:
    std::FILE* file_ = nullptr;
};

// One row of the scripted operator hand: seconds since the first switch to
// current mode, joint targets in rad (NaN: that joint is not held).
struct HandRow {
    double time = 0.0;
    std::vector<double> target;
};

// The physical world as the bus uses it; everything indexed by world joint.
struct Physics {
    World world;  // loaded: physics on
    std::vector<Drive> drive;
    std::vector<std::mt19937_64> rng;  // reading noise, one stream per joint
    std::vector<std::normal_distribution<double>> gauss;
    double time = 0.0;                // bus time the world state refers to
    std::vector<char> was_free;       // free at the previous advance
    std::vector<double> synced_raw;   // raw position last taken from / written by the world
    // Inverse dynamics readings (A, no noise), valid for one bus time and
    // command generation (every command bumps it).
    long generation = 0;
    double cache_time = -1.0;
    long cache_generation = -1;
    std::vector<double> cached_current;
    std::vector<double> q, dq, ddq, tau;  // work space
    std::vector<HandRow> hand;
    size_t hand_row = 0;  // interpolation cursor
    double hand_origin = -1.0;  // bus time of the first switch to current mode, -1 before
    std::vector<double> link_points, link_points_ahead, q_ahead, contact_dq;  // work space
    std::vector<Contact> contacts;
    double contacts_recorded = -1.0;  // bus time of the last "contact" rows
    std::vector<TorquePulse> pulses;
};

// The scripted external torque on joint j at bus time t (N*m).
double ExternalTorque(const Physics& p, int j, double t);

struct Bus {
    std::mutex mutex;
    bool loaded = false;
    std::string directory;  // working directory at load: sim.conf, sim_state.txt
    Config config;
    PersistedState persisted;  // as read, plus what was written since
    std::vector<SimActuator> actuators;
    bool discovered = false;
    Recorder recorder;
    long command_count = 0;
    long beyond_limit_count = 0;         // position and current set-points
    long current_beyond_peak_count = 0;  // of those, currents beyond the peak
    std::map<int, int> digital_outputs;  // output number -> 1 on, 0 off (switched since load)
    std::vector<ActuatorController::ErrorCallback> error_callbacks;
    std::vector<ActuatorController::ParaRequestCallback> para_callbacks;
    Physics physics;
};

// The one bus of the process (never destroyed: the exit handler uses it).
Bus& TheBus();

// Loads configuration, state and recorder from the current working directory
// and clears everything else. Caller holds the bus mutex.
void LoadBus(Bus& bus);
// Writes sim_state.txt from the live actuators; caller holds the mutex.
bool SaveBusState(Bus& bus);
SimActuator* FindActuator(Bus& bus, uint8_t id);
std::string ErrorText(uint32_t code);
// `path` relative to `dir` unless absolute.
std::string InDirectory(const std::string& dir, const std::string& path);

// One call into the bus: holds the lock (loading the bus on first use),
// brings every actuator's motion up to the bus clock and raises errors that
// are due; on leaving releases the lock, raises the scripted interrupts that
// came due and then delivers the notifications to the registered callbacks
// (signal handlers and callbacks never run under the lock).
class BusCall {
public:
    BusCall();
    ~BusCall();
    BusCall(const BusCall&) = delete;
    BusCall& operator=(const BusCall&) = delete;

    Bus& bus;
    double now;
    std::vector<ErrorNotice> errors;
    std::vector<ParaNotice> paras;
    int interrupts = 0;  // SIGINTs to raise once the lock is released

private:
    std::unique_lock<std::mutex> lock_;
};

// Command bookkeeping: counts the command and writes its recorder row.
void RecordCommand(BusCall& call, int id, const char* command, double value);
// Raises error word `code` on an actuator (no callback if already raised).
void RaiseError(BusCall& call, SimActuator& a, uint32_t code);
// Motion state of an actuator at the bus time (velocity mode integrates).
void Advance(SimActuator& a, double now);
double ReportedPosition(const SimActuator& a);
// A reported position held inside the actuator's limits (unchanged when the
// limits are unusable, min > max).
double ClampToLimits(const SimActuator& a, double reported);
// Enabled and free of errors: it obeys commands and draws current.
bool Moving(const SimActuator& a);
// Readings: rpm (position mode: the last step, velocity mode: the command,
// current mode with physics: the world's rate) and amperes (with physics: the
// inverse dynamics of the commanded motion, or the applied current in
// current mode, plus the seeded noise; without: the applied current in
// current mode, else 0; the applied current is the set-point held within the
// peak current). A reading draws from the actuator's noise stream.
double LiveVelocity(Bus& bus, const SimActuator& a, double now);
double LiveCurrent(Bus& bus, const SimActuator& a, double now);
// A position-mode actuator's current holding its set-point (A, no noise, not
// limited to the peak).
double HoldingCurrent(Bus& bus, const SimActuator& a, double now);
// Restarts the set-point reference at the present position (enable, mode switch).
void RestartReference(SimActuator& a, double now);
// An applied position-mode set-point (raw revolutions) enters the commanded motion.
void NoteAppliedSetpoint(SimActuator& a, double raw, double now);

// Physics (sim_physics.cpp). LoadPhysics builds the world for the loaded
// actuators from config.urdf_path (problems reported once on standard error,
// the bus then stays kinematic). AdvanceWorld brings the world to the bus
// time: current-mode actuators move by forward dynamics. NoteCurrentMode
// starts the hand's clock at the first switch to current mode.
void LoadPhysics(Bus& bus);
void AdvanceWorld(Bus& bus, double now);
// The obstacles' contacts with the links at joint angles q (rad), moving at
// dq (rad/s, for the contacts' damping; nullptr: at rest), into the world
// (none without obstacles), and each into the flight recorder as a
// "contact" row (id: the link, 1-based; value: the force, N).
void UpdateContacts(Bus& bus, const double* q, const double* dq, double now);
void NoteCurrentMode(Bus& bus, double now);
// Joint angle of an actuator (rad): the world's when loaded, else converted.
double JointAngle(const Bus& bus, const SimActuator& a);
// A current-mode actuator's rate in the world, rpm (0 without physics).
double WorldRpm(const Bus& bus, const SimActuator& a);

// Configuration: sim.conf in `directory`, then the environment on top.
// Problems are reported on standard error and the entry is ignored.
Config LoadConfig(const std::string& directory);
// Parses a fault list ("enable_failure error:3:0x4:setpoint:10 ..."); false
// with a message in *problem on the first bad item (nothing is added then).
bool ParseFaults(const std::string& text, Faults* faults, std::string* problem);

// State file: false if missing or corrupt (then *state is left empty).
bool ReadStateFile(const std::string& path, PersistedState* state, std::string* problem);
// Written to a temporary file and renamed over `path`.
bool WriteStateFile(const std::string& path, const PersistedState& state);

// Scripted interrupts. ArmInterrupts makes the bus watch the configured
// times again (after loading or adding one); TakeDueInterrupts marks those
// due at `now` fired and counts them. Both with the mutex held.
// RaiseInterrupts raises that many SIGINTs and must run without the lock.
// RaiseDueInterrupts is the whole round for the clock functions, which take no
// lock otherwise; it only locks when an interrupt is due.
void ArmInterrupts(Bus& bus);
int TakeDueInterrupts(Bus& bus, double now);
void RaiseInterrupts(int count);
void RaiseDueInterrupts();

// Loads the bus if nothing has used it yet.
void EnsureLoaded();

// Bus clock (sim_clock.cpp). StartClock restarts it at 0 and forgets every
// thread's virtual timeline.
void StartClock(bool virtual_mode);
bool ClockIsVirtual();
double BusNow();
// The calling thread's own virtual time while it counts in lockstep, else BusNow().
double ThreadNow();

}  // namespace tqlsim

#endif  // TQL_SIM_BUS_H
