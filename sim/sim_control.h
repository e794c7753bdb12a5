// Control surface of the simulated actuator bus, beyond the actuator SDK
// interface: the virtual clock, reloading, fault injection, the scripted
// operator's Ctrl-C, the flight recorder and the physical world. Only the host program (found at run time with dlsym, so the real
// actuator library can replace the simulator) and the tests use it; libtql.so
// never does.
//
// Units: actuator revolutions (reported frame, as getPosition returns them),
// seconds of bus time (0 when the bus was loaded or reset).
#ifndef TQL_SIM_CONTROL_H
#define TQL_SIM_CONTROL_H

#ifdef __cplusplus
extern "C" {
#endif

// True when the bus runs on a virtual clock (TQL_SIM_CLOCK=virtual or the
// configuration file says so).
int tql_sim_virtual_clock(void);
// Sleep replacement for the virtual clock: advances the calling thread's own
// timeline by the given seconds; the bus clock is the latest wake of all threads.
void tql_sim_sleep(double seconds);
// Bus clock in seconds (virtual or monotonic). On the virtual clock a thread
// that sleeps in lockstep reads its own time (its last wake), which the bus
// clock, the latest wake of all threads, may lead by part of a period.
double tql_sim_now(void);

// Starts the bus afresh from the current working directory, as a new process
// would: reads sim.conf, the environment and sim_state.txt, restarts the clock
// at 0, and clears faults, counters, callbacks and discovery. Opens a new
// recording if one is configured (the previous one is closed without summary).
// Unsaved in-memory state is dropped: call tql_sim_save_state() first to keep it.
void tql_sim_reset(void);
// Writes sim_state.txt now, as process exit does. 0 on success, -1 on failure.
int tql_sim_save_state(void);

// Faults (non-zero = on). No actuators: discovery finds nothing. Enable
// failure: enableActuatorInBatch returns false and enables nothing. Save
// failure: saveAllParams returns false and saves nothing.
void tql_sim_set_no_actuators(int on);
void tql_sim_set_enable_failure(int on);
void tql_sim_set_save_failure(int on);
// Error word `code` on actuator `id` at its `after_setpoints`-th position
// set-point from now (that set-point is refused), or at once for 0. The error
// callbacks receive (id, code, text). 0 on success, -1 for an unknown id, a
// zero code or a negative count.
int tql_sim_inject_error(int id, unsigned code, int after_setpoints);
// The same at bus time `bus_time` (seconds); raised by the first bus call at
// or after that time.
int tql_sim_inject_error_at_time(int id, unsigned code, double bus_time);

// The operator's Ctrl-C at bus time `bus_time` (seconds): the first bus call
// after this one made at or after that time (any SDK call, tql_sim_sleep on
// entry and on waking, tql_sim_now) raises SIGINT in the process once, without holding the
// bus lock. Adds to sim.conf "interrupt_at" / TQL_SIM_INTERRUPT until the next
// reset. 0 on success, -1 for a negative or non-finite time.
int tql_sim_set_interrupt_at(double bus_time);

// The controller's digital outputs (a program's DOUT lines), as a host
// installs this function with SetDigitalOutputHandler: each switch is a row of
// the flight recorder (command "digitalOutput", the output number in the id
// column, value 1 on / 0 off) and the bus keeps the outputs' states until
// reset. The state of one output: 1, 0, or -1 when never switched.
void tql_sim_digital_output(int output, int on);
int tql_sim_digital_output_state(int output);

// Flight recorder figures since load or reset (counted even when no CSV file
// is written): commands received; set-points beyond limits, i.e. position
// set-points beyond the actuator's position limits or velocity limit and
// current set-points beyond its peak current (or not finite); and of those
// the current set-points alone. A drive delivers at most its peak current
// (sim.conf "peak_current"), whatever it is commanded.
long tql_sim_command_count(void);
long tql_sim_beyond_limit_count(void);
long tql_sim_current_beyond_peak_count(void);
// Writes out buffered recorder rows.
void tql_sim_flush_recorder(void);
// A row of the controller's own in the flight recorder at the present bus
// time: `what` names it (at most 31 characters, letters, digits and '_'),
// `id` is its subject (a joint number), `value` its figure. The collision
// monitor writes its thresholds, residuals and detections this way. Not a
// command: the command count is unchanged. Ignored for another name.
void tql_sim_record_note(int id, const char* what, double value);

// Inspection of one actuator. Last position set-point received (NaN if none
// or unknown id); number of position set-points received (-1 for an unknown
// id); present mode (Actuator::ActuatorMode value, -1 for an unknown id).
double tql_sim_last_setpoint(int id);
long tql_sim_setpoint_count(int id);
int tql_sim_actuator_mode(int id);
// Moves an actuator as a hand would (the arm is pushed to `revolutions`,
// reported frame). 0 on success, -1 for an unknown id or a non-finite value.
int tql_sim_set_position(int id, double revolutions);

// The physical world (sim.conf "urdf"). 1 when it is loaded (the arm has
// gravity, friction and inertia), 0 for the kinematic arm.
int tql_sim_physics(void);
// Joint angle (rad, the controller's user-zero angle) and rate (rad/s) of the
// joint an actuator drives: the world's state with physics, else converted
// from the raw position (rate 0). NaN for an unknown id.
double tql_sim_joint_angle(int id);
double tql_sim_joint_rate(int id);
// Standard deviation of every actuator's current-reading noise, as a
// fraction of its peak current (0 = exact readings). Negative or non-finite
// values are ignored.
void tql_sim_set_current_noise(double fraction);
// An external torque on the joint actuator `id` drives, from bus time `at`
// for `duration` seconds (N*m, in the joint's positive sense), as a hand or
// an impact would push: a position-mode drive holds against it (its current
// shows it), a free joint is pushed. Pulses add up; a reset clears them.
// Ignored for an unknown id or values that are not finite.
void tql_sim_torque_pulse(int id, double at, double torque, double duration);

#ifdef __cplusplus
}
#endif

#endif  // TQL_SIM_CONTROL_H
