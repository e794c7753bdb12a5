// The SQLite parameter store "parameter.db": the general table
// "system_parameters", one table per robot type, and the shared parameter
// record they are read into.
#ifndef TQL_DATABASE_H
#define TQL_DATABASE_H

#include <string>

// Robot type codes held by the parameter record.
enum RobotTypeCode {
    kTypeGL_4L3 = 0,
    kTypeGL_6L3 = 1,
    kTypeGL_2P8_P6_3P3 = 2,
    kTypeGL_6L6 = 3,
    kTypeGL_2L6_4L3 = 4,
    kTypeFreeCombination = 50,
};

// Everything read from the database. Angles here are as stored (degrees).
struct ResourceData {
    bool dynamics_switch = false;        // system row 2 == "ON"
    double gravity_gain = 1.0;           // system row 3, kept within [0.5, 1.5]
    bool collision_switch = false;       // system row 4 == "ON"
    double collision_factor = 0.0;       // system row 5
    bool preflight_switch = true;        // system row 6 != "OFF": check streams before moving
    bool program_io_switch = false;      // system row 7 == "ON": TIMER waits, DOUT switches outputs
    bool cartesian_scaling_switch = false;  // system row 8 == "ON": Cartesian and blended moves slowed to the joints' limits
    bool braking_switch = false;         // system row 9 == "ON": a stop request brakes the stream to rest
    int robot_type = 0;                  // RobotTypeCode
    double joint_speed[20] = {};         // deg/s
    double joint_acceleration[20] = {};  // deg/s^2
    double joint_jerk[20] = {};          // deg/s^3
    // line speed, acceleration, jerk (as stored); rotate speed, acceleration,
    // jerk (deg/s, deg/s^2, deg/s^3)
    double cartesian_limits[6] = {};
    double joint_values[20] = {};        // type row 10
    double joint_direction[20] = {};     // +1 or -1
    double kinematic_lengths[80] = {};   // mm; six-joint arms: d1, a2, a3, d4, d5, d6
    double dynamic_parameters[260] = {};
    double identification_parameters[220] = {};
    // The workspace (type rows 15 and 16, both optional; no row, no check):
    // the box xmin, xmax, ymin, ymax, zmin, zmax [mm, base frame] and the
    // half-spaces nx, ny, nz, d (the side where n . p <= d, p in mm) that the
    // flange and the wrist centre never leave.
    // Type row 17 (optional): each joint's collision threshold, N*m of the
    // observer's residual, before the sensitivity of system row 5.
    bool collision_threshold_set = false;
    double collision_threshold[20] = {};
    // Type row 18 (optional): the payload the flange carries, as a point
    // mass: kg, then its centre of mass x, y, z in mm in the flange frame
    // (link 6's frame). The host may change it (SetPayload).
    double payload[4] = {};
    bool workspace_box_set = false;
    double workspace_box[6] = {};
    int workspace_half_spaces = 0;
    double workspace_planes[4 * 8] = {};
};

ResourceData* GetResourceDate();
// Reads "parameter.db" of the working directory into rd. 0, or -1 after a message.
int SelectFromTableList(ResourceData* rd);
// The same from the database file `file`, opened read-only (offline tools:
// nothing is written, no actuator is touched).
int SelectFromTableListAt(const char* file, ResourceData* rd);
// Table name of a RobotTypeCode ("GL_6L3", ...), "?" for an unknown code.
const char* RobotTypeName(int code);
int DatabaseToMechnical(ResourceData* rd);
// Checks every limit a robot of `joints` joints will use before it moves:
// joint speed, acceleration and jerk finite and positive, directions 1 or -1
// and, for arms with Cartesian motion, the six Cartesian limits finite and
// positive and the kinematic lengths finite. 0, or -1 after a message naming
// the table, the row (and list entry) and the value.
int CheckRobotParameters(const ResourceData* rd, int joints, bool cartesian);
// Prints "Parameter error: table NAME, row ROW" and `detail` (e.g. ", entry
// 3, value nan: ..." or ": ...") for robot type `type`; returns -1.
int RefuseParameterRow(int type, int row, const std::string& detail);
// A payload (kg, centre x, y, z in mm) the model can take: a mass of 0 to
// kMaxPayloadKg, its centre finite and within kMaxPayloadReachMm of the flange.
constexpr double kMaxPayloadKg = 100.0;
constexpr double kMaxPayloadReachMm = 1000.0;
bool PayloadUsable(const double* payload);
int GetDataFormChar(const char* text, double* out, int n);
int UpdateRobotType(char* value, int id);
int DynamicsSwitch(char* value);
// An empty hook kept in the interface for hosts that call it; does nothing.
void DisableFeatureConfiguration();

#endif  // TQL_DATABASE_H
