// Path segments and the move commands built on them: joint moves (every joint
// on its own jerk-limited profile, all synchronised), straight-line and
// circular-arc Cartesian moves with orientation interpolation, and jogging.
//
// Units and frames:
//   joint vectors      radians, joint 1 first, Robot::GetRobotJointNum entries;
//   Cartesian poses    seven doubles x, y, z [mm, base frame], then the unit
//                      quaternion w, qx, qy, qz of the flange orientation, in
//                      the order of Robot::ForwardKinematics;
//   times              seconds from the start of the segment.
//
// Streamed moves sample their segment every PERIOD (4 ms) for tick = 1..N,
// N = round(total time / PERIOD), send the joint set-points through
// Robot::SendMachinePosition and sleep 4 ms between samples. They clear the
// stop flag at the start, install the SIGINT handler and poll the flag every
// period. A stop, an unreachable pose or a refused set-point ends the move at
// once (no deceleration) with -1; the arm holds the last sent set-point.
#ifndef TQL_INTERPOLATION_H
#define TQL_INTERPOLATION_H

#include <iosfwd>
#include <memory>
#include <string>

#include "braking.h"
#include "collision_monitor.h"
#include "mechnical_unit.h"
#include "speed_profile.h"
#include "timing.h"

// One joint's segment. Starts zeroed.
struct JointPath {
    double start_ = 0.0;      // start angle (rad)
    double end_ = 0.0;        // target angle (rad)
    double vmax_ = 0.0;       // rad/s
    double amax_ = 0.0;       // rad/s^2
    double dmax_ = 0.0;       // rad/s^2
    double jerk_ = 0.0;       // rad/s^3
    double direction_ = 0.0;  // +1 when end_ > start_, otherwise -1 (also for no motion)
    double distance_ = 0.0;   // |end_ - start_| (rad)
    SpeedProfile profile_;

    void SetParameters(double start, double end, double vmax, double amax, double dmax,
                       double jerk);
    // Plans the rest-to-rest profile over distance_, rounded to whole periods.
    void InterpolationPreprocess();
    // Joint angle (rad) at time t.
    double Interpolation(double t);
};

// Limits of one Cartesian profile in the order the segments keep them:
// speed, acceleration, deceleration, jerk.
inline void SetProfileLimits(double* out, double speed, double acceleration, double deceleration, double jerk) {
    out[0] = speed;
    out[1] = acceleration;
    out[2] = deceleration;
    out[3] = jerk;
}

// Straight line between two poses; the slower of the translation and the
// rotation profile governs both. Starts zeroed.
struct LinearPath {
    double start_pose_[7] = {};
    double end_pose_[7] = {};         // quaternion may be negated by planning (short arc)
    double linear_limits_[4] = {};    // speed, acceleration, deceleration, jerk (mm, s)
    double rotation_limits_[4] = {};  // speed, acceleration, deceleration, jerk (rad, s)
    double angle_ = 0.0;              // angle between the quaternions (rad, half the tool turn)
    double length_ = 0.0;             // mm
    double direction_[3] = {};        // end position - start position (mm, not normalised)
    int rotation_governs_ = 0;        // 1: rotation profile sets the timing
    SpeedProfile linear_profile_;     // over length_
    SpeedProfile rotation_profile_;   // over angle_
    double tall_ = 0.0;               // total time of the governing profile (whole periods)
    double ta_ = 0.0;                 // its acceleration time
    double td_ = 0.0;                 // its deceleration time

    void SetParameters(double* start, double* end, double vlin, double alin, double dlin,
                       double jlin, double vrot, double arot, double drot, double jrot);
    void InterpolationPreprocess();
    // Writes the seven-value pose at time t.
    void Interpolation(double t, double* pose);
    // Share of the governing profile's distance covered at time t (0 .. 1).
    double Fraction(double t);
};

// Arc of the circle through start, middle and end positions; the middle
// pose's orientation is not used. Starts zeroed, so a failed circle
// construction leaves a zero circle.
struct CircularPath {
    double start_pose_[7] = {};
    double mid_pose_[7] = {};
    double end_pose_[7] = {};         // quaternion may be negated by planning
    double linear_limits_[4] = {};    // along the arc: speed, acceleration, deceleration, jerk
    double rotation_limits_[4] = {};  // orientation: speed, acceleration, deceleration, jerk
    double angle_ = 0.0;              // angle between start and end quaternions (rad)
    double arc_length_ = 0.0;         // arc_angle_ * radius_ (mm)
    // Circle frame in the base frame; columns: unit x (centre -> start),
    // unit y in the circle's plane, unit normal. frame_[row][column].
    double frame_[3][3] = {};
    double centre_[3] = {};           // mm
    double radius_ = 0.0;             // mm
    double sector_angles_[2] = {};    // central angles start->middle, middle->end (rad)
    double arc_angle_ = 0.0;          // sum of the two sector angles (rad)
    double tall_ = 0.0;
    double ta_ = 0.0;
    double td_ = 0.0;
    SpeedProfile linear_profile_;     // over arc_length_
    SpeedProfile rotation_profile_;   // over angle_
    int rotation_governs_ = 0;

    void SetParameters(double* start, double* mid, double* end, double vlin, double alin,
                       double dlin, double jlin, double vrot, double arot, double drot,
                       double jrot);
    void InterpolationPreprocess();
    void Interpolation(double t, double* pose);
    double Fraction(double t);
};

// ---- pre-flight
//
// Before a stream sends its first set-point, the same stream is computed and
// checked without sending (tql::PreflightScope): what would be refused is
// refused before the arm moves, with the failing check's own message. On by
// default; row 6 of "system_parameters" = "OFF" switches it off (the arm then
// moves until the failing period).
bool PreflightWanted();
// Runs stream() under a pre-flight first when wanted; -1 as soon as either
// run fails (the pre-flight failing moves nothing).
template <typename Stream>
int RunWithPreflight(Stream stream) {
    if (PreflightWanted()) {
        tql::PreflightScope dry;
        if (stream() < 0) return -1;
    }
    return stream();
}

// ---- joint limits of Cartesian and blended moves
//
// A straight line or an arc follows its Cartesian profile (rows 4-9 of the
// robot type); the joints follow through the inverse kinematics and may need
// more than their own speed, acceleration or jerk limits (rows 1-3,
// LinkUnit::joint_speed_data_), most of all near a singularity, and two moves
// superposed in a blend add up. With row 8 of "system_parameters" ON, before
// the first set-point every move that would take a joint beyond its limits is
// slowed down k times: its speed limits divided by k, accelerations by k^2,
// jerks by k^3 (the same path, k times slower). Two moves that meet beyond the
// limits although neither is on its own (a blend, a junction of a plain run)
// are slowed together. k is measured on the set-points exactly as they would be
// streamed (each 4 ms sample's inverse kinematics seeded with the previous
// set-point), the arm at rest before and after a stream: the worst joint's
// speed ratio, square root of its acceleration ratio and cube root of its jerk
// ratio, times 1 + kScalingMargin, measured again until every joint is within
// its limits (at most kMaxScalingPasses passes). A move that would need more
// than kMaxSlowDown (a step in the joints' stream, which no slow-down
// removes), or whose stream cannot be computed, keeps its programmed timing
// (in a program run: the whole run) and is refused, if at all, as without the
// switch. Moves within their limits are not touched; with the row OFF (the
// default) nothing is.
bool CartesianScalingWanted();
constexpr double kMaxSlowDown = 100.0;
constexpr int kMaxScalingPasses = 16;
constexpr double kScalingMargin = 0.01;
// A need up to this counts as within the limits (rounding of the differences).
constexpr double kScalingWithin = 1.0 + 1e-9;
// `limits` slowed down k times: speed / k, acceleration / k^2, jerk / k^3.
AccDecDate SlowedDown(const AccDecDate& limits, double k);

// Finite differences of one stream of joint set-points, PERIOD apart, against
// the joints' limits. Fed with increments (a set-point minus the one before,
// rad); a fresh or Reset meter stands for an arm at rest.
class JointLimitMeter {
public:
    JointLimitMeter() = default;
    // Differences `period` seconds apart (the control period by default).
    explicit JointLimitMeter(Robot* robot, double period = PERIOD);
    void Reset();
    // The slow-down the differences ending with this increment need: over the
    // joints, the largest of the speed ratio, the square root of the
    // acceleration ratio and the cube root of the jerk ratio (1 or less:
    // within). nullptr: a period at rest.
    // orders (when given): the same three needs apart, speed first, each
    // raised to the largest seen.
    double Step(const double* increment, double* orders = nullptr);

private:
    int n_ = 0;
    bool usable_ = true;                      // every limit finite and positive
    double speed_[kMaxJointNum] = {};         // joint limit x period
    double acceleration_[kMaxJointNum] = {};  // joint limit x period^2
    double jerk_[kMaxJointNum] = {};          // joint limit x period^3
    double last_[kMaxJointNum] = {};          // the previous increment
    double before_[kMaxJointNum] = {};        // the one before it
};

// Where a stream's set-points go. The motion loops (joint, linear, circular
// and program runs, replays, the excitation) are written once over an output:
//   Begin()    the motion's start (BeginMotion); Restart() starts the schedule
//   Stopped()  the stream ends here (a stop request, its brake done)
//   Send(command, previous, move)  one set-point of move `move` (index in the
//              run) after `previous`
//   Blend(command, previous, a, tail, tail_old, b, head, head_old)  one
//              set-point of a blend: move a went tail_old -> tail, move b
//              head_old -> head
//   Rest(periods)  the arm held for a TIMER wait
// ArmOutput checks and sends each set-point, then waits for the next period.
// A stop request with braking wanted (row 9) brakes the stream: from the
// request on, the stream's next set-points are taken as a look-ahead (not
// sent), the brake is planned and checked over them (StreamBrake) and sent,
// and only then does Stopped() end the stream. Finish(result) ends every
// stream to the arm: it completes a brake the stream's own end cut short, and
// turns the result into -1 when a stop was taken.
class ArmOutput {
public:
    static constexpr bool kToArm = true;  // reports internal faults, switches outputs
    // The collision reflex's yield (see Yield).
    static constexpr double kYieldShare = 0.8;          // of a drive's peak torque
    static constexpr double kYieldDampingShare = 0.15;  // of a joint's momentum per period
    static constexpr double kYieldTorqueShare = 0.95;   // the yield's currents stay within this share of the peak
    static constexpr double kYieldRestRate = 0.1;       // rad/s: slow enough to hold below this on every joint ...
    static constexpr int kYieldRestPeriods = 10;        // ... for this many periods in a row
    static constexpr int kYieldMaxPeriods = 375;        // 1.5 s at 4 ms: held then, whatever its rate
    // period: the stream's period (s); joint_samples: a replay's or the
    // excitation's samples (Robot::SendPosition) rather than a move's
    // set-points (Robot::SendMachinePosition).
    explicit ArmOutput(Robot* robot, double period = PERIOD, bool joint_samples = false);
    int Begin();
    void Restart() { timer_.Restart(); }
    bool Stopped();
    int Send(double* command, double* previous, int move);
    int Blend(double* command, double* previous, int, const double*, const double*, int head_move, const double*,
              const double*) {
        last_move_ = head_move;
        return Pass(command, previous);
    }
    int Rest(long periods);
    int Finish(int result);
    // True while a brake takes the stream's set-points as its look-ahead
    // (nothing reaches the arm; per-period work waits).
    bool LookingAhead() const { return brake_.Collecting(); }

private:
    // A set-point of the stream: sent, or taken into the brake's look-ahead.
    int Pass(double* command, double* previous);
    int SendOne(double* command, double* previous);
    // The stream rests (or failed) where the look-ahead ends: brake on what
    // was taken. -1 always (the stream is stopped), or -1 after a fault.
    int BrakeNow(bool failed);
    int SendBrake();
    // After a collision: true when a drive, at its torque's present rate of
    // change, would pass kYieldShare of its peak within a period, i.e. the
    // contact would overload it before the brake ends.
    bool DriveOverloadAhead() const;
    // The reflex's yield, when the brake would overload a drive: the arm
    // floats in current mode under gravity compensation and a damping that
    // takes kYieldDampingShare of each joint's momentum per period, so the
    // obstacle pushes it back and it comes to rest; then it is held in
    // position mode where it stands. Ends the stream (-1).
    int Yield();

    Robot* robot_;
    tql::PeriodicTimer timer_;
    double period_;
    bool joint_samples_;
    StreamBrake brake_;
    // The collision reflex (row 4 ON): a detection brakes the stream as a
    // stop request does.
    CollisionMonitor monitor_;
    bool collided_ = false;
    bool yielded_ = false;
    bool collision_taken_ = false;
    int last_move_ = -1;    // of the last set-point (a blend's: the starting move)
    bool stopped_ = false;  // the stream ends at the next Stopped()
    bool braked_ = false;
};

// The scaling pass's output: sends nothing, never waits, and measures the
// slow-down needed by each move's own part of the stream (its increments
// alone, the arm at rest before and after) and, apart, by differences of the
// whole stream over the limits that no single move's part explains (two moves
// superposed in a blend, or meeting in a plain run), charged to every move
// they span.
class JointLimitProbe {
public:
    static constexpr bool kToArm = false;
    JointLimitProbe(Robot* robot, int moves);
    int Begin() { return 0; }
    void Restart() {}
    bool Stopped() { return false; }
    int Send(double* command, double* previous, int move);
    int Blend(double* command, double* previous, int tail_move, const double* tail, const double* tail_old,
              int head_move, const double* head, const double* head_old);
    int Rest(long periods);
    // The end of the stream: the arm at rest.
    void Finish() { Rest(3); }
    // Slow-down move `move` needs on its own (1 or less: within its joints'
    // limits), and for the moves it meets.
    double Need(int move) const { return move >= 0 && move < moves_ ? need_[move] : 0.0; }
    double SharedNeed(int move) const { return move >= 0 && move < moves_ ? shared_[move] : 0.0; }
    // The set-point that ends move `move`'s largest single step (rad over
    // all joints): where a step in its stream (a change of branch) lies.
    const double* LargestStepAt(int move) const {
        return move >= 0 && move < moves_ ? &step_at_[static_cast<size_t>(move) * kMaxJointNum] : nullptr;
    }

private:
    struct Track {
        int move = -1;  // -1: free
        int idle = 0;   // periods since its last increment
        JointLimitMeter meter;
    };
    static constexpr int kTracks = 6;  // moves whose increments a difference can still reach
    void Sample(const double* total, const int* moves, const double* const* increments, int count);
    void NoteStep(int move, const double* command, const double* increment);

    int n_;
    int moves_;
    JointLimitMeter total_;
    Track tracks_[kTracks];
    std::unique_ptr<double[]> need_;
    std::unique_ptr<double[]> shared_;
    std::unique_ptr<double[]> step_;     // largest single step of each move
    std::unique_ptr<double[]> step_at_;  // and the set-point it ends at
};

// The arm's singularity nearest to joints q (rad), for messages: "the wrist
// singularity (joint 5 at 0.2 degrees)", the elbow's (joint 3), or the
// shoulder's (wrist centre 3 mm from the cylinder about the base axis it
// cannot enter). Six-joint arms; other arms: "a singularity".
std::string NearestSingularity(Robot* robot, const double* q);
// With row 8 ON, a move whose stream no slow-down brings within the joints'
// limits has a step: it passes through or too near a singularity, where the
// seeded inverse kinematics changes branch. It is refused before motion with
// "<where>the path passes through or too near <singularity>: refused before
// motion." (where: "Line N: " in a program run).

// Standard output silenced while it lives: the scaling pass computes streams
// whose messages the pre-flight or the stream itself prints when it matters.
class QuietStdout {
public:
    QuietStdout();
    ~QuietStdout();
    QuietStdout(const QuietStdout&) = delete;
    QuietStdout& operator=(const QuietStdout&) = delete;

private:
    std::streambuf* saved_;
    int state_;
};

// The scaling pass of one linear or circular move from start_joints: slows
// *linear and *rotation (as the move would be streamed with them) until its
// joints keep their limits. Returns the slow-down applied (1: untouched), 0
// when the move keeps its limits because its stream cannot be computed, or -1
// (with the refusal's message) when no slow-down up to kMaxSlowDown helps.
// Whatever the switch says.
double FitLinearMoveToJointLimits(Robot* robot, double* start_joints, double* end_joints, AccDecDate* linear,
                                  AccDecDate* rotation);
double FitCircularMoveToJointLimits(Robot* robot, double* start_joints, double* mid_joints, double* end_joints,
                                    AccDecDate* linear, AccDecDate* rotation);

// The inverse kinematics of a Cartesian move's start pose differs from the
// joints it starts from: by the round-off of the forward and inverse
// kinematics (about 1e-7 rad), and where a quaternion component of the start
// orientation is below 1.6e-3 by up to a few 1e-3 rad, since the pose's
// quaternion drops such components (its 1e-5 guard on each radicand). Either
// would be a step at the move's start, beyond every jerk limit. The move's
// set-points are shifted by that difference, faded out along the move (times
// 1 - the share of its distance covered): it starts exactly where the arm
// stands and ends on its target pose's own inverse kinematics.
// bias = IK(pose, seeded by start) - start when below kStartBiasLimit rad on
// every joint (a change of branch is far larger and is left alone), else 0.
constexpr double kStartBiasLimit = 0.02;
void CartesianStartBias(Robot* robot, const double* start, double* pose, double* bias);

// ---- joint moves

// Plans one JointPath per joint (deceleration limit = acceleration limit) and
// imposes the slowest joint's durations on all (lowest index wins a tie).
// 0, or -1 (with a message) when the joint count does not fit kMaxJointNum.
int MoveJointPreprocess(Robot* robot, double* start, double* end, JointPath* paths,
                        AccDecDate* limits);
// Streams a joint move. 0 when finished, -1 when stopped or refused.
int MoveJointPath(Robot* robot, double* start, double* end, AccDecDate* limits);
// Joint move of the current robot from where it stands to `target`, at half
// the joint speed limits.
int MoveToSpecifiedPosition(double* target);
// All joints to 0.
int MoveToHomePosition();
// The fixed resting pose of robot type 1; -1 for other types.
int MoveToStablePosition();

// ---- linear moves

// Angle (rad) between unit quaternions q0 and q1 (four values each, w first);
// negates q1 in place when that gives the shorter arc.
double CalculateOrientation(double* q0, double* q1);
// Times a Cartesian segment: plans the translation profile over `length` and
// the rotation profile over `angle` from rest to rest, each rounded to whole
// periods, and fills the end-of-phase states of the slower one, which governs
// both (on equal times the rotation). Limits are speed, acceleration,
// deceleration, jerk. Returns the governing profile.
SpeedProfile* PlanCartesianProfiles(double length, const double* linear_limits, double angle,
                                    const double* rotation_limits, SpeedProfile* linear,
                                    SpeedProfile* rotation);
// Spherical linear interpolation at fraction s of `angle` (from
// CalculateOrientation); out is not re-normalised.
void OrientationInterpolation(double* q0, double* q1, double* out, double s, double angle);
// Builds the segment between the flange poses of two joint vectors.
// 0, or -1 when a forward kinematics call fails.
int MoveLinearPreprocess(Robot* robot, double* start_joints, double* end_joints, LinearPath* path,
                         AccDecDate* linear, AccDecDate* rotation);
// Streams a linear move (slowed to the joints' limits first when
// CartesianScalingWanted). 0 when finished, -1 when stopped, unreachable or
// refused. A plan whose total time is not a whole number of periods (only a
// corrupt plan, e.g. from non-finite limits) is reported on standard error as
// a failed internal check and refused with -1 before any motion.
int MoveLinearPath(Robot* robot, double* start_joints, double* end_joints, AccDecDate* linear,
                   AccDecDate* rotation);

// ---- circular moves

// Circle through the positions (first three values) of p1, p2, p3: centre
// (mm), radius (mm), frame (see CircularPath::frame_) and the two sector
// angles (rad). 0, or -1 when the points do not define a circle (outputs
// untouched). A middle point opposite the start takes the circle's plane and
// turning sense from the middle and end radii.
int CalculateCircularExpression(double* p1, double* p2, double* p3, double* centre,
                                double* radius, double frame[3][3], double* sector_angles);
int MoveCircularPreprocess(Robot* robot, double* start_joints, double* mid_joints,
                           double* end_joints, CircularPath* path, AccDecDate* linear,
                           AccDecDate* rotation);
// Streams a circular move, as MoveLinearPath a linear one.
int MoveCircularPath(Robot* robot, double* start_joints, double* mid_joints, double* end_joints,
                     AccDecDate* linear, AccDecDate* rotation);

// ---- jogging (current robot, a quarter of the speed limits)

// Turns joint `joint` (0..n-1) by `step` degrees. -1 for a bad index or a
// step that is not a finite number.
int JogInJointCoordinateSystem(int joint, double step);
// axis 0..2: along base x, y, z by `step` mm; 3..5: about base x, y, z by
// `step` degrees, keeping the flange position. -1 for a bad axis, a step that
// is not a finite number, an unreachable target or a kinematics failure.
int JogInCartesianCoordinateSystem(int axis, double step);

// Hold-to-run jogging, for a pendant's buttons. JogWhileHeld moves joint
// `index` (kind kHeldJogJoint) or the flange along (index 0..2, base x, y, z)
// or about (3..5) a base axis (kHeldJogCartesian), in `direction` (+1 or
// -1), at `speed_share` (0 .. 1] of the step jogs' speed (a quarter of the
// joint's or the Cartesian speed limit), on the caller's thread until the jog
// ends. It starts jerk-limited from rest and keeps its speed while the host
// calls RenewJog() at least every kJogRenewTimeout seconds; ReleaseJog(), a
// lapsed renewal, or the place where braking would end reaching the boundary
// brakes it to rest (jerk-limited, at the joint's or Cartesian acceleration
// and jerk limits). How far it may go is pre-flighted before it starts: the
// longest rest-to-rest step of it (at most a turn of a joint, a metre, a turn
// of the flange) whose every set-point passes the soft limits, the workspace
// and the kinematics; every set-point it sends is checked as any stream's,
// and a stop request, a fault or the collision reflex stop it as they stop
// any stream. 0 at rest after a release, a lapse or the boundary; -1 for bad
// arguments, a stop or a refusal.
constexpr int kHeldJogJoint = 0;
constexpr int kHeldJogCartesian = 1;
constexpr double kJogRenewTimeout = 0.3;  // s
int JogWhileHeld(int kind, int index, int direction, double speed_share);
// From the host's thread, while JogWhileHeld runs: the button is still held;
// the button was let go.
void RenewJog();
void ReleaseJog();

// ---- trajectory files
//
// One line per sample, in time order, samples 4 ms apart when recorded: one
// number per joint separated by "," (no spaces), six significant digits, no
// header. Recorded trajectories hold degrees. In memory: row-major doubles,
// sample k, joint j at k * cols + j.

// Longest continuous recording, minutes.
constexpr int max_continuous_record_time = 5;
// Samples a trajectory may hold: 5 minutes of 4 ms periods.
constexpr int kMaxTrajectoryRows = static_cast<int>(60.0 * max_continuous_record_time / PERIOD);
static_assert(kMaxTrajectoryRows == 75000, "five minutes of 4 ms samples");

// Writes rows x cols values, row-major, one line per row, "," between values,
// six significant digits. The file appears whole or not at all. 0, or -1
// (reported through the error channel) when it cannot be written.
int SaveMatrixToFile(std::string file_name, double* data, int rows, int cols);
// Reads at most max_rows lines (of at most 255 characters; reading stops at a
// longer one) into data, cols values each, and stores the count in *rows.
// -1 when the file cannot be opened or holds no line (" is an empty file.").
int GetMatrixFromFile(std::string file_name, double* data, int max_rows, int cols, int* rows);
// The reader of a file the arm replays: the same limits, but every line must
// hold exactly `cols` finite numbers separated by "," (blanks around a number
// and a final carriage return allowed). A blank line, another separator, text,
// a missing or an extra value refuses the whole file with its line number
// ("Trajectory format error: ...") before anything moves. 0 or -1.
int ReadTrajectoryForReplay(std::string file_name, double* data, int max_rows, int cols, int* rows);
// Reads up to n numbers separated by "," from line (atof: a non-number reads
// as 0; missing numbers leave their slots untouched, extra ones are ignored).
// -1 for a null line.
int DecodeCharLine(const char* line, double* values, int n);

// ---- replay

// The pre-flight of a stream of joint samples (rad, sample-major) sent one
// every period_s seconds, before the arm moves: the approach move to sample 0
// (computed, not sent), every sample against the soft limits and the
// actuators' speed over PERIOD, and every step against the database's joint
// speed and acceleration limits at period_s, the arm resting before the first
// sample and after the last. 0, or -1 after the failing check's message,
// "Sample K refused before motion." and the largest speed override at which
// the stream would pass.
int PreflightJointSamples(Robot* robot, double* samples, int rows, double period_s);

// Moves to the first sample, then sends samples 1 .. rows-1 (joint vectors,
// rad) unchanged, one every int(4 / override) ms. -1 when stopped or refused.
int MoveTrajectoryOnce(Robot* robot, double* samples, int rows);
// Replays a trajectory file (degrees) at the operator's override, once or
// again and again until stopped (a cyclic replay then still returns 0).
int MoveTrajectory(Robot* robot, std::string file_name, bool cyclic);

// ---- hand guiding

// What the arm is doing for the monitoring loop. Drag teaching: the arm
// floats in current mode under the operator's hand. The two replay modes: the
// arm holds its pose in position mode, ready for a replay the host starts.
enum RunningMode {
    kDragTeachingMode = 0,
    kReplayTrajectoryMode = 1,
    kReplayPathMode = 2,
};
// Stores the mode and sets the stop flag, so any running loop ends.
void SetRunningMode(RunningMode mode);
RunningMode GetCurrentRunningMode();
// Monitoring loop (a thread body, or the host's thread): every 4 ms asks the
// actuators for current, velocity and position, publishes the position as the
// real-time position and, with the dynamics switch on, sends gravity
// compensation. Runs while the mode is drag teaching. 0, or -1 when started
// in another mode.
int RealTimeMonitoring();
// A continuous recording filled by the monitoring loop: from Start on, every
// period appends its joint positions [rad, `joints` per sample] to `buffer`
// (at most `capacity` samples, the rest are not kept); Stop ends it and gives
// the number of samples.
void StartMonitoredRecording(double* buffer, long capacity, int joints);
long StopMonitoredRecording();
// True while the monitoring loop runs.
bool MonitoringRunning();
// A drag-teaching session's two threads start now: the recorder's
// MultiThreadTrigger waits until the loop has read the running mode.
void NoteMonitoringSession();
// True from NoteMonitoringSession until the session's MultiThreadTrigger.
bool InMonitoringSession();
// Ends drag teaching from the recorder's side (terminal use only): asks the
// operator to hold the arm when compensation is on, then leaves the mode.
void MultiThreadTrigger();
// Position mode holding the present pose.
int ReplayMode();
// Console report of one actuator reading (velocity, position or current).
void ActuatorCallBack(ActuatorController::UnifiedID id, unsigned char attribute, double value);

// ---- drag teaching (two threads: monitoring and a recorder)

// Teaching dialogue writing a motion program, one taught point per answer.
int RecordSinglePointInDragTeachMode(Robot* robot, std::string file_name);
// Records the joints every 4 ms until Ctrl-C, then saves a trajectory file.
int RecordContinuousPointInDragTeachMode(Robot* robot, std::string file_name);
// The point recorder: the terminal dialogue, or the host's variant.
int RecordSinglePosition(std::string file_name);
int RecordSinglePositionFromTerminal(std::string file_name);
int RecordSinglePositionFromInterface(std::string file_name);
// The continuous recorder (thread body). 0, or -1.
int RecordContinuousPosition(std::string file_name);

// Program move table runners (declared beside the segments they stream).
#include "path_list.h"

#endif  // TQL_INTERPOLATION_H
