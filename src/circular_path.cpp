// Circular-arc segment: the circle through three points and the arc with
// orientation interpolation. Positions in millimetres in the base frame.
#include <algorithm>
#include <cmath>
#include <iostream>

#include "interpolation.h"
#include "math_fun.h"

namespace {

// |u1 x u2| / (|u1| |u2|) (the sine of the start -> middle angle) at or below
// which that cross product carries no usable direction: rounding noise of the
// computed centre is about 1e-16 relative, so the plane it gave would be
// tilted arbitrarily.
constexpr double kAntiparallelRadii = 1e-10;

// Central angle (rad, 0..pi) between two radii.
double CentralAngle(double* u, double* w) {
    const double c = dot_product(u, w, 3) / (norm(u, 3) * norm(w, 3));
    // Rounding can push the cosine of a nearly straight or nearly zero angle
    // past +-1; acos is defined only inside.
    return std::acos(std::min(1.0, std::max(-1.0, c)));
}

}  // namespace

int CalculateCircularExpression(double* p1, double* p2, double* p3, double* centre,
                                double* radius, double frame[3][3], double* sector_angles) {
    const double x1 = p1[0], y1 = p1[1], z1 = p1[2];
    const double x2 = p2[0], y2 = p2[1], z2 = p2[2];
    const double x3 = p3[0], y3 = p3[1], z3 = p3[2];

    // A c = b: row 1 the plane through the points, rows 2 and 3 equal
    // distance from p1 and p2, p1 and p3.
    double a[9] = {
        y1 * z2 - y1 * z3 - z1 * y2 + z1 * y3 + y2 * z3 - y3 * z2,
        -x1 * z2 + x1 * z3 + z1 * x2 - z1 * x3 - x2 * z3 + x3 * z2,
        x1 * y2 - x1 * y3 - y1 * x2 + y1 * x3 + x2 * y3 - x3 * y2,
        2 * (x2 - x1), 2 * (y2 - y1), 2 * (z2 - z1),
        2 * (x3 - x1), 2 * (y3 - y1), 2 * (z3 - z1),
    };
    double b[3] = {
        x1 * y2 * z3 - x1 * y3 * z2 - x2 * y1 * z3 + x3 * y1 * z2 + x2 * y3 * z1 - x3 * y2 * z1,
        x2 * x2 + y2 * y2 + z2 * z2 - (x1 * x1 + y1 * y1 + z1 * z1),
        x3 * x3 + y3 * y3 + z3 * z3 - (x1 * x1 + y1 * y1 + z1 * z1),
    };
    if (inverse_matrix(a, 3) == -1) {
        std::cout << "Failure to compute inverse matrix" << std::endl;
        return -1;
    }
    double c[3];
    mul_matrix(a, b, c, 3, 3, 1);
    for (int i = 0; i < 3; ++i) centre[i] = c[i];

    double u1[3], u2[3], u3[3];
    for (int i = 0; i < 3; ++i) {
        u1[i] = p1[i] - c[i];
        u2[i] = p2[i] - c[i];
        u3[i] = p3[i] - c[i];
    }
    *radius = std::sqrt(dot_product(u1, u1, 3));
    sector_angles[0] = CentralAngle(u1, u2);
    sector_angles[1] = CentralAngle(u2, u3);

    // x towards the start point, normal along u1 x u2, y completing the frame.
    double w[3], v[3];
    cross_3d(u1, u2, w);
    if (norm(w, 3) <= kAntiparallelRadii * norm(u1, 3) * norm(u2, 3)) {
        // Middle point opposite the start: u1 x u2 is zero or rounding noise
        // and would give no plane (or a random one). The middle and end radii
        // span the same plane with the same turning sense.
        cross_3d(u2, u3, w);
    }
    cross_3d(w, u1, v);
    double x_axis[3] = {u1[0], u1[1], u1[2]};
    scaling(x_axis, 1.0 / norm(u1, 3), 3);
    scaling(v, 1.0 / norm(v, 3), 3);
    scaling(w, 1.0 / norm(w, 3), 3);
    for (int r = 0; r < 3; ++r) {
        frame[r][0] = x_axis[r];
        frame[r][1] = v[r];
        frame[r][2] = w[r];
    }
    return 0;
}

void CircularPath::SetParameters(double* start, double* mid, double* end, double vlin, double alin,
                                 double dlin, double jlin, double vrot, double arot, double drot,
                                 double jrot) {
    for (int i = 0; i < 7; ++i) {
        start_pose_[i] = start[i];
        mid_pose_[i] = mid[i];
        end_pose_[i] = end[i];
    }
    SetProfileLimits(linear_limits_, vlin, alin, dlin, jlin);
    SetProfileLimits(rotation_limits_, vrot, arot, drot, jrot);
}

void CircularPath::InterpolationPreprocess() {
    // Deliberately unchecked: on failure the circle keeps what it held (zero
    // for a fresh record) and the message has been printed.
    CalculateCircularExpression(start_pose_, mid_pose_, end_pose_, centre_, &radius_, frame_,
                                sector_angles_);
    arc_angle_ = sector_angles_[0] + sector_angles_[1];
    arc_length_ = arc_angle_ * radius_;
    angle_ = CalculateOrientation(start_pose_ + 3, end_pose_ + 3);

    const SpeedProfile* governing = PlanCartesianProfiles(arc_length_, linear_limits_, angle_, rotation_limits_,
                                                          &linear_profile_, &rotation_profile_);
    rotation_governs_ = governing == &rotation_profile_ ? 1 : 0;
    tall_ = governing->ttotal_;
    ta_ = governing->ta_;
    td_ = governing->td_;
}

void CircularPath::Interpolation(double t, double* pose) {
    double out[2];
    double phi;  // central angle from the start point (rad)
    double s;    // fraction of the orientation turn
    if (rotation_governs_) {
        rotation_profile_.calculate_current_speed(t, out);
        // A segment of no length at all stays at its start.
        const double fraction = angle_ > 0 ? out[0] / angle_ : 0.0;
        phi = fraction * arc_angle_;
        s = fraction;
    } else {
        linear_profile_.calculate_current_speed(t, out);
        phi = out[0] / radius_;
        s = out[0] / arc_length_;
    }
    double local[3] = {radius_ * std::cos(phi), radius_ * std::sin(phi), 0.0};
    double rotated[3];
    mul_matrix(&frame_[0][0], local, rotated, 3, 3, 1);
    add_vector(rotated, centre_, pose, 3);
    OrientationInterpolation(start_pose_ + 3, end_pose_ + 3, pose + 3, s, angle_);
}

int MoveCircularPreprocess(Robot* robot, double* start_joints, double* mid_joints,
                           double* end_joints, CircularPath* path, AccDecDate* linear,
                           AccDecDate* rotation) {
    double start_pose[7], mid_pose[7], end_pose[7];
    if (robot->ForwardKinematics(start_joints, start_pose) < 0) return -1;
    if (robot->ForwardKinematics(mid_joints, mid_pose) < 0) return -1;
    if (robot->ForwardKinematics(end_joints, end_pose) < 0) return -1;
    path->SetParameters(start_pose, mid_pose, end_pose, linear->speed, linear->acceleration,
                        linear->acceleration, linear->jerk, rotation->speed,
                        rotation->acceleration, rotation->acceleration, rotation->jerk);
    path->InterpolationPreprocess();
    return 0;
}

double CircularPath::Fraction(double t) {
    double out[2];
    SpeedProfile& governing = rotation_governs_ ? rotation_profile_ : linear_profile_;
    const double distance = rotation_governs_ ? angle_ : arc_length_;
    if (!(distance > 0)) return 1.0;
    governing.calculate_current_speed(t, out);
    return out[0] / distance;
}
