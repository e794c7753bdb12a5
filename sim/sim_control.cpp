// The C control surface of sim_control.h (the clock functions are in sim_clock.cpp).
#include "sim_control.h"

#include <cctype>
#include <cmath>
#include <cstring>
#include <limits>

#include "sim_bus.h"

using tqlsim::BusCall;
using tqlsim::SimActuator;

namespace {

SimActuator* FindId(BusCall& call, int id) {
    if (id < 0 || id > 255) return nullptr;
    return tqlsim::FindActuator(call.bus, static_cast<uint8_t>(id));
}

}  // namespace

extern "C" {

void tql_sim_digital_output(int output, int on) {
    BusCall call;
    // In the flight recording as a command to "actuator" `output`.
    tqlsim::RecordCommand(call, output, "digitalOutput", on != 0 ? 1.0 : 0.0);
    call.bus.digital_outputs[output] = on != 0 ? 1 : 0;
}

int tql_sim_digital_output_state(int output) {
    BusCall call;
    const auto found = call.bus.digital_outputs.find(output);
    return found == call.bus.digital_outputs.end() ? -1 : found->second;
}

void tql_sim_reset(void) {
    tqlsim::Bus& bus = tqlsim::TheBus();
    std::lock_guard<std::mutex> lock(bus.mutex);
    tqlsim::LoadBus(bus);
}

int tql_sim_save_state(void) {
    BusCall call;
    return tqlsim::SaveBusState(call.bus) ? 0 : -1;
}

void tql_sim_set_no_actuators(int on) {
    BusCall call;
    call.bus.config.faults.no_actuators = on != 0;
}

void tql_sim_set_enable_failure(int on) {
    BusCall call;
    call.bus.config.faults.enable_failure = on != 0;
}

void tql_sim_set_save_failure(int on) {
    BusCall call;
    call.bus.config.faults.save_failure = on != 0;
}

int tql_sim_inject_error(int id, unsigned code, int after_setpoints) {
    BusCall call;
    SimActuator* a = FindId(call, id);
    if (a == nullptr || code == 0 || after_setpoints < 0) return -1;
    if (after_setpoints == 0) {
        tqlsim::RaiseError(call, *a, code);
        return 0;
    }
    tqlsim::ErrorFault f;
    f.id = a->id;
    f.code = code;
    f.at_setpoint = a->setpoint_count + after_setpoints;
    call.bus.config.faults.errors.push_back(f);
    return 0;
}

int tql_sim_inject_error_at_time(int id, unsigned code, double bus_time) {
    BusCall call;
    SimActuator* a = FindId(call, id);
    if (a == nullptr || code == 0 || !std::isfinite(bus_time)) return -1;
    tqlsim::ErrorFault f;
    f.id = a->id;
    f.code = code;
    f.by_time = true;
    f.at_time = bus_time;
    call.bus.config.faults.errors.push_back(f);
    return 0;
}

int tql_sim_set_interrupt_at(double bus_time) {
    BusCall call;
    if (!std::isfinite(bus_time) || bus_time < 0.0) return -1;
    tqlsim::ScriptedInterrupt i;
    i.at_time = bus_time;
    call.bus.config.interrupts.push_back(i);
    tqlsim::ArmInterrupts(call.bus);
    return 0;
}

long tql_sim_command_count(void) {
    BusCall call;
    return call.bus.command_count;
}

long tql_sim_beyond_limit_count(void) {
    BusCall call;
    return call.bus.beyond_limit_count;
}

long tql_sim_current_beyond_peak_count(void) {
    BusCall call;
    return call.bus.current_beyond_peak_count;
}

void tql_sim_flush_recorder(void) {
    BusCall call;
    call.bus.recorder.Flush();
}

double tql_sim_last_setpoint(int id) {
    BusCall call;
    const SimActuator* a = FindId(call, id);
    if (a == nullptr || !a->has_setpoint) return std::numeric_limits<double>::quiet_NaN();
    return a->last_setpoint;
}

long tql_sim_setpoint_count(int id) {
    BusCall call;
    const SimActuator* a = FindId(call, id);
    return a != nullptr ? a->setpoint_count : -1;
}

int tql_sim_actuator_mode(int id) {
    BusCall call;
    const SimActuator* a = FindId(call, id);
    return a != nullptr ? a->mode : -1;
}

int tql_sim_set_position(int id, double revolutions) {
    BusCall call;
    SimActuator* a = FindId(call, id);
    if (a == nullptr || !std::isfinite(revolutions)) return -1;
    a->raw_position = revolutions + a->homing_offset;
    ++call.bus.physics.generation;
    return 0;
}

int tql_sim_physics(void) {
    BusCall call;
    return call.bus.physics.world.loaded() ? 1 : 0;
}

double tql_sim_joint_angle(int id) {
    BusCall call;
    const SimActuator* a = FindId(call, id);
    return a != nullptr ? tqlsim::JointAngle(call.bus, *a) : std::numeric_limits<double>::quiet_NaN();
}

double tql_sim_joint_rate(int id) {
    BusCall call;
    const SimActuator* a = FindId(call, id);
    if (a == nullptr) return std::numeric_limits<double>::quiet_NaN();
    const tqlsim::Physics& p = call.bus.physics;
    return p.world.loaded() ? p.world.dq()[a->joint] : 0.0;
}

void tql_sim_set_current_noise(double fraction) {
    BusCall call;
    if (!(fraction >= 0.0) || !std::isfinite(fraction)) return;
    call.bus.config.drive.current_noise = fraction;
    for (auto& entry : call.bus.config.drive_per_id) entry.second.current_noise = fraction;
    for (tqlsim::Drive& d : call.bus.physics.drive) d.current_noise = fraction;
}

void tql_sim_record_note(int id, const char* what, double value) {
    if (what == nullptr) return;
    size_t n = 0;
    for (; what[n] != '\0'; ++n)
        if (n == 31 || !(std::isalnum(static_cast<unsigned char>(what[n])) || what[n] == '_')) return;
    if (n == 0) return;
    BusCall call;
    call.bus.recorder.Row(call.now, id, 0, what, value);
}

void tql_sim_torque_pulse(int id, double at, double torque, double duration) {
    BusCall call;
    const SimActuator* a = FindId(call, id);
    if (a == nullptr || !std::isfinite(at + torque + duration) || !(duration > 0.0)) return;
    call.bus.physics.pulses.push_back(tqlsim::TorquePulse{a->joint, at, torque, duration});
    ++call.bus.physics.generation;
}

}  // extern "C"
