// tql-urdf's output read back with urdfdom into a KDL chain: its forward
// kinematics is fk_ur's, and KDL's recursive Newton-Euler gives the torques
// of the controller's model, for the demo arm and for random physical arms
// whose base parameters are put into row 13; every robot type's links carry
// cylinders joining their joints and its joints their limits; bad input is
// refused.
#include <sqlite3.h>
#include <sys/wait.h>
#include <urdf_parser/urdf_parser.h>
#include <kdl/chainfksolverpos_recursive.hpp>
#include <kdl/chainidsolver_recursive_newton_euler.hpp>

#include <Eigen/Dense>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "database.h"
#include "dynamics.h"
#include "kinematics.h"
#include "test_support.h"

namespace {

using tqltest::ScratchDir;

const double kA[6] = {0, 0, 0.244, 0.213, 0, 0}, kD[6] = {0.152, 0, 0, 0.112, 0.085, 0.082};  // demo, m

int RunUrdf(const std::string& dir, const std::string& args, std::string* messages) {
    const std::string cmd = "cd '" + dir + "' && " + tqltest::HostLauncherPrefix() + TQL_TOOLS_DIR "/tql-urdf " + args;
    FILE* p = popen((cmd + " 2>&1 >/dev/null </dev/null").c_str(), "r");
    char buf[4096];
    for (size_t n; p != nullptr && (n = fread(buf, 1, sizeof buf, p)) > 0;) messages->append(buf, n);
    const int status = p != nullptr ? pclose(p) : -1;
    return status != -1 && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// The chain base_link .. flange of a URDF file, and whether every link with
// inertial data is a physically possible body.
KDL::Chain LoadChain(const std::string& path, bool* physical = nullptr) {
    const urdf::ModelInterfaceSharedPtr model = urdf::parseURDF(tqltest::ReadFile(path));
    KDL::Chain chain;
    if (!model) return chain;
    for (urdf::LinkConstSharedPtr link = model->getRoot(); !link->child_joints.empty();) {
        const urdf::JointSharedPtr& j = link->child_joints[0];
        link = model->getLink(j->child_link_name);
        const urdf::Pose& o = j->parent_to_joint_origin_transform;
        const KDL::Frame f(KDL::Rotation::Quaternion(o.rotation.x, o.rotation.y, o.rotation.z, o.rotation.w),
                           KDL::Vector(o.position.x, o.position.y, o.position.z));
        KDL::RigidBodyInertia I;
        if (const urdf::InertialSharedPtr& in = link->inertial) {
            const urdf::Pose& c = in->origin;
            const KDL::Frame cf(KDL::Rotation::Quaternion(c.rotation.x, c.rotation.y, c.rotation.z, c.rotation.w),
                                KDL::Vector(c.position.x, c.position.y, c.position.z));
            I = cf *
                KDL::RigidBodyInertia(in->mass, KDL::Vector::Zero(),
                                      KDL::RotationalInertia(in->ixx, in->iyy, in->izz, in->ixy, in->ixz, in->iyz));
            // Positive mass; principal moments positive and meeting the
            // triangle inequality: tr(I)/2 E - I positive definite.
            Eigen::Matrix3d Ic;
            Ic << in->ixx, in->ixy, in->ixz, in->ixy, in->iyy, in->iyz, in->ixz, in->iyz, in->izz;
            const Eigen::Matrix3d S = 0.5 * Ic.trace() * Eigen::Matrix3d::Identity() - Ic;
            if (physical) *physical = *physical && in->mass > 0 && S.llt().info() == Eigen::Success;
        }
        const KDL::Vector axis = f.M * KDL::Vector(j->axis.x, j->axis.y, j->axis.z);
        const KDL::Joint joint = j->type == urdf::Joint::FIXED ? KDL::Joint(j->name, KDL::Joint::None)
                                                               : KDL::Joint(j->name, f.p, axis, KDL::Joint::RotAxis);
        chain.addSegment(KDL::Segment(link->name, joint, f, I));
    }
    return chain;
}

// Largest |KDL RNE - controller model| over a seeded sweep, and the largest
// torque. The model turns by the system's pi/2 = 1.5707963 (2.7e-8 rad short),
// the file by the exact one: a few 1e-8 of the torques apart.
std::pair<double, double> TorqueMismatch(const KDL::Chain& chain, double* P, unsigned seed) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<double> q_of(-2.9, 2.9), rate(-3, 3);
    KDL::ChainIdSolver_RNE rne(chain, KDL::Vector(0, 0, -kGravity));
    double worst = 0, largest = 0;
    for (int k = 0; k < 200; ++k) {
        KDL::JntArray q(6), dq(6), ddq(6), tau(6);
        for (int j = 0; j < 6; ++j) q(j) = q_of(rng), dq(j) = rate(rng), ddq(j) = 3 * rate(rng);
        EXPECT_GE(rne.CartToJnt(q, dq, ddq, KDL::Wrenches(chain.getNrOfSegments(), KDL::Wrench::Zero()), tau), 0);
        double a[6], d[6], model[6];
        std::copy(kA, kA + 6, a), std::copy(kD, kD + 6, d);
        InverserDynamicsUr(a, d, q.data.data(), dq.data.data(), ddq.data.data(), model, P);
        for (int j = 0; j < 6; ++j) worst = std::max(worst, std::fabs(tau(j) - model[j]));
        for (int j = 0; j < 6; ++j) largest = std::max(largest, std::fabs(model[j]));
    }
    return {worst, largest};
}

// The first n numbers of row `id` of table `type`.
std::vector<double> DbRow(const std::string& db, const std::string& type, int id, int n) {
    std::string text;
    sqlite3* h = nullptr;
    sqlite3_open(db.c_str(), &h);
    sqlite3_exec(
        h, ("SELECT VALUE FROM " + type + " WHERE ID = " + std::to_string(id)).c_str(),
        [](void* t, int, char** v, char**) {
            *static_cast<std::string*>(t) = v[0];
            return 0;
        },
        &text, nullptr);
    sqlite3_close(h);
    std::vector<double> row(n);
    GetDataFormChar(text.c_str(), row.data(), n);
    return row;
}

double Row13(const std::string& db, double* P) {
    const std::vector<double> row = DbRow(db, "GL_6L3", 13, kBaseParameterNum);
    std::copy(row.begin(), row.end(), P);
    double sum = 0;
    for (int k = 0; k < kBaseParameterNum; ++k) sum += std::fabs(P[k]);
    return sum;
}

// A number "key = value" of the simulated bus's configuration file.
double SimConf(const std::string& path, const std::string& key) {
    std::istringstream in(tqltest::ReadFile(path));
    for (std::string line; std::getline(in, line);)
        if (line.rfind(key + " = ", 0) == 0) return std::atof(line.c_str() + key.size() + 3);
    return NAN;
}

// Largest difference (m, and rotation entries) of the chain's flange pose from
// fk_ur's over seeded joint angles within the limits; L: fk_ur's lengths, mm.
double FkMismatch(const KDL::Chain& chain, const double* L) {
    std::mt19937 rng(11);
    std::uniform_real_distribution<double> angle(-2.9670597, 2.9670597);
    KDL::ChainFkSolverPos_recursive fk(chain);
    double worst = chain.getNrOfJoints() == 6 && chain.getNrOfSegments() == 7 ? 0 : INFINITY;  // flange fixed
    for (int k = 0; k < 500; ++k) {
        KDL::JntArray q(6);
        double T[4][4];
        for (int j = 0; j < 6; ++j) q(j) = angle(rng);
        KDL::Frame f;
        if (fk.JntToCart(q, f) < 0) return INFINITY;
        fk_ur(q.data.data(), T, L);
        for (int r = 0; r < 3; ++r) {
            worst = std::max(worst, std::fabs(f.p(r) - T[r][3] / 1000.0));
            for (int c = 0; c < 3; ++c) worst = std::max(worst, std::fabs(f.M(r, c) - T[r][c]));
        }
    }
    return worst;
}

TEST(UrdfExport, ChainIsFkUrAndRneIsTheControllersModel) {
    ScratchDir dir(false);
    std::string messages;
    // The demo's row 13 is identified (within noise of the world's); the
    // exact comparisons below need the values the world's URDF gives.
    if (std::ifstream(TQL_TOOLS_DIR "/demo_dynamic_parameters").good()) {
        const std::string cmd = "cd '" + dir.path() + "' && " + tqltest::HostLauncherPrefix() +
                                TQL_TOOLS_DIR "/demo_dynamic_parameters arm.urdf parameter.db >/dev/null";
        ASSERT_EQ(std::system(cmd.c_str()), 0);
    }
    ASSERT_EQ(RunUrdf(dir.path(), "export.urdf", &messages), 0) << messages;
    EXPECT_FALSE(std::ifstream(dir.File("export.urdf.part")).good());
    bool physical = true;
    const KDL::Chain chain = LoadChain(dir.File("export.urdf"), &physical);
    const double demo[6] = {152, 112, 85, 82, 244, 213}, gl_6l6[6] = {180, 125, 95, 90, 300, 260};
    EXPECT_LT(FkMismatch(chain, demo), 1e-9);
    // Another type's lengths; it has no dynamic parameters: no inertial data.
    ScratchDir other(false);
    ASSERT_TRUE(
        tqltest::ExecSql(other.File("parameter.db"), "UPDATE system_parameters SET VALUE = 'GL_6L6' WHERE ID = 1"));
    ASSERT_EQ(RunUrdf(other.path(), "gl_6l6.urdf", &messages), 0) << messages;
    EXPECT_NE(messages.find("row 13 of GL_6L6 holds no dynamic parameters"), std::string::npos) << messages;
    EXPECT_EQ(tqltest::CountOf(tqltest::ReadFile(other.File("gl_6l6.urdf")), "<inertial>"), 0);
    EXPECT_LT(FkMismatch(LoadChain(other.File("gl_6l6.urdf")), gl_6l6), 1e-9);

    double P[kBaseParameterNum];
    if (Row13(dir.File("parameter.db"), P) == 0) GTEST_SKIP() << "the demo database has no dynamic parameters";
    for (int k = 0; k < 6; ++k) EXPECT_GT(chain.getSegment(k).getInertia().getMass(), 0) << "link " << k + 1;
    EXPECT_TRUE(physical);
    const std::pair<double, double> rne = TorqueMismatch(chain, P, 5);
    EXPECT_LT(rne.first, 2e-7 * rne.second) << "largest torque " << rne.second;

    // The simulated world's own inertias, copied, give the same torques.
    ASSERT_EQ(RunUrdf(dir.path(), "--inertial-from arm.urdf world.urdf", &messages), 0) << messages;
    const std::pair<double, double> copied = TorqueMismatch(LoadChain(dir.File("world.urdf")), P, 6);
    EXPECT_LT(copied.first, 2e-7 * copied.second);
}

// Random physical arms (masses, centres of mass, rotated box inertias) on the
// demo geometry: their base parameters in row 13 map back to physical links
// that reproduce the torques.
TEST(UrdfExport, RandomPhysicalArmsMapBackToPhysicalLinks) {
    ScratchDir dir(false);
    std::mt19937 rng(2024);
    std::uniform_real_distribution<double> u(0, 1);
    for (int arm = 0; arm < 40; ++arm) {
        double S[kStandardParameterNum], P[kBaseParameterNum];
        for (int i = 0; i < 6; ++i) {
            const double m = 0.2 + 3 * u(rng), bx = 0.02 + 0.3 * u(rng), by = 0.02 + 0.3 * u(rng),
                         bz = 0.02 + 0.3 * u(rng);
            const KDL::Vector c(0.3 * u(rng) - 0.15, 0.3 * u(rng) - 0.15, 0.3 * u(rng) - 0.15);
            const KDL::RotationalInertia box(m * (by * by + bz * bz) / 12, m * (bx * bx + bz * bz) / 12,
                                             m * (bx * bx + by * by) / 12, 0, 0, 0);
            const KDL::Rotation R = KDL::Rotation::RPY(6 * u(rng), 6 * u(rng), 6 * u(rng));
            const KDL::RigidBodyInertia I = KDL::Frame(R, c) * KDL::RigidBodyInertia(m, KDL::Vector::Zero(), box);
            const KDL::RotationalInertia& O = I.getRotationalInertia();  // about the link origin
            const double h[3] = {m * c.x(), m * c.y(), m * c.z()};
            const double s[10] = {O.data[0], O.data[1], O.data[2], O.data[4], O.data[5],
                                  O.data[8], h[0],      h[1],      h[2],      m};
            std::copy(s, s + 10, S + 10 * i);
        }
        double a[6], alpha[6], d[6];
        std::copy(kA, kA + 6, a), std::copy(kModelAlpha, kModelAlpha + 6, alpha), std::copy(kD, kD + 6, d);
        standard_to_base_parameters(a, alpha, d, S, P);
        std::string list = "[";
        for (int k = 0; k < kBaseParameterNum; ++k) {
            char b[32];
            std::snprintf(b, sizeof b, "%.17g", P[k]);
            list += (k ? "," : "") + std::string(b);
        }
        ASSERT_TRUE(
            tqltest::ExecSql(dir.File("parameter.db"), "UPDATE GL_6L3 SET VALUE = '" + list + "]' WHERE ID = 13"));
        std::string messages;
        ASSERT_EQ(RunUrdf(dir.path(), "random.urdf", &messages), 0) << messages;
        bool physical = true;
        const std::pair<double, double> rne = TorqueMismatch(LoadChain(dir.File("random.urdf"), &physical), P, arm);
        EXPECT_TRUE(physical) << "arm " << arm << ": " << messages;
        EXPECT_LT(rne.first, 2e-7 * rne.second) << "arm " << arm;
    }
}

// Each six-joint type's file read back with urdfdom: every link, flange
// included, has a visual and a collision cylinder from its origin to the next
// joint's origin, or, where that is the origin itself, a drum centred on it
// along the joint axis z; the radius is the same share of the arm's size for
// every type. Every moving joint's effort is positive (on the demo type the
// simulated drive's peak, sim.conf's torque constant x peak current) and its
// velocity row 1's speed limit in rad/s (the controller's pi).
TEST(UrdfExport, LinksHaveCylindersAndJointsTheirLimits) {
    double share = 0;  // radius / arm size, the first type's
    for (const std::string type : {"GL_6L3", "GL_2P8_P6_3P3", "GL_6L6", "GL_2L6_4L3"}) {
        SCOPED_TRACE(type);
        ScratchDir dir(false);
        const std::string db = dir.File("parameter.db");
        ASSERT_TRUE(tqltest::ExecSql(db, "UPDATE system_parameters SET VALUE = '" + type + "' WHERE ID = 1"));
        std::string messages;
        ASSERT_EQ(RunUrdf(dir.path(), "out.urdf", &messages), 0) << messages;
        const urdf::ModelInterfaceSharedPtr model = urdf::parseURDF(tqltest::ReadFile(dir.File("out.urdf")));
        ASSERT_TRUE(model);
        EXPECT_EQ(model->links_.size(), 8u);
        const std::vector<double> speed = DbRow(db, type, 1, 6), lengths = DbRow(db, type, 12, 6);
        double size = 0;
        for (double l : lengths) size += l / 1000.0;
        const double drive_peak =
            SimConf(dir.File("sim.conf"), "torque_constant") * SimConf(dir.File("sim.conf"), "peak_current");
        int moving = 0;
        for (urdf::LinkConstSharedPtr link = model->getRoot(); link;) {
            const urdf::JointSharedPtr next = link->child_joints.empty() ? nullptr : link->child_joints[0];
            const urdf::Vector3 p = next ? next->parent_to_joint_origin_transform.position : urdf::Vector3();
            const KDL::Vector to(p.x, p.y, p.z);
            const std::pair<urdf::Pose, urdf::GeometrySharedPtr> shapes[2] = {
                {link->visual ? link->visual->origin : urdf::Pose(), link->visual ? link->visual->geometry : nullptr},
                {link->collision ? link->collision->origin : urdf::Pose(),
                 link->collision ? link->collision->geometry : nullptr}};
            for (const auto& [o, geometry] : shapes) {
                const auto* c = dynamic_cast<const urdf::Cylinder*>(geometry.get());
                ASSERT_TRUE(c != nullptr) << link->name << ": no visual or collision cylinder";
                EXPECT_GT(c->radius, 0) << link->name;
                EXPECT_GT(c->length, 0) << link->name;
                if (share == 0) share = c->radius / size;
                EXPECT_NEAR(c->radius / size, share, 1e-12) << link->name;
                const KDL::Vector centre(o.position.x, o.position.y, o.position.z);
                const KDL::Vector half =
                    KDL::Rotation::Quaternion(o.rotation.x, o.rotation.y, o.rotation.z, o.rotation.w) *
                    KDL::Vector(0, 0, 0.5 * c->length);
                if (to.Norm() < 1e-9) {
                    EXPECT_LT(centre.Norm() + std::fabs(std::fabs(half.z()) - 0.5 * c->length), 1e-12) << link->name;
                } else {
                    const double ends = std::min((centre - half).Norm() + (centre + half - to).Norm(),
                                                 (centre + half).Norm() + (centre - half - to).Norm());
                    EXPECT_LT(ends, 1e-12) << link->name << " does not reach joint " << next->name;
                }
            }
            if (next && next->type != urdf::Joint::FIXED) {
                ASSERT_TRUE(next->limits) << next->name;
                EXPECT_GT(next->limits->effort, 0) << next->name;
                if (type == "GL_6L3") {
                    EXPECT_DOUBLE_EQ(next->limits->effort, drive_peak) << next->name;
                }
                EXPECT_DOUBLE_EQ(next->limits->velocity, speed[moving++] * 3.1415926 / 180.0) << next->name;
            }
            link = next ? model->getLink(next->child_link_name) : nullptr;
        }
        EXPECT_EQ(moving, 6);
    }
}

TEST(UrdfExport, RefusesWhatItCannotExport) {
    const struct {
        const char* sql;   // applied to a fresh copy of the demo database ("" = none)
        const char* args;  // after tql-urdf
        const char* message;
    } cases[] = {
        {"UPDATE system_parameters SET VALUE = 'GL_9X9' WHERE ID = 1", "out.urdf", "unknown robot type 'GL_9X9'"},
        {"UPDATE system_parameters SET VALUE = 'GL_4L3' WHERE ID = 1", "out.urdf",
         "robot type GL_4L3 cannot be exported"},
        {"UPDATE GL_6L3 SET VALUE = '[152.0,244.0,x]' WHERE ID = 12", "out.urdf",
         "GL_6L3 row 12 does not hold 6 numbers"},
        {"DROP TABLE GL_6L3", "out.urdf", "cannot read table GL_6L3"},
        {"UPDATE GL_6L3 SET VALUE = '[152.0,250.0,213.0,112.0,85.0,82.0]' WHERE ID = 12",
         "--inertial-from arm.urdf out.urdf", "joint 'joint3' does not sit where parameter.db's geometry puts joint 3"},
        {"", "--inertial-from missing.urdf out.urdf", "cannot read the URDF file missing.urdf"},
    };
    for (const auto& c : cases) {
        ScratchDir dir(false);
        ASSERT_TRUE(*c.sql == '\0' || tqltest::ExecSql(dir.File("parameter.db"), c.sql)) << c.sql;
        std::string messages;
        EXPECT_EQ(RunUrdf(dir.path(), c.args, &messages), 1) << c.sql;
        EXPECT_NE(messages.find(c.message), std::string::npos) << messages;
        EXPECT_FALSE(std::ifstream(dir.File("out.urdf")).good() || std::ifstream(dir.File("out.urdf.part")).good());
    }
    ScratchDir empty(false);
    std::remove(empty.File("parameter.db").c_str());
    std::string messages;
    EXPECT_EQ(RunUrdf(empty.path(), "", &messages), 1);
    EXPECT_NE(messages.find("tql-urdf: cannot open parameter.db"), std::string::npos) << messages;
}

}  // namespace
