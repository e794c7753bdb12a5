// The arm and its joints over the actuator controller, plus the process-wide
// system status, error record and real-time position.
//
// Units inside: joint positions in radians, joint velocities in rad/s, torques
// in N*m. At the actuator boundary: revolutions, revolutions per minute, amperes.
#ifndef TQL_MECHNICAL_UNIT_H
#define TQL_MECHNICAL_UNIT_H

#include <atomic>
#include <string>
#include <vector>

#include "actuatorcontroller.h"
#include "speed_profile.h"

// Kind of actuator, 0..9; selects reduction ratio and torque constant.
typedef int ActuatorType;

// Largest number of joints a robot can hold.
constexpr int kMaxJointNum = 20;

// Joint torque [N*m] at the peak current of joint `joint`'s (0-based)
// actuator on robot type `robot_type` (RobotTypeCode): the actuator type the
// type's layout assigns, as LinkUnit::PeakTorque gives it once the robot is
// set up from the database. 0 for unknown types and joints beyond the type's
// count. Offline tools use it (no actuator is touched).
double JointPeakTorque(int robot_type, int joint);

// One joint, driven by one actuator.
class LinkUnit {
public:
    int InitActuator(unsigned char id, ActuatorType type);
    unsigned char GetActuatorId();
    void SetActuatorPointer(ActuatorController* controller);
    // (twist angle alpha [rad], 0.0, link length a [mm], link offset d [mm])
    void SetMdhParameters(double alpha, double zero, double a, double d);
    // Joint speed [rad/s], acceleration [rad/s^2], jerk [rad/s^3].
    void SetSpeedData(double speed, double acceleration, double jerk);
    void SetDirect(int direct);

    // 0 if the set-point may be sent, -1 otherwise (message printed).
    int CheckPosition(double position, double last_position, double period);
    // CheckPosition's verdict without a message.
    bool PositionAllowed(double position, double last_position, double period) const;
    // Actuator speed [rpm] of a step from last_position to position [rad] in period [s].
    double ActuatorSpeed(double position, double last_position, double period) const;
    // 0 if the torque [N*m] may be sent as a current: finite and within the
    // actuator's peak current. -1 otherwise (message printed).
    int CheckTorque(double torque);
    // Joint torque [N*m] at the actuator's peak current (torque constant x
    // peak current).
    double PeakTorque() const { return kt_ * peak_current_; }
    int DisableActuator();

    int GetActuatorData();
    void SetActuatorPosition(double q);
    void SetActuatorTorque(double t);
    double GetActuatorPositionFast();
    double GetActuatorPositionSlow();
    void GetActuatorCVPFast(double* c, double* v, double* p);
    void GetActuatorTVPFast(double* t, double* v, double* p);
    void RequestCVPValue();
    void SetActuatorPositionPidData(double kp, double ki, double kd);
    void SetActuatorVelocityPiData(double kp, double ki);
    void SetActuatorLimitData(double min, double max);
    void SetLockEnergy(double e);
    void SetActuatorHomingPosition();
    unsigned GetErrorCode();
    void ClearActuatorError();
    bool SaveActuatorParameters();

    unsigned char actuator_id_ = 0;
    ActuatorType actuator_type_ = 0;
    ActuatorController* controller_ = nullptr;  // not owned
    double reduction_ratio_ = 0.0;  // actuator turns per joint turn
    double kt_ = 0.0;               // N*m per ampere of actuator current
    double peak_current_ = 0.0;     // A, the most a current command may ask
    int direct_ = 1;                // +1 or -1
    double speed_limit_ = 0.0;      // actuator rpm, read from the actuator
    AccDecDate joint_speed_data_;   // joint limits, rad/s, rad/s^2, rad/s^3
    double min_soft_limit_ = 0.0;   // rad
    double max_soft_limit_ = 0.0;   // rad
    double mdh_[4] = {0.0, 0.0, 0.0, 0.0};

private:
    // Actuator revolutions to joint radians (and back), with the direction.
    double ActuatorToJoint(double revolutions) const;
};

class Robot {
public:
    Robot();
    ~Robot();

    int ServerInit(ActuatorController* controller, std::vector<unsigned char> ids,
                   std::vector<ActuatorController::UnifiedID> uids);
    int InitRobot(LinkUnit* units, int n);
    int AddLinkUnit(LinkUnit* units, int n);
    int GetParametersFromActuator();
    int GetParametersFromDatabase();
    void DisableRobot();
    void DisableAllRobot();
    int SaveParameters();

    int GetRobotJointNum();
    int GetRobotType();
    int GetErrorCode();
    void GetCurrentMachineJoint(double* q);
    void GetCurrentMachineJointFast(double* q);
    // Where a move starts: the last position set-point sent to the arm, or
    // the measured joints when none has been sent since the boot, since the
    // arm floated in current mode or was homed, or when the arm stands more
    // than kSetPointHeld rad from it on any joint. Starting from the
    // set-point, a move continues the stream the drives follow, with no step
    // for their tracking error.
    void GetStartJoints(double* q);
    static constexpr double kSetPointHeld = 0.01;
    void GetCurrentCVPFast(double* c, double* v, double* p);
    void GetCurrentTVPFast(double* t, double* v, double* p);
    void GetJointSpeedAccDecParameters(AccDecDate* out);
    void GetLineSpeedAccDecParameters(AccDecDate* out);
    void GetRotateSpeedAccDecParameters(AccDecDate* out);
    void GetMinLimitData(double* out);
    void GetMaxLimitData(double* out);

    void ActivateHomingMode();
    void ActivateCurrentMode();
    // Current mode without waiting for the actuators to settle: for a loop
    // that sends its first currents in the same period (the collision
    // reflex's yield); an actuator holds where it is until its first current.
    void ActivateCurrentModeAtOnce();
    void ActivateVelocityMode();
    void ActivatePositionMode();

    void RequestCVPValue();
    void AddParaRequestCallback(void (*cb)(ActuatorController::UnifiedID, unsigned char, double));
    void ClearAllActuatorCallbacks();

    // Per-period commands. Each checks every joint (its actuator's error
    // word, then the set-point) before it sends any, so a tick reaches all
    // joints or none. 0 (SetPosition, SetMachineTorque: the joint count), or
    // -1 after the failing check's message.
    // q_last: the previous tick's set-points, for the speed check over PERIOD.
    // Every joint's error word and set-point check for one tick, then the
    // workspace (against workspace_last, default q_last); 0 when the whole
    // tick may be sent.
    int CheckPositionTick(double* q, double* q_last, bool id_as_number, double* workspace_last = nullptr);
    int SendMachinePosition(double* q, double* q_last);
    int SendPosition(double* q, double* q_last);
    // Soft limits only: there is no previous set-point to check a speed against.
    int SetPosition(double* q);
    // Torques [N*m] sent as currents, each finite and within its peak current.
    int SetMachineTorque(double* tau);

    int SetHomingPosition();
    int SetLimitData(double* min, double* max);
    int SetLockEnergy(double* e);
    int SetPositionPidData(double* kp, double* ki, double* kd);
    int SetVelocityPiData(double* kp, double* ki);

    // Seven-value pose x, y, z [mm], w, qx, qy, qz of the flange.
    int ForwardKinematics(double* q, double* pose);
    // 0 when the flange and the wrist centre at joints q stay in the
    // database's workspace (or there is none), or, already outside at q_last,
    // get no further out; -1 after a message naming the point and the bound
    // it leaves (no message with report = false).
    int CheckWorkspace(double* q, double* q_last, bool report = true);
    // q holds the seed on entry and the solution on success.
    int InverseKinematics(double* q, double* pose);
    // InverseKinematics, then up to two Newton steps on the forward
    // kinematics (the flange Jacobian): the closed form leaves errors of up
    // to about 1e-6 rad that jump from one pose to the next (its angles are
    // wrapped with the system's truncated pi), which a stream of set-points
    // would show as jerk. A step larger than kFollowStepLimit rad (near a
    // singularity) is not taken. 0, or -1 as InverseKinematics.
    int FollowPose(double* q, double* pose);
    // The same for a flange frame given as a 4x4 matrix (mm), which keeps
    // every orientation exactly (the unit quaternion of a pose drops small
    // components); and the forward kinematics to such a frame.
    int FollowFrame(double* q, double target[4][4]);
    int ForwardFrame(const double* q, double T[4][4]);
    static constexpr double kFollowStepLimit = 1e-5;

    // Joint torques [N*m] of the dynamic model for user-zero q, dq, ddq, with
    // the robot's own geometry and the parameter record's 36 parameters.
    // 0, or -1 (with a message) for robot types without a dynamic model.
    int InverseDynamics(double* q, double* dq, double* ddq, double* tau);
    // Sends the model's static torques at q, times the gain, as current
    // set-points. dq is not used. 0, or -1 when sending fails.
    int GravityCompensation(double* q, double* dq);
    // The same, giving the torques sent (N*m, six joints) in *sent when not null.
    int GravityCompensation(double* q, double* dq, double* sent);
    // One 4 ms step of the collision observer. q_prev: joint angles of the
    // previous step; tau: the joints' present torques [N*m]; spare: unused.
    // 0, or -1 (with a message) at the first joint beyond its threshold.
    int CollisionDetection(double* q_prev, double* q, double* dq, double* tau, double* spare);

    int joint_num_ = 0;
    int robot_type_ = 0;
    AccDecDate rotate_speed_data_;  // rad/s, rad/s^2, rad/s^3
    AccDecDate line_speed_data_;    // as stored in the database (mm/s, ...)
    std::vector<unsigned char> actuator_ids_;
    ActuatorController* controller_ = nullptr;  // not owned
    LinkUnit link_[kMaxJointNum];
    std::vector<ActuatorController::UnifiedID> unified_ids_;

private:
    void ActivateMode(Actuator::ActuatorMode mode, double settle_ms);
    // Prints the error of joint i if its actuator reports one; true when clean.
    bool JointErrorFree(int i, bool id_as_number);
    void SendPositionTick(double* q);
    // Written by the motion loop and by mode changes on other threads (hand
    // guiding's monitoring loop and its recorder): atomics.
    std::atomic<double> last_set_point_[kMaxJointNum] = {};
    std::atomic<bool> set_point_valid_{false};
};

// System status, error record, real-time position.
void SetSystemStatus(bool status);
bool GetSystemStatus();
void SendErrorCode(int level, int code, std::string text);
void GetErrorCode(std::string& out);
void SetRealTimePos(double* q);
// Copies the first n entries of the real-time position into q (radians).
void CopyRealTimePos(double* q, int n);
void ErrorCallBack(ActuatorController::UnifiedID uid, unsigned short code, std::string text);

#endif  // TQL_MECHNICAL_UNIT_H
