// Kinematics of the four-link (symmetric planar five-bar) arm on a lead-screw
// vertical axis. Two driven arms of length l1 turn about a common centre; two
// distal links of length l2 meet at the end point, which therefore lies on the
// bisector of the driven arms. Lengths in millimetres, angles in radians.
#include "kinematics.h"

#include <cmath>

double l1 = 143.78, l2 = 120.0, s = 12.0;

namespace {

// One screw turn, rad (truncated 2 pi: v[0] of exactly this value is one lead).
constexpr double kScrewTurn = 6.2831852;
// Screw lead of the placeholder inverse, mm per turn (independent of s).
constexpr double kPlaceholderLead = 12.0;

// Base-to-tool transform for joint vector v with the given screw lead (mm/turn).
// Beyond reach (l1 sin h > l2) the square root gives NaN in x and y.
void LinkTransform(const double* v, double lead, double T[4][4]) {
    const double phi = (v[1] + v[2]) / 2;           // direction of the end point
    const double h = std::fabs(v[1] - v[2]) / 2;     // half the opening angle
    const double sh = l1 * std::sin(h);
    const double r = l1 * std::cos(h) + std::sqrt(l2 * l2 - sh * sh);  // centre to end point
    const double c = std::cos(v[3]), sn = std::sin(v[3]);
    const double rows[4][4] = {{c, -sn, 0.0, r * std::cos(phi)},
                               {sn, c, 0.0, r * std::sin(phi)},
                               {0.0, 0.0, 1.0, v[0] / kScrewTurn * lead},
                               {0.0, 0.0, 0.0, 1.0}};
    for (int i = 0; i < 4; ++i)
        for (int j = 0; j < 4; ++j) T[i][j] = rows[i][j];
}

}  // namespace

void LinkMechanismForwardKinematicsSolution(double* v, double T[4][4]) { LinkTransform(v, s, T); }

void LinkMechanismInverseKinematicsSolution(double* v, double T[4][4]) { LinkTransform(v, kPlaceholderLead, T); }
