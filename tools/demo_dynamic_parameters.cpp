// demo-dynamic-parameters ARM.urdf parameter.db
//
// Build step of the demo working directory: computes the controller's
// dynamic parameters of the arm described by a URDF world file (the
// simulated arm) and stores them in row 13 of the robot type's table: the 36
// base parameters (from the links' standard inertial parameters through
// standard_to_base_parameters), then the joints' viscous and Coulomb
// friction. The URDF's link frames must be the controller's modified-DH
// frames for the parameters to mean anything, so its joint origins are
// checked against the database's geometry first.
#include <urdf_parser/urdf_parser.h>

#include <cmath>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "dynamics_tools.h"

namespace {

using tqltools::ArmModel;
using tqltools::kJoints;

// Joint zero offsets of the model (joint angle = model angle - offset).
constexpr double kOffset[kJoints] = {0.0, M_PI / 2, 0.0, -M_PI / 2, 0.0, 0.0};
constexpr double kGeometryTolerance = 1e-6;  // m, and rad-ish on rotation entries

Eigen::Matrix3d Rotation(const urdf::Rotation& r) {
    return Eigen::Quaterniond(r.w, r.x, r.y, r.z).normalized().toRotationMatrix();
}

// The six revolute joints from the root outwards; empty with a message if the
// model is not a single chain of them.
std::vector<urdf::JointConstSharedPtr> Chain(const urdf::ModelInterface& model, std::string* error) {
    std::vector<urdf::JointConstSharedPtr> joints;
    urdf::LinkConstSharedPtr link = model.getRoot();
    while (link && !link->child_joints.empty()) {
        if (link->child_joints.size() != 1) {
            *error = "link " + link->name + " branches; the arm must be one chain";
            return {};
        }
        const urdf::JointConstSharedPtr& joint = link->child_joints[0];
        if (joint->type == urdf::Joint::REVOLUTE || joint->type == urdf::Joint::CONTINUOUS) joints.push_back(joint);
        link = model.getLink(joint->child_link_name);
    }
    if (joints.size() != kJoints) *error = "expected 6 revolute joints, found " + std::to_string(joints.size());
    return joints.size() == kJoints ? joints : std::vector<urdf::JointConstSharedPtr>{};
}

// Joint origin = Rx(alpha) Tx(a) Tz(d) Rz(offset), axis z.
bool MatchesGeometry(const urdf::Joint& joint, const ArmModel& m, int i, std::string* error) {
    const urdf::Pose& o = joint.parent_to_joint_origin_transform;
    const Eigen::Vector3d p(o.position.x, o.position.y, o.position.z);
    const Eigen::Matrix3d R = Rotation(o.rotation);
    const double ca = std::cos(m.alpha[i]), sa = std::sin(m.alpha[i]);
    const Eigen::Vector3d p_model(m.a[i], -m.d[i] * sa, m.d[i] * ca);
    const Eigen::Matrix3d R_model = (Eigen::AngleAxisd(m.alpha[i], Eigen::Vector3d::UnitX()) *
                                     Eigen::AngleAxisd(kOffset[i], Eigen::Vector3d::UnitZ())).toRotationMatrix();
    const Eigen::Vector3d axis(joint.axis.x, joint.axis.y, joint.axis.z);
    if ((p - p_model).norm() > kGeometryTolerance || (R - R_model).norm() > 1e-6 ||
        (axis - Eigen::Vector3d::UnitZ()).norm() > 1e-9) {
        *error = "joint " + joint.name + " does not sit where the database's geometry puts joint " +
                 std::to_string(i + 1);
        return false;
    }
    return true;
}

// XX, XY, XZ, YY, YZ, ZZ about the link frame's origin, MX, MY, MZ, M.
void StandardParameters(const urdf::Inertial& in, double* out) {
    const Eigen::Matrix3d R = Rotation(in.origin.rotation);
    Eigen::Matrix3d Ic;
    Ic << in.ixx, in.ixy, in.ixz, in.ixy, in.iyy, in.iyz, in.ixz, in.iyz, in.izz;
    const Eigen::Vector3d c(in.origin.position.x, in.origin.position.y, in.origin.position.z);
    // Steiner: inertia about the origin = about the centre of mass + m (|c|^2 E - c c^T).
    const Eigen::Matrix3d I = R * Ic * R.transpose() +
                              in.mass * (c.squaredNorm() * Eigen::Matrix3d::Identity() - c * c.transpose());
    const double v[10] = {I(0, 0), I(0, 1), I(0, 2), I(1, 1), I(1, 2), I(2, 2),
                          in.mass * c.x(), in.mass * c.y(), in.mass * c.z(), in.mass};
    for (int k = 0; k < 10; ++k) out[k] = v[k];
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fprintf(stderr, "usage: demo-dynamic-parameters ARM.urdf parameter.db\n");
        return 2;
    }
    std::ifstream in(argv[1]);
    std::stringstream xml;
    xml << in.rdbuf();
    const urdf::ModelInterfaceSharedPtr model = in ? urdf::parseURDF(xml.str()) : nullptr;
    if (!model) {
        std::fprintf(stderr, "demo-dynamic-parameters: cannot read the URDF file %s\n", argv[1]);
        return 1;
    }
    ArmModel m;
    std::string error;
    const std::vector<urdf::JointConstSharedPtr> joints = Chain(*model, &error);
    if (joints.empty() || !tqltools::LoadArmModel(argv[2], &m, &error)) {
        std::fprintf(stderr, "demo-dynamic-parameters: %s\n", error.c_str());
        return 1;
    }
    double standard[kStandardParameterNum] = {};
    std::vector<double> row(tqltools::kIdentifiedColumns, 0.0);
    for (int i = 0; i < kJoints; ++i) {
        if (!MatchesGeometry(*joints[i], m, i, &error)) {
            std::fprintf(stderr, "demo-dynamic-parameters: %s\n", error.c_str());
            return 1;
        }
        const urdf::LinkConstSharedPtr link = model->getLink(joints[i]->child_link_name);
        if (link->inertial) StandardParameters(*link->inertial, standard + 10 * i);
        if (joints[i]->dynamics) {
            row[kBaseParameterNum + i] = joints[i]->dynamics->damping;
            row[kBaseParameterNum + kJoints + i] = joints[i]->dynamics->friction;
        }
    }
    standard_to_base_parameters(m.a, m.alpha, m.d, standard, row.data());
    if (!tqltools::WriteTypeRow(argv[2], m.type_name, tqltools::kDynamicParameterRow, row, &error)) {
        std::fprintf(stderr, "demo-dynamic-parameters: %s\n", error.c_str());
        return 1;
    }
    return 0;
}
