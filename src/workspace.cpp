// The workspace the arm never leaves: an optional box and half-spaces in the
// base frame (rows 15 and 16 of the robot type's table) that every set-point's
// flange position and wrist centre must keep.
#include <cmath>
#include <iostream>
#include <sstream>

#include "database.h"
#include "math_fun.h"
#include "mechnical_unit.h"

namespace {

const char* const kAxes = "xyz";

// How far [mm] point p lies outside the workspace (0 inside) and, when it
// does, which bound it leaves.
double Outside(const ResourceData* rd, const double* p, std::string* why) {
    double worst = 0.0;
    std::ostringstream text;
    if (rd->workspace_box_set) {
        for (int k = 0; k < 3; ++k) {
            const double lo = rd->workspace_box[2 * k], hi = rd->workspace_box[2 * k + 1];
            const double out = std::fmax(lo - p[k], p[k] - hi);
            if (out > worst || !(out == out)) {
                worst = out == out ? out : 1e300;
                text.str("");
                text << kAxes[k] << " outside " << lo << " .. " << hi << " mm (row 15)";
            }
        }
    }
    for (int h = 0; h < rd->workspace_half_spaces; ++h) {
        const double* n = rd->workspace_planes + 4 * h;
        const double out = (n[0] * p[0] + n[1] * p[1] + n[2] * p[2] - n[3]) / std::sqrt(n[0] * n[0] + n[1] * n[1] + n[2] * n[2]);
        if (out > worst) {
            worst = out;
            text.str("");
            text << "beyond half-space " << h + 1 << " (row 16)";
        }
    }
    if (why != nullptr) *why = text.str();
    return worst;
}

// The flange position and the wrist centre [mm] at joints q; false without
// kinematics.
bool Points(Robot& robot, double* q, double flange[3], double wrist[3]) {
    double pose[7];  // x, y, z [mm], w, qx, qy, qz
    if (robot.ForwardKinematics(q, pose) < 0) return false;
    double T[4][4];
    UnitQuaternionToMatrix(T, pose);
    // The wrist centre: the flange's offset d6 back along the tool axis (the
    // flange frame's z, column 2).
    const double d6 = robot.link_[5].mdh_[3];
    for (int k = 0; k < 3; ++k) {
        flange[k] = pose[k];
        wrist[k] = pose[k] - d6 * T[k][2];
    }
    return true;
}

}  // namespace

int Robot::CheckWorkspace(double* q, double* q_last, bool report) {
    const ResourceData* rd = GetResourceDate();
    if (!rd->workspace_box_set && rd->workspace_half_spaces == 0) return 0;
    double flange[3], wrist[3], flange_last[3], wrist_last[3];
    if (!Points(*this, q, flange, wrist) || !Points(*this, q_last, flange_last, wrist_last)) return 0;
    const struct {
        const char* name;
        const double* p;
        const double* before;
    } points[] = {{"flange", flange, flange_last}, {"wrist centre", wrist, wrist_last}};
    for (const auto& point : points) {
        std::string why;
        const double out = Outside(rd, point.p, &why);
        // An arm found outside (moved there by hand, or before the workspace
        // was set) may move back in, never further out.
        if (!(out > 0.0) || out <= Outside(rd, point.before, nullptr)) continue;
        if (!report) return -1;
        std::cout << "Workspace: the " << point.name << " at (" << point.p[0] << ", " << point.p[1] << ", "
                  << point.p[2] << ") mm is " << why << std::endl;
        return -1;
    }
    return 0;
}
