// Jerk-limited (seven-phase, double-S) speed profile and the limit triple that
// the robot hands to path segments.
//
// A profile times a one-dimensional motion of length distance_ >= 0 (a joint
// angle in rad, a line or arc length in mm, an orientation angle in rad):
//   phase 1 jerk +j, 2 constant acceleration, 3 jerk -j, 4 cruise,
//   phase 5 jerk -j, 6 constant deceleration, 7 jerk +j.
// Speeds, accelerations and jerk are in the units of the distance per s, s^2, s^3.
#ifndef TQL_SPEED_PROFILE_H
#define TQL_SPEED_PROFILE_H

// Control period of every motion loop, seconds.
constexpr double PERIOD = 0.004;
// A duration, distance or time difference below this counts as zero.
constexpr double em = 1e-5;

// Limits of one kind of motion, in the units of the quantity moved
// (rad or mm, per second, per second squared, per second cubed).
struct AccDecDate {
    double speed = 0.0;
    double acceleration = 0.0;  // serves for deceleration too
    double jerk = 0.0;

    void SetParameter(double speed_in, double acceleration_in, double jerk_in) {
        speed = speed_in;
        acceleration = acceleration_in;
        jerk = jerk_in;
    }
};

// Index of the quantities inside one end-of-phase state of SpeedProfile::phase_end_.
enum PhaseState { kPhaseSpeed = 0, kPhaseAcceleration = 1, kPhasePosition = 2 };

// Plain record: 38 doubles of the plan, then the jerk of the deceleration side
// and the refusal flag. Every field starts at zero; set_parameters fills the
// seven inputs, planning fills the rest.
//
// Equal limits (amax_ == dmax_) give the classic single-jerk profile: one jerk
// for both sides, re-fitted after rounding for moves from rest to rest only.
// Distinct limits plan, round and re-fit each side on its own: jerk_ drives
// phases 1-3 and jerk_dec_ phases 5-7, and the rounded profile covers
// distance_ from vstart_ to vend_ exactly, or is refused.
struct SpeedProfile {
    double distance_ = 0.0;  // length of the motion, >= 0
    double vmax_ = 0.0;      // commanded peak speed; lowered by planning when unreachable
    double vstart_ = 0.0;    // speed at the start
    double vend_ = 0.0;      // speed at the end
    double amax_ = 0.0;      // acceleration limit
    double dmax_ = 0.0;      // deceleration limit (positive)
    // Jerk: phase 1 +jerk_, phase 3 -jerk_; with equal limits also phase 5
    // -jerk_, phase 7 +jerk_. Re-fitted after rounding or synchronisation; with
    // distinct limits the re-fit is signed (negative: phases 1-3 slow down a
    // little to absorb the rounding).
    double jerk_ = 0.0;
    // State (speed, acceleration, position) at the end of phases 1..7.
    double phase_end_[7][3] = {};
    // Phase durations Tj1, Tac, Tj1, Tv, Tj2, Tdc, Tj2 (s).
    double t_[7] = {};
    double ta_ = 0.0;      // acceleration time 2*Tj1 + Tac (s)
    double td_ = 0.0;      // deceleration time 2*Tj2 + Tdc (s)
    double ttotal_ = 0.0;  // ta_ + Tv + td_ (s)
    // Distinct limits only: jerk of the deceleration side, phase 5 -jerk_dec_,
    // phase 7 +jerk_dec_ (signed like jerk_). Ignored when amax_ == dmax_.
    double jerk_dec_ = 0.0;
    // Distinct limits only: set when the request cannot be met (a limit not
    // positive or not finite, vmax below vstart or vend, a distance too short
    // for the change of speed, or a rounding or synchronisation that would
    // break a limit or the boundary speeds). The profile is then motionless:
    // durations, totals and jerks 0. Cleared by set_parameters.
    bool refused_ = false;

    // Stores the seven inputs (jerk also as jerk_dec_) and clears refused_.
    void set_parameters(double distance, double vmax, double vstart, double vend,
                        double amax, double dmax, double jerk);
    // Plans the seven durations and the three totals; may lower vmax_.
    void calculate_jerk_limit_profile_time();
    // Rounds the durations up to whole control periods and re-fits jerk_.
    // Distinct limits: the cruise is the shortest whole number of periods that
    // keeps the peak at or below vmax_, a side without duration whose boundary
    // speed must still be met gets a short jerk pulse taken from the cruise,
    // and both jerks are re-fitted within the given jerk, amax_ and dmax_.
    void time_rounding();
    // Fills phase_end_ from vstart_, the jerks and the durations.
    void calculate_flow_parameters();
    // Plan + states, without rounding.
    void jerk_limit_profile();
    // Plan + rounding + states.
    void jerk_limit_profile_rounding();
    // Imposes seven phase durations (s), re-fits jerk_ to cover distance_ in
    // them and recomputes the states. Distinct limits re-fit both sides from
    // vstart_ to vend_ (the limits are not re-checked, as with equal limits).
    void recalculate_profile(double* times);
    // out[0] = position, out[1] = speed at time t (s) from the start of the motion.
    void calculate_current_speed(double t, double* out);
    // Prints the reached and the commanded peak speed, in degrees per second.
    void print_profile();
};

// A jerk-limited stop: from speed v0 >= 0 and acceleration a0 to rest, never
// reversing. Three phases: the acceleration goes from a0 to -peak at jerk
// -jerk (or +jerk when a0 is below -peak), holds -peak, and returns to 0 at
// +jerk, ending at speed 0 exactly. peak is the deceleration limit, or less
// when the speed runs out first. When even returning the present deceleration
// to 0 at once would pass through zero speed (v0 < a0^2 / (2 jerk)), the last
// phase takes the jerk that ends exactly at rest (raised_jerk_ > jerk).
// Times in s; speed, acceleration and jerk in the units of the distance.
class StopProfile {
public:
    // 0, or -1 when an input is not finite, v0 or a limit is negative, or a
    // limit is zero while there is speed to lose (the profile is then empty).
    int Plan(double v0, double a0, double deceleration, double jerk);
    double Duration() const { return t_[0] + t_[1] + t_[2]; }
    // Distance covered until rest.
    double Distance() const { return end_[2][2]; }
    // Position (from the start), speed and acceleration at time t; held at
    // rest after Duration().
    void At(double t, double* position, double* speed, double* acceleration) const;
    // Jerk of the last phase (above the limit only in the raised case).
    double LastJerk() const { return jerk_[2]; }
    double Peak() const { return peak_; }

private:
    double t_[3] = {};        // phase durations
    double jerk_[3] = {};     // signed jerk of each phase
    double start_[3] = {};    // speed, acceleration, position at the start
    double end_[3][3] = {};   // the same at the end of each phase
    double peak_ = 0.0;       // held deceleration (positive)
};

// Jerk that covers `distance` from rest to rest in the seven durations `times`.
double recalculate_profile1(double distance, double* times);

// Peak speed in [lo, hi] for which the covered distance equals `distance`.
// f1: acceleration reaches a, deceleration jerk-only; f2: both sides jerk-only;
// f3: deceleration reaches a (its deceleration limit), acceleration jerk-only.
// Each stops when the bracket is narrower than 1e-12, or can no longer be
// halved, or is not finite.
double bisection_method_f1(double lo, double hi, double a, double jerk, double vstart,
                           double vend, double distance);
double bisection_method_f2(double lo, double hi, double a, double jerk, double vstart,
                           double vend, double distance);
double bisection_method_f3(double lo, double hi, double a, double jerk, double vstart,
                           double vend, double distance);

#endif  // TQL_SPEED_PROFILE_H
