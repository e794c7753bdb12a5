// Braking stops on the simulated arm, in virtual time: every kind of stream
// (joint, linear and circular moves, plain and blended program runs, a replay,
// joint and Cartesian jogs) is stopped at seeded random periods, and the
// set-points actually sent are checked against the same stream run without a
// stop and against the joints' limits by finite differences; the stop
// profile itself against numerical integration of its own jerk.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <climits>
#include <cmath>
#include <functional>
#include <list>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "database.h"
#include "execute.h"
#include "interpolation.h"
#include "program.h"
#include "speed_profile.h"
#include "test_support.h"

namespace {

using tqltest::Degrees;
using tqltest::Joints;
using tqltest::tick_spy;

// The demo arm's joint limits as the database states them (rows 1-3,
// degrees), in the system's radians.
struct Limits {
    double speed[6], acceleration[6], jerk[6];
};
Limits DatabaseLimits() {
    Limits l{};
    const ResourceData* rd = GetResourceDate();
    for (int j = 0; j < 6; ++j) {
        l.speed[j] = rd->joint_speed[j] * tqltest::kDeg;
        l.acceleration[j] = rd->joint_acceleration[j] * tqltest::kDeg;
        l.jerk[j] = rd->joint_jerk[j] * tqltest::kDeg;
    }
    return l;
}

// Largest ratio of a finite difference of `q` (PERIOD apart, starting and
// ending at rest at its first and last set-point) to its joint's limit.
double WorstRatio(const std::vector<Joints>& sent, const Joints& start, const Limits& l) {
    std::vector<Joints> q(3, start);
    q.insert(q.end(), sent.begin(), sent.end());
    for (int k = 0; k < 3; ++k) q.push_back(q.back());
    double worst = 0.0;
    const double h = PERIOD;
    for (size_t k = 3; k < q.size(); ++k)
        for (int j = 0; j < 6; ++j) {
            const double v = (q[k][j] - q[k - 1][j]) / h;
            const double a = (q[k][j] - 2 * q[k - 1][j] + q[k - 2][j]) / (h * h);
            const double jerk = (q[k][j] - 3 * q[k - 1][j] + 3 * q[k - 2][j] - q[k - 3][j]) / (h * h * h);
            worst = std::max({worst, std::fabs(v) / l.speed[j], std::fabs(a) / l.acceleration[j],
                              std::fabs(jerk) / l.jerk[j]});
        }
    return worst;
}

// Where p lies along the polyline of `path` within a few set-points from
// `from` (a brake never runs ahead of its stream): fractional index of the
// nearest point and its distance (rad, joint space).
std::pair<double, double> Locate(const std::vector<Joints>& path, const Joints& p, size_t from) {
    double best = HUGE_VAL, where = 0.0;
    for (size_t k = from; k + 1 < path.size() && k < from + 4; ++k) {
        double dd = 0.0, dp = 0.0;
        for (int j = 0; j < 6; ++j) {
            const double d = path[k + 1][j] - path[k][j];
            dd += d * d;
            dp += d * (p[j] - path[k][j]);
        }
        const double u = dd > 0.0 ? std::clamp(dp / dd, 0.0, 1.0) : 0.0;
        double dist = 0.0;
        for (int j = 0; j < 6; ++j) {
            const double e = path[k][j] + u * (path[k + 1][j] - path[k][j]) - p[j];
            dist += e * e;
        }
        if (std::sqrt(dist) < best - 1e-15) best = std::sqrt(dist), where = k + u;
    }
    return {where, best};
}

// An upper bound of the time one joint needs to stop from speed v and
// acceleration a (towards v) within limits A and J: the acceleration back to
// zero, then a stop from the speed reached, from zero acceleration.
double StopTimeBound(double v, double a, double A, double J) {
    const double reached = std::fabs(v) + (a > 0 ? a * a / (2 * J) : 0.0);
    return std::fabs(a) / J + reached / A + A / J;
}

class Braking : public tqltest::SimulatedArmTest {
protected:
    void SetUp() override {
        tick_spy = tqltest::TickSpy();
        ASSERT_NO_FATAL_FAILURE(BootArm(&tqltest::TickSleep));
        robot_ = GetCurrentRobot();
        ASSERT_TRUE(GetResourceDate()->braking_switch);  // the demo database brakes
        SetReplayOverride(1.0);
        ASSERT_EQ(SetSpeedOverride(), 0);
        table_.reset(new InterpolationData[kInterpolationTableSize]);
        limits_ = DatabaseLimits();
    }
    void TearDown() override {
        SetReplayOverride(1.0);
        InitSpeedOverride();
        SimulatedArmTest::TearDown();
    }
    // Puts the arm at `q` (not recorded).
    void Place(const Joints& q) {
        tick_spy = tqltest::TickSpy();
        Joints target = q;
        ASSERT_EQ(tqltest::Quiet([&] { return MoveToSpecifiedPosition(target.data()); }), 0);
        tick_spy.sent.clear();
    }
    int Load(const std::vector<std::string>& lines) { return tqltest::LoadProgram(lines, table_.get()); }
    // Runs `stream` from `start` with a stop after `stop_at` periods (-1:
    // none); the set-points sent go to *sent.
    int Run(const Joints& start, const std::function<int()>& stream, long stop_at, std::vector<Joints>* sent) {
        Place(start);
        tick_spy.stop_at = stop_at;
        const int result = tqltest::Quiet(stream);
        *sent = tick_spy.sent;
        tick_spy.stop_at = -1;
        return result;
    }

    // Stops `stream` at seeded random periods and checks each stop against
    // the run without one.
    void CheckStops(const char* name, const Joints& start, const std::function<int()>& stream, unsigned seed) {
        SCOPED_TRACE(name);
        std::vector<Joints> nominal, sent;
        ASSERT_EQ(Run(start, stream, -1, &nominal), 0);
        ASSERT_GT(nominal.size(), 20u);
        EXPECT_LE(WorstRatio(nominal, start, limits_), 1.01);
        std::mt19937 random(seed);
        std::uniform_int_distribution<long> when(2, static_cast<long>(nominal.size()) - 2);
        for (int trial = 0; trial < 5; ++trial) {
            const long stop_at = when(random);
            SCOPED_TRACE("stop after " + std::to_string(stop_at) + " of " + std::to_string(nominal.size()));
            EXPECT_EQ(Run(start, stream, stop_at, &sent), -1);
            ASSERT_GT(sent.size(), static_cast<size_t>(stop_at));  // braking from the next period on
            ASSERT_LE(sent.size(), nominal.size());
            for (long k = 0; k < stop_at; ++k)
                for (int j = 0; j < 6; ++j) ASSERT_NEAR(sent[k][j], nominal[k][j], 1e-9) << "period " << k;
            EXPECT_LE(WorstRatio(sent, start, limits_), 1.01);
            // Along the stream's own path, never back, and held at the end.
            double along = stop_at - 1;
            for (size_t k = stop_at; k < sent.size(); ++k) {
                const auto [where, off] = Locate(nominal, sent[k], static_cast<size_t>(along));
                EXPECT_LT(off, 1e-5) << "period " << k;
                EXPECT_GE(where, along - 1e-6) << "period " << k;
                along = std::max(along, where);
            }
            const Joints held = tqltest::CurrentJoints();
            for (int j = 0; j < 6; ++j) EXPECT_NEAR(held[j], sent.back()[j], 1e-9);
            // No longer than twice the slowest joint's own stop, or the
            // stream's own way to rest when that comes first.
            double bound = 0.0;
            const Joints& q0 = sent[stop_at - 1];
            const Joints& q1 = stop_at >= 2 ? sent[stop_at - 2] : start;
            const Joints& q2 = stop_at >= 3 ? sent[stop_at - 3] : (stop_at >= 2 ? start : start);
            for (int j = 0; j < 6; ++j) {
                const double v = (q0[j] - q1[j]) / PERIOD;
                const double a = (q0[j] - 2 * q1[j] + q2[j]) / (PERIOD * PERIOD) * (v < 0 ? -1 : 1);
                bound = std::max(bound, StopTimeBound(v, a, limits_.acceleration[j], limits_.jerk[j]));
            }
            const double periods = static_cast<double>(sent.size() - stop_at);
            EXPECT_LE(periods, std::max(2.0 * bound / PERIOD + 3.0, static_cast<double>(nominal.size() - stop_at)));
        }
        // With the switch off: the dead stop.
        GetResourceDate()->braking_switch = false;
        EXPECT_EQ(Run(start, stream, nominal.size() / 2, &sent), -1);
        EXPECT_EQ(sent.size(), nominal.size() / 2);
        GetResourceDate()->braking_switch = true;
    }

    Robot* robot_ = nullptr;
    std::unique_ptr<InterpolationData[]> table_;
    Limits limits_{};
};

const Joints kStart = Degrees({-40, 20, 60, 10, -90, 0});

}  // namespace

TEST_F(Braking, EveryStreamBrakesAlongItsPathWithinTheJointLimits) {
    AccDecDate joint[kMaxJointNum];
    robot_->GetJointSpeedAccDecParameters(joint);
    CheckStops("joint move", kStart, [&] {
        Joints from = kStart, to = Degrees({30, 0, 80, 40, -60, 30});
        return MoveJointPath(robot_, from.data(), to.data(), joint);
    }, 1);
    const std::vector<std::string> program = {
        "MOVL V=100 z5 -40,25,75,-10,-90,0",
        "MOVL V=150 z5 -30,15,65,10,-90,0",
        "MOVC V=150 z5 -20,20,60,10,-90,0,0,20,60,10,-90,0",
        "MOVJ VJ=50 z5 -30,10,70,0,-80,20",
    };
    for (int line = 0; line < 3; ++line) {
        CheckStops(program[line].c_str(), kStart, [&] {
            const int n = Load({program[line]});
            return MovePathList(robot_, table_.get(), n);
        }, 10 + line);
    }
    CheckStops("plain run", kStart, [&] { return MovePathList(robot_, table_.get(), Load(program)); }, 20);
    CheckStops("blended run", kStart, [&] { return MovePathListSmooth(robot_, table_.get(), Load(program)); }, 21);
    // A replay of the joint move's own set-points.
    std::vector<Joints> samples;
    {
        Joints from = kStart, to = Degrees({0, 30, 40, -20, -70, 60});
        ASSERT_EQ(Run(kStart, [&] { return MoveJointPath(robot_, from.data(), to.data(), joint); }, -1, &samples), 0);
        samples.insert(samples.begin(), kStart);
    }
    CheckStops("replay", kStart, [&] {
        return MoveTrajectoryOnce(robot_, samples[0].data(), static_cast<int>(samples.size()));
    }, 30);
    CheckStops("joint jog", kStart, [] { return JogInJointCoordinateSystem(0, 60.0); }, 40);
    CheckStops("Cartesian jog", kStart, [] { return JogInCartesianCoordinateSystem(2, -80.0); }, 41);
}

// The stop profile from random states: its closed form agrees with
// integrating its own jerk, it ends at rest without reversing, and keeps
// within the limits (the jerk raised only when rest cannot be met otherwise).
TEST(StopProfile, MatchesItsIntegratedJerkAndEndsAtRest) {
    std::mt19937 random(7);
    std::uniform_real_distribution<double> unit(0.0, 1.0);
    for (int c = 0; c < 400; ++c) {
        const double d = 0.1 + 5 * unit(random), j = 0.5 + 50 * unit(random);
        const double v0 = c % 10 == 0 ? 0.0 : 3 * unit(random);
        const double a0 = (2 * unit(random) - 1) * 1.5 * d;
        StopProfile stop;
        ASSERT_EQ(stop.Plan(v0, a0, d, j), 0);
        if (stop.Duration() == 0.0) {  // at rest, or reversing already: nothing to plan
            EXPECT_TRUE(v0 == 0.0 && a0 <= 0.0) << c;
            continue;
        }
        const double raised = stop.LastJerk() > j * (1 + 1e-9) ? stop.LastJerk() : j;
        // Numerical integration of the jerk (finite differences of the
        // acceleration) against the closed form.
        const int steps = 20000;
        const double dt = stop.Duration() / steps;
        double x = 0, v = v0, a = a0;
        for (int k = 0; k < steps; ++k) {
            double a_next;
            stop.At((k + 1) * dt, nullptr, nullptr, &a_next);
            const double jerk = (a_next - a) / dt;
            ASSERT_LE(std::fabs(jerk), raised * (1 + 1e-6)) << c;
            x += v * dt + a * dt * dt / 2 + jerk * dt * dt * dt / 6;
            v += a * dt + jerk * dt * dt / 2;
            a = a_next;
            ASSERT_GE(v, -1e-6 * (1 + v0)) << c;
            ASSERT_LE(std::fabs(a), std::max(d, std::fabs(a0)) * (1 + 1e-9)) << c;
        }
        double end_x, end_v, end_a;
        stop.At(stop.Duration() + 1.0, &end_x, &end_v, &end_a);
        EXPECT_NEAR(x, stop.Distance(), 1e-5 * (1 + stop.Distance())) << c;
        EXPECT_NEAR(end_x, stop.Distance(), 1e-12);
        EXPECT_NEAR(v, 0.0, 1e-5 * (1 + v0)) << c;
        EXPECT_EQ(end_v, 0.0);
        EXPECT_EQ(end_a, 0.0);
        // The raised jerk only where even an immediate return of the
        // deceleration to zero would reverse.
        if (raised > j) {
            EXPECT_LT(v0, a0 * a0 / (2 * j)) << c;
        }
    }
}

namespace {

long release_at = 0;  // the held jog's button: renewed before this period, let go at it (0: never renewed)
void Button(long tick) {
    if (release_at == 0) return;
    if (tick < release_at) RenewJog();
    if (tick == release_at) ReleaseJog();
}

}  // namespace

// Hold-to-run jogs: held for a while and let go, never renewed (a lost
// page), held into a soft limit and into the workspace's floor, and stopped.
// Each starts and stops within the joints' limits by finite differences,
// keeps to its jog speed, comes to rest, and stays within the boundary.
TEST_F(Braking, HeldJogsKeepTheLimitsStopWhenLetGoOrLapsedAndBeforeTheBoundary) {
    const struct {
        const char* name;
        int kind, index, direction;
        long release;  // period of the release; 0: never renewed; LONG_MAX: held throughout
        long stop_at;  // a stop request after this many periods (-1: none)
        int result;
    } cases[] = {
        {"joint 1 held 1 s", kHeldJogJoint, 0, -1, 250, -1, 0},
        {"joint 1 never renewed", kHeldJogJoint, 0, -1, 0, -1, 0},
        {"joint 6 into its soft limit", kHeldJogJoint, 5, 1, LONG_MAX, -1, 0},
        {"flange down into the floor", kHeldJogCartesian, 2, -1, LONG_MAX, -1, 0},
        {"flange along x held 0.8 s", kHeldJogCartesian, 0, 1, 200, -1, 0},
        {"flange about z, stopped", kHeldJogCartesian, 5, 1, LONG_MAX, 150, -1},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        Place(kStart);
        release_at = c.release;
        tick_spy.on_tick = &Button;
        tick_spy.stop_at = c.stop_at;
        std::string out;
        const int result = tqltest::Quiet([&] { return JogWhileHeld(c.kind, c.index, c.direction, 1.0); }, &out);
        tick_spy.on_tick = nullptr;
        tick_spy.stop_at = -1;
        InitStopFlag();
        const std::vector<Joints> sent = tick_spy.sent;
        EXPECT_EQ(result, c.result) << out;
        ASSERT_GT(sent.size(), 10u);
        EXPECT_LE(WorstRatio(sent, kStart, limits_), 1.01);
        // At rest in the end, held there.
        for (int j = 0; j < 6; ++j) {
            EXPECT_NEAR(sent.back()[j], sent[sent.size() - 2][j], 1e-6);
            EXPECT_NEAR(tqltest::CurrentJoints()[j], sent.back()[j], 1e-9);
        }
        // The jog speed: a quarter of joint 1's limit, reached when held long enough.
        if (c.kind == kHeldJogJoint && c.index == 0 && c.release == 250) {
            double fastest = 0.0;
            for (size_t k = 1; k < sent.size(); ++k) fastest = std::max(fastest, std::fabs(sent[k][0] - sent[k - 1][0]));
            EXPECT_NEAR(fastest / PERIOD, 0.25 * limits_.speed[0], 1e-3 * limits_.speed[0]);
        }
        if (c.release == 0) {  // lapsed, then braked
            EXPECT_GT(sent.size() * PERIOD, kJogRenewTimeout);
            EXPECT_LT(sent.size() * PERIOD, kJogRenewTimeout + 1.0);
        }
        if (c.release == LONG_MAX && c.stop_at < 0) {
            EXPECT_NE(out.find("Jog stopped at the boundary after "), std::string::npos) << out;
            // Stopped short of the boundary and near it: joint 6's soft limit
            // is 170 degrees; the floor, the workspace's z = 0.
            if (c.kind == kHeldJogJoint) {
                EXPECT_LT(sent.back()[5], 170 * tqltest::kDeg);
                EXPECT_GT(sent.back()[5], 169 * tqltest::kDeg);
            } else {
                double pose[7];
                Joints last = sent.back();
                ASSERT_EQ(robot_->ForwardKinematics(last.data(), pose), 0);
                EXPECT_GE(pose[2], GetResourceDate()->workspace_box[4]);
                EXPECT_LT(pose[2], GetResourceDate()->workspace_box[4] + 5.0);
            }
        }
    }
    // Bad arguments move nothing.
    for (const auto& bad : {std::array<double, 4>{2, 0, 1, 1}, {0, 6, 1, 1}, {0, 0, 0, 1}, {0, 0, 1, 0},
                            {1, 0, 1, 1.5}, {0, 0, 1, NAN}}) {
        tick_spy = tqltest::TickSpy();
        EXPECT_EQ(JogWhileHeld(static_cast<int>(bad[0]), static_cast<int>(bad[1]), static_cast<int>(bad[2]), bad[3]),
                  -1);
        EXPECT_TRUE(tick_spy.sent.empty());
    }
}
