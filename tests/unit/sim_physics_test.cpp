// The simulated arm's physical world, against an independent KDL model of the
// demo arm built from its modified-DH table: forward and inverse dynamics,
// falling, brakes, the drives' peak current and the scripted hand in current
// mode, reading noise, contacts with obstacles and scripted torque pulses.
#include <Eigen/Cholesky>
#include <kdl/chaindynparam.hpp>
#include <kdl/chain.hpp>
#include <kdl/chainfdsolver_recursive_newton_euler.hpp>
#include <kdl/chainfksolverpos_recursive.hpp>
#include <kdl/chainidsolver_recursive_newton_euler.hpp>
#include <kdl/chainjnttojacsolver.hpp>

#include <algorithm>
#include <cmath>
#include <random>

#include "sim_world.h"
#include "test_support.h"

namespace {

constexpr double kPi = 3.141592653589793, kKt = 1.0623;
const double kAlpha[6] = {0, kPi / 2, 0, 0, -kPi / 2, kPi / 2}, kOffset[6] = {0, kPi / 2, 0, -kPi / 2, 0, 0};
const double kA[6] = {0, 0, 0.244, 0.213, 0, 0}, kD[6] = {0.152, 0, 0, 0.112, 0.085, 0.082};
const double kDirection[6] = {1, 1, -1, 1, -1, 1};  // the demo database's joint directions
const KDL::Vector kGravity(0, 0, -9.80665);

double Raw(int j, double q) { return q / (2 * kPi) * 36.0 * kDirection[j]; }  // joint rad -> actuator rev
KDL::Wrenches NoWrenches(const KDL::Chain& c) { return KDL::Wrenches(c.getNrOfSegments(), KDL::Wrench::Zero()); }

// The demo arm from its DH table, carrying the link masses the world read.
struct DemoArm {
    tqlsim::World world;
    KDL::Chain chain;
    DemoArm() {
        std::string problem;
        EXPECT_TRUE(world.Load(TQL_SOURCE_DIR "/demo/arm.urdf", &problem)) << problem;
        for (int i = 0; i < world.joints(); ++i) {
            const tqlsim::LinkInertia l = world.link(i);
            const double *I = l.inertia, *c = l.com;
            const KDL::RotationalInertia Ic(I[0], I[1], I[2], I[3], I[4], I[5]);
            chain.addSegment(KDL::Segment(KDL::Joint(KDL::Joint::None),
                                          KDL::Frame::DH_Craig1989(kA[i], kAlpha[i], kD[i], kOffset[i])));
            chain.addSegment(KDL::Segment(KDL::Joint(KDL::Joint::RotZ), KDL::Frame::Identity(),
                                          KDL::RigidBodyInertia(l.mass, KDL::Vector(c[0], c[1], c[2]), Ic)));
        }
    }
    // Joint i's torque: inverse dynamics plus the file's viscous and Coulomb friction.
    double Torque(int i, const KDL::JntArray& q, const KDL::JntArray& dq, const KDL::JntArray& ddq) {
        KDL::JntArray tau(6);
        KDL::ChainIdSolver_RNE(chain, kGravity).CartToJnt(q, dq, ddq, NoWrenches(chain), tau);
        return tau(i) + world.viscous(i) * dq(i) + std::copysign(world.coulomb(i), dq(i)) * (std::fabs(dq(i)) > 1e-5);
    }
};

class SimPhysics : public tqltest::SimBusTest {
protected:
    void SetUp() override {
        SimBusTest::SetUp();
        if (!tqlsim::World::Built()) GTEST_SKIP() << "bus built without physics";
        setenv("TQL_SIM_CLOCK", "virtual", 1);
        setenv("TQL_SIM_NOISE", "0", 1);  // exact readings
    }
};

TEST_F(SimPhysics, WorldIsThePlausibleDhArmAndMovesAsKdlSays) {
    DemoArm arm;
    ASSERT_EQ(arm.world.joints(), 6);
    for (int i = 0; i < 6; ++i) {  // physically valid links
        const tqlsim::LinkInertia link = arm.world.link(i);  // a copy: keep it while I points into it
        const double* I = link.inertia;
        EXPECT_GT(link.mass, 0.1);
        EXPECT_TRUE(I[0] + I[1] >= I[2] && I[1] + I[2] >= I[0] && I[0] + I[2] >= I[1]) << i;
    }
    KDL::JntArray q(6), dq(6), tau(6), ddq(6);
    q(1) = kPi / 2;  // stretched out horizontally
    const double peak_static = std::fabs(arm.Torque(1, q, dq, ddq));
    EXPECT_NEAR(peak_static, 8.0, 1.5) << "joint 2's peak static torque";
    EXPECT_LT(peak_static, 10.0 * kKt) << "held within the drive's 10 A peak current";

    // All joints free and moving, the hand off: the world's accelerations
    // solve KDL's equations of motion under the motor torques, less the
    // file's viscous and Coulomb friction when it is on, the viscous part
    // taken at the step's end rate (M + h b) ddq = tau - b dq - fc sign(dq) - c(q, dq) - g(q).
    KDL::ChainDynParam dynamics(arm.chain, kGravity);
    KDL::ChainIdSolver_RNE bias(arm.chain, kGravity);
    const double h = 0.001;  // s
    std::mt19937 rng(11);
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    for (bool friction : {false, true}) {
        arm.world.set_friction(friction);
        for (int sample = 0; sample < 200; ++sample) {
            for (int i = 0; i < 6; ++i) {
                q(i) = arm.world.q()[i] = 2.9 * u(rng);
                // At least 0.05 rad/s: the smooth Coulomb sign is the sign there.
                dq(i) = arm.world.dq()[i] = std::copysign(0.05 + 2.95 * std::fabs(u(rng)), u(rng));
                tau(i) = arm.world.drive()[i].motor = 10.0 * u(rng);
                arm.world.drive()[i].free = true;
            }
            double got[6];
            arm.world.Accelerations(h, got);
            KDL::JntSpaceInertiaMatrix M(6);
            KDL::JntArray c(6), zero(6);
            dynamics.JntToMass(q, M);
            bias.CartToJnt(q, dq, zero, NoWrenches(arm.chain), c);
            Eigen::Matrix<double, 6, 6> A = M.data;
            Eigen::Matrix<double, 6, 1> r;
            for (int i = 0; i < 6; ++i) {
                const double b = friction ? arm.world.viscous(i) : 0.0, fc = friction ? arm.world.coulomb(i) : 0.0;
                A(i, i) += h * b;
                r(i) = tau(i) - b * dq(i) - std::copysign(fc, dq(i)) - c(i);
            }
            const Eigen::Matrix<double, 6, 1> want = A.ldlt().solve(r);
            for (int i = 0; i < 6; ++i)
                ASSERT_NEAR(got[i], want(i), 1e-8 * (1 + std::fabs(want(i)))) << friction << "," << sample << "," << i;
        }
    }
    EXPECT_GT(arm.world.coulomb(1) + arm.world.viscous(1), 0.0) << "the file's friction is not zero";
}

// A smooth commanded motion: the currents read, times kt * direction, are the
// torques the DH model needs along it (the finite differences cost 0.004 N*m).
TEST_F(SimPhysics, PositionModeReadsTheInverseDynamicsOfTheCommandedMotion) {
    ASSERT_NO_FATAL_FAILURE(Boot());
    ASSERT_EQ(tql_sim_physics(), 1);
    DemoArm arm;
    const double q0[6] = {0.3, 0.5, -0.8, 0.4, 0.6, -0.2}, amp[6] = {0.4, -0.3, 0.35, 0.5, -0.4, 0.6}, w = 2.0;
    for (int i = 0; i < 6; ++i) Ctl()->setPosition(i + 1, Raw(i, q0[i]));
    KDL::JntArray q(6), dq(6), ddq(6);
    for (int k = 1; k <= 150; ++k) {  // w t up to 1.2: no rate changes sign
        tql_sim_sleep(0.004);
        const double t = 0.004 * k;
        for (int i = 0; i < 6; ++i) {
            q(i) = q0[i] + amp[i] * std::sin(w * t);
            dq(i) = amp[i] * w * std::cos(w * t);
            ddq(i) = -amp[i] * w * w * std::sin(w * t);
            Ctl()->setPosition(i + 1, Raw(i, q(i)));
        }
        for (int id = 1; id <= 6; ++id) Ctl()->requestCVPValue(id);
        Ctl()->processEvents();
        for (int i = 0; i < 6 && k >= 3; ++i) {  // the commanded motion needs three set-points
            EXPECT_NEAR(tql_sim_joint_angle(i + 1), q(i), 1e-12);
            const double read = Ctl()->getCurrent(i + 1, false) * kKt * kDirection[i];
            ASSERT_NEAR(read, arm.Torque(i, q, dq, ddq), 0.01) << "k=" << k << " joint " << i + 1;
        }
    }
}

// Zero current: the arm falls once the drives have a current set-point, and
// joint 2 stops hard at its limit; a disabled actuator's joint holds; leaving
// current mode keeps the position reached.
TEST_F(SimPhysics, CurrentModeFallsToTheLimitAndBrakesHold) {
    ASSERT_NO_FATAL_FAILURE(Boot());
    Ctl()->setPosition(2, Raw(1, 0.5));
    Ctl()->setPosition(4, Raw(3, 0.7));
    ASSERT_TRUE(Ctl()->disableActuator(4));
    Ctl()->activateActuatorModeInBantch({1, 2, 3, 5, 6}, Actuator::Mode_Cur);
    tql_sim_sleep(0.2);
    EXPECT_EQ(tql_sim_joint_angle(2), 0.5) << "held until the first current set-point";
    for (uint8_t id : {1, 2, 3, 5, 6}) Ctl()->setCurrent(id, 0.0);
    tql_sim_sleep(0.2);
    EXPECT_GT(tql_sim_joint_angle(2), 0.6) << "falling";
    EXPECT_NEAR(Ctl()->getVelocity(2, true), tql_sim_joint_rate(2) * 36 / (2 * kPi) * 60, 1e-9);
    EXPECT_GT(tql_sim_joint_rate(2), 0.5);
    EXPECT_EQ(Ctl()->getCurrent(2, true), 0.0);
    tql_sim_sleep(3.0);  // one bus call catches up the whole interval
    EXPECT_NEAR(tql_sim_joint_angle(2), 17.0 / 36.0 * 2 * kPi, 1e-12);
    EXPECT_EQ(tql_sim_joint_rate(2), 0.0);
    EXPECT_NEAR(tql_sim_joint_angle(4), 0.7, 1e-12) << "brake";
    Ctl()->activateActuatorModeInBantch({2}, Actuator::Mode_Pos);
    tql_sim_sleep(1.0);
    EXPECT_NEAR(Ctl()->getPosition(2, true), 17.0, 1e-9) << "position mode from where current mode left it";
}

// Joint 1 (about the vertical, no gravity) set free with a current beyond
// the peak turns exactly as with the peak itself, well short of its stop.
TEST_F(SimPhysics, DriveDeliversAtMostItsPeakCurrent) {
    std::vector<double> angle;
    for (double amps : {10.0, 25.0, -10.0, -1e6}) {
        ASSERT_NO_FATAL_FAILURE(Boot());
        Ctl()->activateActuatorModeInBantch({1}, Actuator::Mode_Cur);
        Ctl()->setCurrent(1, amps);
        tql_sim_sleep(0.05);
        angle.push_back(tql_sim_joint_angle(1));
    }
    EXPECT_GT(angle[0], 0.02);
    EXPECT_LT(angle[0], 2.5) << "the stop is at 2.97 rad";
    EXPECT_EQ(angle[1], angle[0]);
    EXPECT_EQ(angle[3], angle[2]);
    EXPECT_LT(angle[2], -0.02);
}

TEST_F(SimPhysics, ScriptedHandPullsAJointToItsTarget) {
    tqltest::WriteFile("hand.csv", "# ramp, hold\ntime,j1,j2,j3,j4,j5,j6\n0, 0,,,,,\n1, 40,,,,,\n3, 40,,,,,\n");
    setenv("TQL_SIM_HAND", "hand.csv", 1);
    ASSERT_NO_FATAL_FAILURE(Boot());
    Ctl()->activateActuatorModeInBantch({1}, Actuator::Mode_Cur);  // the hand's clock starts
    Ctl()->setCurrent(1, 0.0);
    tql_sim_sleep(0.5);
    EXPECT_NEAR(tql_sim_joint_angle(1) * 180 / kPi, 15.0, 5.0) << "behind a target halfway up its ramp";
    tql_sim_sleep(2.4);
    EXPECT_NEAR(tql_sim_joint_angle(1) * 180 / kPi, 40.0, 1.0) << "within about fc / k = 0.57 deg";
    EXPECT_EQ(tql_sim_joint_angle(2), 0.0) << "locked by position mode";
}

TEST_F(SimPhysics, NoiseIsSeededWithTheConfiguredSpreadAndPhysicsNeedsAMatchingWorld) {
    auto readings = [](int n, std::vector<double> v = {}) {
        while (n-- > 0) v.push_back(Ctl()->getCurrent(2, true));
        return v;
    };
    unsetenv("TQL_SIM_NOISE");  // sim.conf's spread: 0.02 of the 10 A peak current
    ASSERT_NO_FATAL_FAILURE(Boot());
    tql_sim_set_current_noise(0.0);
    const double exact = readings(1)[0];
    tql_sim_set_current_noise(0.02);
    const std::vector<double> a = readings(4000);
    double mean = 0, var = 0;
    for (double x : a) mean += x / a.size(), var += (x - exact) * (x - exact) / a.size();
    EXPECT_NEAR(mean, exact, 0.02);
    EXPECT_NEAR(std::sqrt(var), 0.2, 0.01);
    ASSERT_NO_FATAL_FAILURE(Boot());
    EXPECT_EQ(readings(4000), a) << "same seed, same readings";
    tqltest::WriteFile("sim.conf", tqltest::ReadFile("sim.conf") + "noise_seed = 2\n");
    ASSERT_NO_FATAL_FAILURE(Boot());
    const double second = readings(1)[0];
    EXPECT_NE(second, a[0]);
    // A seed that is no whole number is reported and left out: seed 2 stays
    // (7.5 taken would be seed 7).
    tqltest::WriteFile("sim.conf", tqltest::ReadFile("sim.conf") + "noise_seed = 7.5\n");
    ASSERT_NO_FATAL_FAILURE(Boot());
    EXPECT_EQ(readings(1)[0], second);

    for (const auto& env : std::vector<std::pair<const char*, const char*>>{
             {"TQL_SIM_URDF", "none"}, {"TQL_SIM_URDF", "missing.urdf"}, {"TQL_SIM_ACTUATORS", "5"}}) {
        setenv(env.first, env.second, 1);
        tql_sim_reset();
        EXPECT_EQ(tql_sim_physics(), 0) << env.first << "=" << env.second;
        unsetenv(env.first);
    }
}

}  // namespace

// A contact's joint torques are the contact Jacobian's transpose times its
// force (the independent DH model's Jacobian at the contact point), whatever
// the link and the pose; the world's link points are the DH frames' origins.
TEST_F(SimPhysics, ContactTorquesAreTheContactJacobiansTransposeTimesTheForce) {
    DemoArm arm;
    std::mt19937 random(5);
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    KDL::ChainJntToJacSolver jacobian(arm.chain);
    KDL::ChainFkSolverPos_recursive fk(arm.chain);
    for (int trial = 0; trial < 12; ++trial) {
        KDL::JntArray q(6), zero(6);
        double qs[6], zeros[6] = {}, free[6], held[6], points[21];
        for (int i = 0; i < 6; ++i) qs[i] = q(i) = 1.5 * u(random);
        arm.world.LinkPoints(qs, points);
        const int link = trial % 6;
        // The DH frame of the link (its own segment, after the joint turns).
        KDL::Frame frame;
        fk.JntToCart(q, frame, 2 * link + 2);
        for (int k = 0; k < 3; ++k) EXPECT_NEAR(points[3 * link + k], frame.p(k), 1e-9) << "link " << link;
        tqlsim::Contact c;
        c.link = link;
        const KDL::Vector at = frame * KDL::Vector(0.05 * u(random), 0.05 * u(random), 0.05 * u(random));
        const KDL::Vector force(20 * u(random), 20 * u(random), 20 * u(random));
        for (int k = 0; k < 3; ++k) c.point[k] = at(k), c.force[k] = force(k);
        arm.world.SetContacts({});
        arm.world.InverseDynamics(qs, zeros, zeros, free);
        arm.world.SetContacts({c});
        arm.world.InverseDynamics(qs, zeros, zeros, held);
        KDL::Jacobian J(6);
        jacobian.JntToJac(q, J, 2 * link + 2);
        J.changeRefPoint(at - frame.p);  // from the frame's origin to the point
        for (int j = 0; j < 6; ++j) {
            const double expected = j <= link ? J(0, j) * force(0) + J(1, j) * force(1) + J(2, j) * force(2) : 0.0;
            EXPECT_NEAR(free[j] - held[j], expected, 1e-9) << "trial " << trial << " joint " << j + 1;
        }
    }
}

// An obstacle in the way: the drives hold their set-points against it, so the
// contact shows in their currents, growing with the depth (the flight
// recorder logs each contact's force) until the drive holding the most
// trips; a scripted torque pulse shows the same way, and pushes a free joint.
TEST_F(SimPhysics, ObstaclesAndTorquePulsesShowInTheCurrentsAndTripTheDrive) {
    // Joint 2 pushed (as by a hand) 0.05 degrees a period into a box and
    // held there: the drive's current is the contact's, growing with the
    // depth, reported up to the peak, until the drive trips.
    setenv("TQL_SIM_RECORD", "rec.csv", 1);
    tqltest::WriteFile("sim.conf", tqltest::ReadFile("sim.conf") + "obstacle = box -250 0 450 100 300 300 5 0.05\n");
    ASSERT_NO_FATAL_FAILURE(Boot());
    std::vector<double> current;
    for (int k = 0; k < 800 && Ctl()->getErrorCode(2) == 0; ++k) {
        tql_sim_sleep(0.004);
        tql_sim_set_position(2, Raw(1, 0.05 * k * kPi / 180));
        Ctl()->setPosition(2, Raw(1, 0.05 * k * kPi / 180));
        if (Ctl()->getErrorCode(2) == 0) current.push_back(std::fabs(Ctl()->getCurrent(2, true)));
    }
    tql_sim_flush_recorder();
    const std::string rec = tqltest::ReadFile("rec.csv");
    EXPECT_GT(tqltest::CountOf(rec, ",contact,"), 5) << rec.substr(rec.size() > 600 ? rec.size() - 600 : 0);
    EXPECT_EQ(Ctl()->getErrorCode(2), static_cast<uint32_t>(Actuator::ERR_DRV_PROTECTION)) << "tripped beyond its peak";
    ASSERT_GT(current.size(), 5u);
    EXPECT_TRUE(std::is_sorted(current.end() - 5, current.end())) << "growing with the depth";
    EXPECT_GT(current.back(), 8.0);
    EXPECT_LE(*std::max_element(current.begin(), current.end()), 10.0 + 1e-9) << "reported up to the peak";

    // A pulse of 4 N*m on joint 1 (no gravity about it): held, the current
    // shows -4 / kt while it lasts; free, the joint turns its way.
    unsetenv("TQL_SIM_RECORD");
    tqltest::WriteFile("sim.conf", "");
    ASSERT_NO_FATAL_FAILURE(Boot());
    tql_sim_torque_pulse(1, tql_sim_now() + 0.1, 4.0, 0.2);
    tql_sim_sleep(0.05);
    Ctl()->setPosition(1, 0.0);
    const double before = Ctl()->getCurrent(1, true);
    tql_sim_sleep(0.1);
    Ctl()->setPosition(1, 0.0);
    EXPECT_NEAR(Ctl()->getCurrent(1, true) - before, -4.0 / kKt, 1e-9);
    tql_sim_sleep(0.2);
    Ctl()->setPosition(1, 0.0);
    EXPECT_NEAR(Ctl()->getCurrent(1, true), before, 1e-9);
    tql_sim_torque_pulse(1, tql_sim_now(), 4.0, 0.05);
    Ctl()->activateActuatorModeInBantch({1}, Actuator::Mode_Cur);
    Ctl()->setCurrent(1, 0.0);
    tql_sim_sleep(0.1);
    EXPECT_GT(tql_sim_joint_angle(1), 0.001);
}
