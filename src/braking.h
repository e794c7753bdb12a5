// Braking stops of streamed motions.
//
// A stream (a joint move, a line, an arc, a program run plain or blended, a
// replay, the excitation) sends one joint set-point every period h. A stop
// request with row 9 of "system_parameters" ON brakes the stream along its
// own path instead of freezing it (a category-2 stop: the actuators stay
// enabled and hold the reached pose):
//   - from the request on, the stream's next set-points are a look-ahead
//     (nothing is sent); the path through them and the last few sent is
//     their natural cubic spline (continuous to the second derivative, so
//     following it adds no jerk of its own);
//   - the path parameter is its joint-space arc length s (rad); a StopProfile
//     takes s from the present speed and acceleration along the path to rest,
//     its deceleration and jerk those that bring the joint braking the
//     hardest to its own acceleration and jerk limits (exact on a joint
//     move, whose joints all move in proportion);
//   - every brake set-point is computed before the first is sent, and the
//     whole brake, from the set-points already sent to rest, is measured
//     against every joint's speed, acceleration and jerk limits (finite
//     differences at h). A brake beyond them is stretched (deceleration
//     1.25 times lower, jerk 1.25^2, per try); a brake never needs to beat
//     the stream itself over the same stretch of path;
//   - the brake never reverses (s only grows) and never passes the point
//     where the stream itself comes to rest (a move's end, a wait, a replay's
//     last sample): when that comes first the stream runs on to it unchanged.
#ifndef TQL_BRAKING_H
#define TQL_BRAKING_H

#include <vector>

#include "mechnical_unit.h"
#include "speed_profile.h"

class Robot;

// Row 9 of "system_parameters" is "ON".
bool BrakingWanted();

class StreamBrake {
public:
    // Nominal set-points a brake may look ahead (8 s of 4 ms periods).
    static constexpr int kMaxLookAhead = 2048;
    // Tries of each kind, each 1.25 times longer than the one before (up to
    // 69 times).
    static constexpr int kStretches = 20;

    // Allocates the look-ahead only when `armed` (a stream to the arm with
    // braking wanted).
    StreamBrake(Robot* robot, double period, bool armed);

    // Normal running: a set-point was sent (the brake's starting history).
    void Sent(const double* q);
    // The stop request: starts looking ahead. False when there is nothing to
    // brake (the arm at rest, or not armed); the stream then ends at once.
    bool Start();
    bool Collecting() const { return collecting_; }
    // The stream's next nominal set-point while collecting. True when a brake
    // is planned (the set-points are ready); false: feed more.
    bool Feed(const double* q);
    // The stream rests at the last set-point fed (it ended, waits, or a new
    // motion begins) or, with `failed`, could not compute further: plans with
    // what was fed. True when a brake is planned; false: none fits, stop
    // where the arm is.
    bool Finish(bool failed);

    // The last set-point sent before the brake.
    const double* Last() const { return history_[0]; }
    // The planned set-points, in order; the last one holds.
    int Count() const { return count_; }
    const double* SetPoint(int k) const { return &out_[static_cast<size_t>(k) * n_]; }
    // Stretch of the planned brake (1: the joints' own limits; 0: the stream
    // runs on to its own rest) and its measured need (<= 1: within limits).
    double Stretch() const { return stretch_; }
    double Need() const { return need_; }

private:
    const double* Nominal(int index) const;  // -2 .. fed_; beyond: the last
    // The interpolated path (the spline through the set-points) at
    // fractional index tau: position, first and second derivative per index
    // (any may be nullptr).
    void Evaluate(double tau, double* q, double* tangent, double* curvature) const;
    // The spline's second derivatives at its knots, for what is fed now.
    void Solve();
    double Speed(double tau) const;  // joint-space speed, rad per index
    double PartialArc(int interval, double u) const;
    void ExtendArc(int upto);
    // Fractional index where the arc length from the brake's start is s.
    double IndexAtArc(double s, int* hint) const;
    // Measures set-points points[0 .. count-1] continuing the history, the
    // arm at rest after them.
    // orders (when given): the speed, acceleration and jerk needs apart.
    double Measure(const double* points, int count, double* orders = nullptr) const;
    // The stream's own needs, order by order, over nominal set-points 1 .. span.
    void StreamNeed(int span, double* orders) const;
    // The brake's set-points: the stop profile's position as the path's arc
    // length, or as the stream's time; count, or -1 when too long.
    int Fill(const StopProfile& stop, bool along_arc);
    int RunOn();
    // Tries stretch number try_ (or the run-on when the rest comes first).
    // 1: planned; 0: needs more look-ahead; -1: nothing fits.
    int Try(bool final_call);

    Robot* robot_;
    int n_ = 0;
    double period_;
    bool armed_;
    static constexpr int kHistory = 8;      // set-points sent the spline starts from
    double history_[kHistory][kMaxJointNum] = {};  // [0]: the last sent
    int history_count_ = 0;
    bool collecting_ = false;
    std::vector<double> ahead_;  // nominal set-points 1 .. fed_ (index 0 is history_[0])
    int fed_ = 0;
    int rest_ = -1;              // index where the stream rests, -1: not known
    std::vector<double> second_;  // spline second derivatives, knots first_knot_ .. last_knot_
    std::vector<double> scratch_;
    int first_knot_ = 0, last_knot_ = -1;
    std::vector<double> arc_;    // arc length (rad, joint space) from index 0 to each index
    int arc_count_ = 0;          // arc_[0 .. arc_count_] known
    double reach_ = 0.0;         // index the last filled brake ends at
    int try_ = 0;
    int wanted_ = 0;             // look-ahead the current try needs
    int best_try_ = -1;
    double best_need_ = 0.0;
    std::vector<double> out_;
    int count_ = 0;
    double stretch_ = 0.0;
    double need_ = 0.0;
};

#endif  // TQL_BRAKING_H
