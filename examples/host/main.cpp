// An integrator's host program with its own user interface, driving the arm
// through the library's call surface instead of the terminal dialogue of the
// tql host: boot, jog a joint and along a Cartesian axis, record the poses
// reached into a program file, replay that program, and read the pose.
//
// Run it in a working directory holding parameter.db and file/ (a copy of the
// installed demo directory); on the simulated bus, TQL_SIM_CLOCK=virtual makes
// it take no wall time. Exit status 0 when every step succeeded.
#include <tql/editor.h>
#include <tql/execute.h>
#include <tql/interface.h>
#include <tql/interpolation.h>
#include <tql/timing.h>

#include <cstdio>

namespace {

constexpr const char* kProgram = "file/host_program.txt";

void ShowPose(const char* when) {
    double q[6], pose[6];
    GetRealTimePos(q, pose);
    std::printf("%s: joints %.2f %.2f %.2f %.2f %.2f %.2f deg, flange %.1f %.1f %.1f mm %.1f %.1f %.1f deg\n", when,
                q[0], q[1], q[2], q[3], q[4], q[5], pose[0], pose[1], pose[2], pose[3], pose[4], pose[5]);
}

bool Step(const char* what, int result) {
    std::printf("%s: %s\n", what, result < 0 ? "failed" : "ok");
    return result >= 0;
}

}  // namespace

int main() {
    tql::UseBusClockIfVirtual();
    if (!Step("boot", Boot())) return 1;
    if (GetCurrentRobot()->GetRobotJointNum() != 6) return 1;
    ShowPose("booted");
    std::remove(kProgram);
    // The arm stays where the last run left it (a real arm does): the jogs
    // below are planned from home.
    if (!Step("home", MoveToHomePosition())) return 1;

    // Out of the straight-up pose (its wrist is singular) by joint jogs,
    // then straight down along the base z axis; each pose reached is
    // appended to the program as a joint move.
    const struct {
        int joint;
        double degrees;
    } joint_jogs[] = {{1, 20.0}, {2, 60.0}, {4, -90.0}};
    for (const auto& jog : joint_jogs)
        if (!Step("jog joint", JogInJointCoordinateSystem(jog.joint, jog.degrees))) return 1;
    RecordPoint(kProgram, GetCurrentRobot());
    if (!Step("jog 30 mm down", JogInCartesianCoordinateSystem(2, -30.0))) return 1;
    RecordPoint(kProgram, GetCurrentRobot());
    if (!Step("jog joint 1", JogInJointCoordinateSystem(0, -25.0))) return 1;
    RecordPoint(kProgram, GetCurrentRobot());
    ShowPose("taught");

    // Home, then the recorded program back (at the host's override, 1 by
    // default), and where the arm ended.
    if (!Step("home", MoveToHomePosition())) return 1;
    if (!Step("replay program", ReplayPath(kProgram))) return 1;
    ShowPose("replayed");
    double lo[6], hi[6];
    GetMinLimit(lo);
    GetMaxLimit(hi);
    std::printf("joint 2 limits: %.1f .. %.1f deg\n", lo[1], hi[1]);
    return 0;
}
