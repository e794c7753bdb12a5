// Motion planning and one control tick of a Cartesian move.
//
//   BM_ProfilePlan/0..2   plan + round + end-of-phase states of one profile:
//                         0 long move with cruise (closed form), 1 acceleration
//                         limit reached without cruise (closed form), 2 short
//                         move, neither limit reached (bisection)
//   BM_ProfileSample      one sample of a planned profile
//   BM_LinearMoveTick     one 4 ms tick of a linear move: interpolate the pose,
//                         inverse kinematics seeded by the previous set-point
//                         and refined on the forward kinematics (FollowPose),
//                         set-point checks of every joint (no bus)
//   BM_PreflightLinearMove  the pre-flight of a whole linear move
//   BM_ScalingPassLinearMove  the scaling pass (system row 8) of the demo
//                         program's first straight line, which it slows down:
//                         every pass computes the whole stream's set-points
//   BM_StopPlannerLinearMove  a braking stop (system row 9) asked for at full
//                         speed in the middle of the benchmarked linear move:
//                         from the request to the brake's set-points, planned
//                         and measured whole (the stream's own look-ahead
//                         set-points given, as the move computes them anyway)
//
// The tick has to fit comfortably in the 4 ms period; the goal is under 1 %
// of it (40 us) on the target board.
#include <benchmark/benchmark.h>

#include <cmath>

#include <vector>

#include "braking.h"
#include "interpolation.h"
#include "timing.h"
#include "mechnical_unit.h"
#include "speed_profile.h"

namespace {

constexpr double kDeg = 0.017453292222222222;
constexpr double kHalfPi = 1.5707963;

// Demo arm (GL_6L3), mm: link offsets d and lengths a per joint.
void SetUpDemoRobot(Robot* robot) {
    const double alpha[6] = {0, kHalfPi, 0, 0, -kHalfPi, kHalfPi};
    const double a[6] = {0, 0, 244.0, 213.0, 0, 0};
    const double d[6] = {152.0, 0, 0, 112.0, 85.0, 82.0};
    robot->joint_num_ = 6;
    robot->robot_type_ = 1;
    robot->line_speed_data_.SetParameter(250.0, 1000.0, 5000.0);
    robot->rotate_speed_data_.SetParameter(90 * kDeg, 360 * kDeg, 1800 * kDeg);
    for (int i = 0; i < 6; ++i) {
        LinkUnit& l = robot->link_[i];
        l.InitActuator(static_cast<unsigned char>(i + 1), 0);
        l.SetMdhParameters(alpha[i], 0.0, a[i], d[i]);
        l.speed_limit_ = 1800.0;                 // rpm
        l.SetSpeedData((i < 3 ? 90 : 120) * kDeg, (i < 3 ? 180 : 240) * kDeg, (i < 3 ? 900 : 1200) * kDeg);
        l.min_soft_limit_ = -17.0 / 36.0 * 6.2831852;  // rad
        l.max_soft_limit_ = 17.0 / 36.0 * 6.2831852;
    }
}

void BM_ProfilePlan(benchmark::State& state) {
    // distance, vmax, amax, jerk (joint-like units)
    const double cases[3][4] = {{2.0, 1.5, 3.0, 15.0}, {0.8, 1.5, 3.0, 15.0}, {0.02, 1.5, 3.0, 15.0}};
    const double* c = cases[state.range(0)];
    SpeedProfile p;
    for (auto _ : state) {
        p.set_parameters(c[0], c[1], 0.0, 0.0, c[2], c[2], c[3]);
        p.calculate_jerk_limit_profile_time();
        p.time_rounding();
        p.calculate_flow_parameters();
        const double reached = p.phase_end_[6][kPhasePosition];
        benchmark::DoNotOptimize(reached);
    }
}
BENCHMARK(BM_ProfilePlan)->DenseRange(0, 2);

void BM_ProfileSample(benchmark::State& state) {
    SpeedProfile p;
    p.set_parameters(2.0, 1.5, 0.0, 0.0, 3.0, 3.0, 15.0);
    p.jerk_limit_profile_rounding();
    const long ticks = std::lround(p.ttotal_ / PERIOD);
    long tick = 0;
    double out[2];
    for (auto _ : state) {
        tick = tick == ticks ? 1 : tick + 1;
        p.calculate_current_speed(tick * PERIOD, out);
        const double position = out[0];
        benchmark::DoNotOptimize(position);
    }
}
BENCHMARK(BM_ProfileSample);

// The benchmarked linear move: a comfortable pose and 25 degrees on from it.
void LinearMoveEnds(double* start, double* end) {
    const double from[6] = {10, 25, 60, 5, -70, 15};
    const double delta[6] = {25, -10, 15, 5, 10, -10};
    for (int i = 0; i < 6; ++i) {
        start[i] = from[i] * kDeg;
        end[i] = start[i] + delta[i] * kDeg;
    }
}

// Plans the benchmarked linear move on the demo robot; false (the state
// skipped with an error) when it cannot be planned.
bool PlanLinearMove(benchmark::State& state, Robot* robot, double* start, double* end, LinearPath* path) {
    SetUpDemoRobot(robot);
    LinearMoveEnds(start, end);
    AccDecDate line = robot->line_speed_data_;
    AccDecDate rotate = robot->rotate_speed_data_;
    if (MoveLinearPreprocess(robot, start, end, path, &line, &rotate) == 0) return true;
    state.SkipWithError("planning failed");
    return false;
}

void BM_LinearMoveTick(benchmark::State& state) {
    Robot robot;
    double start[6], end[6];
    LinearPath path;
    if (!PlanLinearMove(state, &robot, start, end, &path)) return;
    const long ticks = std::lround(path.tall_ / PERIOD);

    double current[kMaxJointNum];
    double previous[kMaxJointNum];
    double pose[7];
    for (int i = 0; i < 6; ++i) current[i] = start[i];
    long tick = 0;
    for (auto _ : state) {
        if (tick == ticks) {  // start the move over
            tick = 0;
            for (int i = 0; i < 6; ++i) current[i] = start[i];
        }
        ++tick;
        for (int i = 0; i < 6; ++i) previous[i] = current[i];
        path.Interpolation(tick * PERIOD, pose);
        if (robot.FollowPose(current, pose) < 0) {
            state.SkipWithError("inverse kinematics failed");
            return;
        }
        for (int i = 0; i < 6; ++i) {
            if (robot.link_[i].CheckPosition(current[i], previous[i], PERIOD) < 0) {
                state.SkipWithError("set-point check failed");
                return;
            }
        }
        // Through a const copy: the read-write form of DoNotOptimize may be
        // miscompiled by GCC on a live array element.
        const double sent = current[5];
        benchmark::DoNotOptimize(sent);
    }
}
BENCHMARK(BM_LinearMoveTick);

// The pre-flight of a whole linear move (every tick computed and checked,
// nothing sent, no waiting), against the duration of the move it guards.
// Its counter motion_ns is that duration; the reporter prints the share.
void BM_PreflightLinearMove(benchmark::State& state) {
    Robot robot;
    SetUpDemoRobot(&robot);
    double start[6], end[6];
    LinearMoveEnds(start, end);
    AccDecDate line = robot.line_speed_data_;
    AccDecDate rotate = robot.rotate_speed_data_;
    LinearPath path;
    if (MoveLinearPreprocess(&robot, start, end, &path, &line, &rotate) < 0) {
        state.SkipWithError("planning failed");
        return;
    }
    for (auto _ : state) {
        tql::PreflightScope dry;
        if (MoveLinearPath(&robot, start, end, &line, &rotate) < 0) {
            state.SkipWithError("pre-flight refused the move");
            return;
        }
    }
    state.counters["motion_ns"] = path.tall_ * 1e9;
}
BENCHMARK(BM_PreflightLinearMove)->Unit(benchmark::kMicrosecond);

// The scaling pass of the demo program's "MOVL V=100" down to the pick point,
// (0, 20, 60, 10, -90, 0) to (0, 25, 75, -10, -90, 0) degrees: joint 3 would
// need 1.47 times its jerk limit, so the pass measures the stream, slows the
// line down and measures it again. Counters: the slow-down found and the
// slowed move's duration (motion_ns).
void BM_ScalingPassLinearMove(benchmark::State& state) {
    Robot robot;
    SetUpDemoRobot(&robot);
    double start[6] = {0, 20, 60, 10, -90, 0}, end[6] = {0, 25, 75, -10, -90, 0};
    for (int i = 0; i < 6; ++i) {
        start[i] *= kDeg;
        end[i] *= kDeg;
    }
    AccDecDate line = robot.line_speed_data_;
    line.speed = 100.0;  // V=100
    const AccDecDate rotate = robot.rotate_speed_data_;
    double k = 0.0;
    AccDecDate slowed_line, slowed_rotate;
    for (auto _ : state) {
        slowed_line = line;
        slowed_rotate = rotate;
        k = FitLinearMoveToJointLimits(&robot, start, end, &slowed_line, &slowed_rotate);
        benchmark::DoNotOptimize(k);
    }
    if (!(k > 1.0)) {
        state.SkipWithError("the line was not slowed down");
        return;
    }
    LinearPath path;
    MoveLinearPreprocess(&robot, start, end, &path, &slowed_line, &slowed_rotate);
    state.counters["slow_down"] = k;
    state.counters["motion_ns"] = path.tall_ * 1e9;
}
BENCHMARK(BM_ScalingPassLinearMove)->Unit(benchmark::kMicrosecond);

// The benchmarked linear move's set-points, stopped half-way: the brake
// starts from three set-points sent and takes the stream's next ones as its
// look-ahead until it is planned. Counters: the look-ahead it needed and the
// brake's periods.
void BM_StopPlannerLinearMove(benchmark::State& state) {
    Robot robot;
    double start[6], end[6];
    LinearPath path;
    if (!PlanLinearMove(state, &robot, start, end, &path)) return;
    const long ticks = std::lround(path.tall_ / PERIOD);
    std::vector<double> stream(static_cast<size_t>(ticks + 1) * 6);
    double q[6];
    for (int i = 0; i < 6; ++i) q[i] = start[i];
    for (long k = 0; k <= ticks; ++k) {
        double pose[7];
        path.Interpolation(k * PERIOD, pose);
        if (k > 0 && robot.FollowPose(q, pose) < 0) {
            state.SkipWithError("inverse kinematics failed");
            return;
        }
        for (int i = 0; i < 6; ++i) stream[static_cast<size_t>(k) * 6 + i] = q[i];
    }
    const long request = ticks / 2;
    long fed = 0;
    int periods = 0;
    StreamBrake brake(&robot, PERIOD, true);
    for (auto _ : state) {
        for (long k = request - 2; k <= request; ++k) brake.Sent(&stream[static_cast<size_t>(k) * 6]);
        if (!brake.Start()) {
            state.SkipWithError("nothing to brake");
            return;
        }
        fed = 0;
        for (long k = request + 1; k <= ticks; ++k) {
            ++fed;
            if (brake.Feed(&stream[static_cast<size_t>(k) * 6])) break;
        }
        if (brake.Collecting()) brake.Finish(false);
        periods = brake.Count();
        benchmark::DoNotOptimize(periods);
    }
    if (!(brake.Need() <= 1.0) || brake.Stretch() == 0.0) {
        state.SkipWithError("the brake is not within the joints' limits, or ran on");
        return;
    }
    state.counters["look_ahead"] = static_cast<double>(fed);
    state.counters["brake_periods"] = periods;
}
BENCHMARK(BM_StopPlannerLinearMove)->Unit(benchmark::kMicrosecond);

}  // namespace
