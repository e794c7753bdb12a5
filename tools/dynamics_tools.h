// Shared by the offline dynamics tools (tql-identify, tql-excite and the demo
// data builder): the arm's model as the parameter database describes it, the
// identification regressor, and a safe single-row update of the database.
#ifndef TQL_TOOLS_DYNAMICS_TOOLS_H
#define TQL_TOOLS_DYNAMICS_TOOLS_H

#include <string>
#include <vector>

#include <Eigen/Dense>

#include "dynamics.h"

namespace tqltools {

constexpr int kJoints = kDynamicsJointNum;
// Identified columns: the 36 base parameters, then per joint a viscous and a
// Coulomb friction coefficient (joint i at 36 + i and 42 + i).
constexpr int kFrictionColumns = 2 * kJoints;
constexpr int kIdentifiedColumns = kBaseParameterNum + kFrictionColumns;
// Row of the robot type's table holding the identified parameters, and the
// one holding the excitation coefficients.
constexpr int kDynamicParameterRow = 13;
constexpr int kExcitationRow = 14;
// Row of the collision monitor's per-joint thresholds (N*m), written by the
// identification; added to a table that lacks it.
constexpr int kCollisionThresholdRow = 17;
constexpr const char* kCollisionThresholdName = "collision_threshold_nm";
// Optional row of the workspace box the flange and the wrist centre keep.
constexpr int kWorkspaceRow = 15;

// What the tools need of the robot in "parameter.db".
struct ArmModel {
    std::string type_name;                 // table of the robot type
    double a[kJoints] = {};                // modified-DH link lengths, m
    double alpha[kJoints] = {};            // twist angles, rad
    double d[kJoints] = {};                // link offsets, m
    double kt[kJoints] = {};               // joint N*m per ampere
    double speed_limit[kJoints] = {};      // rad/s
    double acceleration_limit[kJoints] = {};  // rad/s^2
    double parameters[kIdentifiedColumns] = {};  // row 13 as stored (missing entries 0)
    double excitation[kJoints * kExcitationCoefficients] = {};  // row 14
    bool has_workspace_box = false;  // row 15, optional
    double workspace_box[6] = {};    // xmin, xmax, ymin, ymax, zmin, zmax, mm
};

// Reads the robot type and its table. False with a message in *error when the
// database cannot be read, or the type has no dynamic model.
bool LoadArmModel(const std::string& db_path, ArmModel* model, std::string* error);

// Replaces the value of row `id` of the robot type's table by the list
// "[v0,v1,...]" (17 significant digits) in one transaction that touches no
// other row. False with a message when the row is missing or the database
// cannot be written; the database is then unchanged.
bool WriteTypeRow(const std::string& db_path, const std::string& type_name, int id,
                  const std::vector<double>& values, std::string* error);

// One row for WriteTypeRows: a row with a name is added when missing.
struct TypeRow {
    int id;
    std::vector<double> values;
    const char* name_if_missing = nullptr;
};
// As WriteTypeRow, for several rows in one transaction: all or none.
bool WriteTypeRows(const std::string& db_path, const std::string& type_name, const std::vector<TypeRow>& rows,
                   std::string* error);

// One 6 x 48 block of the identification regressor at user-zero q, dq, ddq:
// the base regressor, then viscous (dq) and Coulomb (signd(dq)) columns.
void IdentificationRegressor(const ArmModel& model, const double* q, const double* dq, const double* ddq,
                             double (*W)[kIdentifiedColumns]);

// Condition number (largest over smallest singular value) of a stacked regressor.
double ConditionNumber(const Eigen::MatrixXd& W);

}  // namespace tqltools

#endif  // TQL_TOOLS_DYNAMICS_TOOLS_H
