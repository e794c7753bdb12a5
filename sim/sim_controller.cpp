// ActuatorController over the simulated bus. Every call takes the bus lock
// through BusCall; an unknown id answers 0 or false and changes nothing.
#include <algorithm>
#include <cmath>
#include <cstdio>

#include "actuatorcontroller.h"
#include "sim_bus.h"

using tqlsim::BusCall;
using tqlsim::SimActuator;

namespace {

SimActuator* Find(BusCall& call, uint8_t id) { return tqlsim::FindActuator(call.bus, id); }

// One setting write: recorded, applied to the actuator's RAM copy.
void SetSetting(uint8_t id, double value, double tqlsim::Settings::*field, const char* command) {
    BusCall call;
    tqlsim::RecordCommand(call, id, command, value);
    SimActuator* a = Find(call, id);
    if (a != nullptr && std::isfinite(value)) a->live.*field = value;
}

double GetSetting(uint8_t id, double tqlsim::Settings::*field) {
    BusCall call;
    const SimActuator* a = Find(call, id);
    return a != nullptr ? a->live.*field : 0.0;
}

bool KnownMode(int mode) {
    return (mode >= Actuator::Mode_None && mode <= Actuator::Mode_Profile_Vel) || mode == Actuator::Mode_Homing;
}

// The limit checks of the flight recorder: a set-point beyond the position
// limits, or whose step from the previous set-point is faster than the
// velocity limit (gaps under one control period count as one period).
bool BeyondLimits(const SimActuator& a, double setpoint, double dt) {
    if (!std::isfinite(setpoint)) return true;
    if (setpoint > a.live.max_position + tqlsim::kLimitSlack || setpoint < a.live.min_position - tqlsim::kLimitSlack)
        return true;
    const double rpm = std::fabs(setpoint - a.reference_setpoint) / dt * 60.0;
    return rpm > std::fabs(a.live.velocity_limit) * (1.0 + tqlsim::kLimitSlack) + tqlsim::kLimitSlack;
}

// The flight recorder's check of a current set-point [A] against the drive's
// peak current [A].
bool CurrentBeyondPeak(double current, double peak) {
    return !(std::fabs(current) <= peak * (1.0 + tqlsim::kLimitSlack) + tqlsim::kLimitSlack);
}

// Error faults armed for this actuator's set-point count.
void FireSetpointFaults(BusCall& call, SimActuator& a) {
    for (tqlsim::ErrorFault& f : call.bus.config.faults.errors) {
        if (f.fired || f.by_time || f.id != a.id || a.setpoint_count < f.at_setpoint) continue;
        f.fired = true;
        tqlsim::RaiseError(call, a, f.code);
    }
}

}  // namespace

ActuatorController* ActuatorController::initController() {
    static ActuatorController instance;
    tqlsim::EnsureLoaded();
    return &instance;
}

std::vector<ActuatorController::UnifiedID> ActuatorController::lookupActuators(Actuator::ErrorsDefine& ec) {
    BusCall call;
    std::vector<UnifiedID> uids;
    if (call.bus.config.faults.no_actuators || call.bus.actuators.empty()) {
        call.bus.discovered = false;
        ec = Actuator::ERR_ACTUATOR_DISCONNECTION;
        return uids;
    }
    for (const SimActuator& a : call.bus.actuators) uids.emplace_back(a.id, call.bus.config.ip_address);
    call.bus.discovered = true;
    ec = Actuator::ERR_NONE;
    return uids;
}

std::vector<uint8_t> ActuatorController::getActuatorIdArray() const {
    BusCall call;
    std::vector<uint8_t> ids;
    if (!call.bus.discovered || call.bus.config.faults.no_actuators) return ids;  // nothing looked up yet
    for (const SimActuator& a : call.bus.actuators) ids.push_back(a.id);
    return ids;
}

bool ActuatorController::enableActuatorInBatch(const std::vector<UnifiedID>& uids) {
    BusCall call;
    for (const UnifiedID& u : uids) tqlsim::RecordCommand(call, u.actuatorID, "enableActuatorInBatch", 1.0);
    if (call.bus.config.faults.enable_failure) return false;
    bool all = true;
    for (const UnifiedID& u : uids) {
        SimActuator* a = Find(call, u.actuatorID);
        if (a == nullptr) {
            all = false;
            continue;
        }
        if (a->enabled) continue;
        // Powered up: holding the present position, readings fresh.
        a->enabled = true;
        a->mode = Actuator::Mode_Pos;
        a->velocity_command = 0.0;
        a->current_command = 0.0;
        a->current_received = false;
        tqlsim::RestartReference(*a, call.now);
        a->seen_position = tqlsim::ReportedPosition(*a);
        a->seen_velocity = 0.0;
        a->seen_current = 0.0;
    }
    return all;
}

bool ActuatorController::disableActuator(uint8_t id, const std::string&) {
    BusCall call;
    tqlsim::RecordCommand(call, id, "disableActuator", 0.0);
    SimActuator* a = Find(call, id);
    if (a == nullptr) return false;
    a->enabled = false;
    a->step_time = -1.0;
    return true;
}

bool ActuatorController::isEnable(uint8_t id, const std::string&) const {
    BusCall call;
    const SimActuator* a = Find(call, id);
    return a != nullptr && a->enabled;
}

void ActuatorController::activateActuatorModeInBantch(std::vector<uint8_t> ids, Actuator::ActuatorMode mode) {
    BusCall call;
    for (uint8_t id : ids) {
        SimActuator* a = Find(call, id);
        if (a != nullptr && KnownMode(mode)) {
            // A new mode starts from rest at the present position.
            a->mode = mode;
            a->velocity_command = 0.0;
            a->current_command = 0.0;
            a->current_received = false;
            tqlsim::RestartReference(*a, call.now);
            if (mode == Actuator::Mode_Cur) tqlsim::NoteCurrentMode(call.bus, call.now);
        }
        tqlsim::RecordCommand(call, id, "activateActuatorModeInBantch", static_cast<double>(mode));
        // Where the actuator stands as the mode starts (reported
        // revolutions): a recording's set-points continue from it.
        if (a != nullptr) call.bus.recorder.Row(call.now, id, a->mode, "position", tqlsim::ReportedPosition(*a));
    }
}

void ActuatorController::setPosition(uint8_t id, double pos, const std::string&) {
    BusCall call;
    tqlsim::RecordCommand(call, id, "setPosition", pos);
    SimActuator* a = Find(call, id);
    if (a == nullptr) return;
    const double dt = std::max(call.now - a->reference_time, tqlsim::kPeriod);
    if (BeyondLimits(*a, pos, dt)) ++call.bus.beyond_limit_count;
    ++a->setpoint_count;
    a->last_setpoint = pos;
    a->has_setpoint = true;
    FireSetpointFaults(call, *a);
    if (!std::isfinite(pos)) return;
    a->reference_setpoint = pos;
    a->reference_time = call.now;
    if (!a->enabled || a->error_word != 0 || a->mode != Actuator::Mode_Pos) return;
    // Position mode reaches the set-point within the period (at most at a limit).
    const double target = tqlsim::ClampToLimits(*a, pos);
    a->step_velocity = (target - tqlsim::ReportedPosition(*a)) / dt * 60.0;
    a->step_time = call.now;
    a->raw_position = target + a->homing_offset;
    tqlsim::NoteAppliedSetpoint(*a, a->raw_position, call.now);
    // Held against a contact beyond its peak current, the drive trips.
    if (call.bus.physics.world.loaded() && !call.bus.config.obstacles.empty()) {
        const double amps = tqlsim::HoldingCurrent(call.bus, *a, call.now);
        if (!call.bus.physics.world.contacts().empty() &&
            std::fabs(amps) > call.bus.physics.drive[a->joint].peak_current)
            tqlsim::RaiseError(call, *a, Actuator::ERR_DRV_PROTECTION);
    }
}

void ActuatorController::setVelocity(uint8_t id, double vel, const std::string&) {
    BusCall call;
    tqlsim::RecordCommand(call, id, "setVelocity", vel);
    SimActuator* a = Find(call, id);
    if (a != nullptr && std::isfinite(vel)) a->velocity_command = vel;
}

void ActuatorController::setCurrent(uint8_t id, double current, const std::string&) {
    BusCall call;
    tqlsim::RecordCommand(call, id, "setCurrent", current);
    SimActuator* a = Find(call, id);
    if (a == nullptr) return;
    const double peak = call.bus.config.DriveOf(a->id).peak_current;
    if (CurrentBeyondPeak(current, peak)) {
        ++call.bus.beyond_limit_count;
        ++call.bus.current_beyond_peak_count;
    }
    if (!std::isfinite(current)) return;
    // The drive saturates at its peak: more is never delivered to the joint.
    a->current_command = std::min(std::max(current, -peak), peak);
    if (a->mode == Actuator::Mode_Cur) a->current_received = true;
}

double ActuatorController::getPosition(uint8_t id, bool refresh, const std::string&) const {
    BusCall call;
    SimActuator* a = Find(call, id);
    if (a == nullptr) return 0.0;
    if (refresh) a->seen_position = tqlsim::ReportedPosition(*a);
    return a->seen_position;
}

double ActuatorController::getVelocity(uint8_t id, bool refresh, const std::string&) const {
    BusCall call;
    SimActuator* a = Find(call, id);
    if (a == nullptr) return 0.0;
    if (refresh) a->seen_velocity = tqlsim::LiveVelocity(call.bus, *a, call.now);
    return a->seen_velocity;
}

double ActuatorController::getCurrent(uint8_t id, bool refresh, const std::string&) const {
    BusCall call;
    SimActuator* a = Find(call, id);
    if (a == nullptr) return 0.0;
    if (refresh) a->seen_current = tqlsim::LiveCurrent(call.bus, *a, call.now);
    return a->seen_current;
}

double ActuatorController::getMinimumPosition(uint8_t id, bool, const std::string&) const {
    return GetSetting(id, &tqlsim::Settings::min_position);
}

double ActuatorController::getMaximumPosition(uint8_t id, bool, const std::string&) const {
    return GetSetting(id, &tqlsim::Settings::max_position);
}

double ActuatorController::getVelocityLimit(uint8_t id, bool, const std::string&) const {
    return GetSetting(id, &tqlsim::Settings::velocity_limit);
}

void ActuatorController::setMinimumPosition(uint8_t id, double pos, const std::string&) {
    SetSetting(id, pos, &tqlsim::Settings::min_position, "setMinimumPosition");
}

void ActuatorController::setMaximumPosition(uint8_t id, double pos, const std::string&) {
    SetSetting(id, pos, &tqlsim::Settings::max_position, "setMaximumPosition");
}

void ActuatorController::setPositionKp(uint8_t id, double kp, const std::string&) {
    SetSetting(id, kp, &tqlsim::Settings::position_kp, "setPositionKp");
}

void ActuatorController::setPositionKi(uint8_t id, double ki, const std::string&) {
    SetSetting(id, ki, &tqlsim::Settings::position_ki, "setPositionKi");
}

void ActuatorController::setPositionKd(uint8_t id, double kd, const std::string&) {
    SetSetting(id, kd, &tqlsim::Settings::position_kd, "setPositionKd");
}

void ActuatorController::setVelocityKp(uint8_t id, double kp, const std::string&) {
    SetSetting(id, kp, &tqlsim::Settings::velocity_kp, "setVelocityKp");
}

void ActuatorController::setVelocityKi(uint8_t id, double ki, const std::string&) {
    SetSetting(id, ki, &tqlsim::Settings::velocity_ki, "setVelocityKi");
}

void ActuatorController::setLockEnergy(uint8_t id, double energy, const std::string&) {
    SetSetting(id, energy, &tqlsim::Settings::lock_energy, "setLockEnergy");
}

// The position that now reads `pos` becomes the zero of the reported position
// (the library passes the position it just read, so the present pose becomes
// home however often this is repeated).
void ActuatorController::setHomingPosition(uint8_t id, double pos, const std::string&) {
    BusCall call;
    tqlsim::RecordCommand(call, id, "setHomingPosition", pos);
    SimActuator* a = Find(call, id);
    if (a == nullptr || !std::isfinite(pos)) return;
    a->homing_offset += pos;
    a->reference_setpoint -= pos;
    a->last_setpoint -= pos;
    a->seen_position -= pos;
    a->reply_position -= pos;
}

bool ActuatorController::saveAllParams(uint8_t id, const std::string&) {
    BusCall call;
    tqlsim::RecordCommand(call, id, "saveAllParams", 0.0);
    SimActuator* a = Find(call, id);
    if (a == nullptr || call.bus.config.faults.save_failure) return false;
    a->saved = a->live;
    a->has_saved = true;
    if (!tqlsim::SaveBusState(call.bus))
        std::fprintf(stderr, "sim: cannot write %s/sim_state.txt\n", call.bus.directory.c_str());
    return true;
}

uint32_t ActuatorController::getErrorCode(uint8_t id, const std::string&) const {
    BusCall call;
    const SimActuator* a = Find(call, id);
    return a != nullptr ? a->error_word : 0u;
}

bool ActuatorController::clearError(uint8_t id, const std::string&) {
    BusCall call;
    tqlsim::RecordCommand(call, id, "clearError", 0.0);
    SimActuator* a = Find(call, id);
    if (a == nullptr) return false;
    a->error_word = 0;
    tqlsim::RestartReference(*a, call.now);
    return true;
}

void ActuatorController::requestCVPValue(uint8_t id, const std::string&) {
    BusCall call;
    SimActuator* a = Find(call, id);
    if (a == nullptr) return;
    // The actuator answers at once; the answer waits for processEvents.
    a->reply_pending = true;
    a->reply_current = tqlsim::LiveCurrent(call.bus, *a, call.now);
    a->reply_velocity = tqlsim::LiveVelocity(call.bus, *a, call.now);
    a->reply_position = tqlsim::ReportedPosition(*a);
}

void ActuatorController::processEvents() {
    BusCall call;
    for (SimActuator& a : call.bus.actuators) {
        if (!a.reply_pending) continue;
        a.reply_pending = false;
        a.seen_current = a.reply_current;
        a.seen_velocity = a.reply_velocity;
        a.seen_position = a.reply_position;
        call.paras.push_back({a.id, static_cast<uint8_t>(Actuator::ACTUAL_CURRENT), a.seen_current});
        call.paras.push_back({a.id, static_cast<uint8_t>(Actuator::ACTUAL_VELOCITY), a.seen_velocity});
        call.paras.push_back({a.id, static_cast<uint8_t>(Actuator::ACTUAL_POSITION), a.seen_position});
    }
}

int ActuatorController::addErrorCallback(ErrorCallback cb) {
    BusCall call;
    call.bus.error_callbacks.push_back(std::move(cb));
    return static_cast<int>(call.bus.error_callbacks.size()) - 1;
}

int ActuatorController::addParaRequestCallback(ParaRequestCallback cb) {
    BusCall call;
    call.bus.para_callbacks.push_back(std::move(cb));
    return static_cast<int>(call.bus.para_callbacks.size()) - 1;
}

void ActuatorController::clearCallbackHandlers() {
    BusCall call;
    call.bus.error_callbacks.clear();
    call.bus.para_callbacks.clear();
}
