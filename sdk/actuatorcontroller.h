// Interface of the actuator maker's controller library (libActuatorController.so),
// declared by this project from the behaviour the control library relies on.
// Only what libtql.so calls is declared. The simulated bus in sim/ implements it;
// on the real board the maker's library of the same name is loaded instead.
//
// Units at this boundary: positions in actuator revolutions, velocities in
// revolutions per minute, currents in amperes.
#ifndef ACTUATORCONTROLLER_H
#define ACTUATORCONTROLLER_H

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace Actuator {

enum ActuatorMode {
    Mode_None = 0,
    Mode_Cur = 1,           // current (torque) mode
    Mode_Vel = 2,           // velocity mode
    Mode_Pos = 3,           // position mode
    Mode_Profile_Pos = 4,
    Mode_Profile_Vel = 5,
    Mode_Homing = 8,
};

enum ErrorsDefine {
    ERR_NONE = 0,
    ERR_ACTUATOR_OVERVOLTAGE = 0x01,
    ERR_ACTUATOR_UNDERVOLTAGE = 0x02,
    ERR_ACTUATOR_LOCKED_ROTOR = 0x04,
    ERR_ACTUATOR_OVERHEATING = 0x08,
    ERR_ACTUATOR_READ_OR_WRITE = 0x10,
    ERR_ACTUATOR_MULTI_TURN = 0x20,
    ERR_INVERTOR_TEMPERATURE_SENSOR = 0x40,
    ERR_CAN_COMMUNICATION = 0x80,
    ERR_ACTUATOR_TEMPERATURE_SENSOR = 0x100,
    ERR_STEP_OVER = 0x200,
    ERR_DRV_PROTECTION = 0x400,
    ERR_CODER_DISABLED = 0x800,
    ERR_ACTUATOR_DISCONNECTION = 0x801,
    ERR_CAN_DISCONNECTION = 0x802,
    ERR_IP_ADDRESS_NOT_FOUND = 0x803,
    ERR_ABNORMAL_SHUTDOWN = 0x804,
    ERR_SHUTDOWN_SAVING = 0x805,
    ERR_IP_HAS_BIND = 0x806,
    ERR_ID_UNUNIQUE = 0x807,
    ERR_IP_CONFLICT = 0x808,
    ERR_UNKOWN = 0xffff,
};

// Attribute codes delivered to parameter-request callbacks.
enum ActuatorAttribute {
    ACTUAL_CURRENT = 10,
    ACTUAL_VELOCITY = 16,
    ACTUAL_POSITION = 26,
};

}  // namespace Actuator

class ActuatorController {
public:
    // Address of one actuator on the bus: its 8-bit id and the address of the
    // communication unit that reaches it.
    struct UnifiedID {
        uint8_t actuatorID = 0;
        std::string ipAddress;
        UnifiedID() = default;
        UnifiedID(uint8_t id, std::string ip) : actuatorID(id), ipAddress(std::move(ip)) {}
    };

    using ErrorCallback = std::function<void(UnifiedID, uint16_t, std::string)>;
    using ParaRequestCallback = std::function<void(UnifiedID, uint8_t, double)>;

    // The one controller of the process; the same instance on every call.
    static ActuatorController* initController();

    // Discovery. The ids come back in the same order as the unified ids.
    std::vector<UnifiedID> lookupActuators(Actuator::ErrorsDefine& ec);
    std::vector<uint8_t> getActuatorIdArray() const;

    // Enabling and modes.
    bool enableActuatorInBatch(const std::vector<UnifiedID>& uids);
    bool disableActuator(uint8_t id, const std::string& ipAddress = "");
    bool isEnable(uint8_t id, const std::string& ipAddress = "") const;
    void activateActuatorModeInBantch(std::vector<uint8_t> ids, Actuator::ActuatorMode mode);

    // Set-points.
    void setPosition(uint8_t id, double pos, const std::string& ipAddress = "");
    void setVelocity(uint8_t id, double vel, const std::string& ipAddress = "");
    void setCurrent(uint8_t id, double current, const std::string& ipAddress = "");

    // Readings. refresh = true asks the actuator and waits for its answer;
    // false returns the last value received.
    double getPosition(uint8_t id, bool refresh, const std::string& ipAddress = "") const;
    double getVelocity(uint8_t id, bool refresh, const std::string& ipAddress = "") const;
    double getCurrent(uint8_t id, bool refresh, const std::string& ipAddress = "") const;

    // Settings.
    double getMinimumPosition(uint8_t id, bool refresh, const std::string& ipAddress = "") const;
    double getMaximumPosition(uint8_t id, bool refresh, const std::string& ipAddress = "") const;
    double getVelocityLimit(uint8_t id, bool refresh, const std::string& ipAddress = "") const;
    void setMinimumPosition(uint8_t id, double pos, const std::string& ipAddress = "");
    void setMaximumPosition(uint8_t id, double pos, const std::string& ipAddress = "");
    void setPositionKp(uint8_t id, double kp, const std::string& ipAddress = "");
    void setPositionKi(uint8_t id, double ki, const std::string& ipAddress = "");
    void setPositionKd(uint8_t id, double kd, const std::string& ipAddress = "");
    void setVelocityKp(uint8_t id, double kp, const std::string& ipAddress = "");
    void setVelocityKi(uint8_t id, double ki, const std::string& ipAddress = "");
    void setLockEnergy(uint8_t id, double energy, const std::string& ipAddress = "");
    void setHomingPosition(uint8_t id, double pos, const std::string& ipAddress = "");
    bool saveAllParams(uint8_t id, const std::string& ipAddress = "");

    // Errors: the actuator's error word (0 = none).
    uint32_t getErrorCode(uint8_t id, const std::string& ipAddress = "") const;
    bool clearError(uint8_t id, const std::string& ipAddress = "");

    // Asynchronous readings: ask for current, velocity and position; the answers
    // are delivered (to the getters and the parameter callbacks) by processEvents.
    void requestCVPValue(uint8_t id, const std::string& ipAddress = "");
    void processEvents();

    // Callbacks. Returns an index of the registered handler.
    int addErrorCallback(ErrorCallback cb);
    int addParaRequestCallback(ParaRequestCallback cb);
    void clearCallbackHandlers();

private:
    ActuatorController() = default;
};

#endif  // ACTUATORCONTROLLER_H
