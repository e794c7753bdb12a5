// tql-urdf: the URDF of the arm as the controller sees it.
//
// Usage: tql-urdf [--inertial-from WORLD.urdf] [OUTPUT.urdf]
//
// Reads "parameter.db" in the working directory: the robot type chosen in
// system_parameters, and from the type's table its joint speed and
// acceleration limits (rows 1, 2), joint directions (row 11), kinematic
// lengths (row 12) and dynamic parameters (row 13). Builds the arm as a
// urdfdom model and writes it through urdfdom's exporter to OUTPUT.urdf
// (through OUTPUT.urdf.part, renamed when complete) or, without it or with
// "-", to standard output. Exit status 0; 1 when the database cannot be
// read, its robot type is not a six-revolute-joint arm of the closed-form
// kinematics, or the world file does not fit; 2 on bad usage.
//
// Frames: link i is the controller's modified-DH frame i, joint i's origin
// Rx(alpha_i) Tx(a_i) Tz(d_i) Rz(offset_i), its axis the child frame's z, so
// the URDF's joint angle is the controller's user-zero joint angle q_i and the
// fixed "flange" link is the frame fk_ur returns (lengths in metres here).
//
// Limits: velocity the type's joint speed limit (row 1, rad/s with the
// controller's pi), effort the joint torque at the peak current of the
// joint's actuator (JointPeakTorque: the most the controller ever commands),
// position the actuators' factory limits. Shapes: every link has one
// cylinder, as <visual> and as <collision>, from its origin to the next
// joint's, of a radius proportional to the arm's size; a picture and a
// coarse collision body, not the arm's housing.
//
// Inertial data: by default from row 13, the 36 base parameters, mapped back
// to one standard parameter set with the same base parameters (so the joint
// torques of any rigid-body solver on the file equal the controller's model),
// see InertiaFromBaseParameters. With --inertial-from, each link's <inertial>
// is copied from the simulated world's URDF instead, after checking that the
// world's joints sit where the database's geometry puts them. Row 13's
// friction columns (36..47), when present, become <dynamics damping friction>.
#include <sqlite3.h>
#include <urdf_parser/urdf_parser.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <locale>
#include <map>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "command_line.h"
#include "database.h"
#include "durable_file.h"
#include "dynamics.h"
#include "kinematics.h"
#include "mechnical_unit.h"

namespace {

constexpr int kJoints = 6;
constexpr double kHalfPi = 1.5707963267948966;
// Twist and zero offset of each joint, full precision, as fk_ur and the
// simulated world use them.
constexpr double kAlpha[kJoints] = {0.0, kHalfPi, 0.0, 0.0, -kHalfPi, kHalfPi};
constexpr double kOffset[kJoints] = {0.0, kHalfPi, 0.0, -kHalfPi, 0.0, 0.0};
// The database holds no position limits: these are the actuators' factory
// limits, +-170 degrees (the live limits are read from the actuators).
constexpr double kPositionLimit = 2.9670597;
// Degrees to radians as the controller converts its speed limits.
constexpr double kDegToRad = 3.1415926 / 180.0;
// Robot types served by fk_ur (six revolute joints, lengths in row 12).
const char* const kSixJointTypes[] = {"GL_6L3", "GL_2P8_P6_3P3", "GL_6L6", "GL_2L6_4L3"};
const char* const kOtherTypes[] = {"GL_4L3", "FREE_COMBINATION"};
// Fill of what the base parameters leave open: added to a link's least mass
// [kg] and to its least spread along its joint axis [kg m^2] (1 g at 1 cm).
constexpr double kMassFloor = 1e-3;
constexpr double kSpreadFloor = 1e-7;
// Radius of the links' cylinders: this share of the arm's size (the sum of
// its six kinematic lengths), at least the floor [m], so that an arm of zero
// lengths still shows.
constexpr double kLinkRadiusShare = 0.05;
constexpr double kLinkRadiusFloor = 0.005;

struct Geometry {
    double a[kJoints] = {}, d[kJoints] = {};  // metres
};

// One link's <inertial>: centre of mass and its frame in the link frame,
// mass [kg], inertia about the centre of mass [kg m^2].
struct Inertial {
    double xyz[3] = {}, rpy[3] = {};
    double mass = 0.0;
    double ixx = 0, ixy = 0, ixz = 0, iyy = 0, iyz = 0, izz = 0;
};

// Shortest decimal text that reads back as v; tiny rounding noise of
// trigonometric zeros is written as 0.
std::string Num(double v) {
    if (std::fabs(v) < 1e-15) return "0";
    char buf[40];
    for (int precision = 6; precision <= 17; ++precision) {
        std::snprintf(buf, sizeof buf, "%.*g", precision, v);
        if (std::strtod(buf, nullptr) == v) break;
    }
    return buf;
}

std::string Nums(const double* v, int n) {
    std::string s;
    for (int i = 0; i < n; ++i) s += (i ? " " : "") + Num(v[i]);
    return s;
}

// "[v0,v1,...]" with every entry a finite number; false otherwise.
bool ParseList(const std::string& text, std::vector<double>* out) {
    out->clear();
    if (text.size() < 2 || text.front() != '[' || text.back() != ']') return false;
    const char* p = text.c_str() + 1;
    const char* end = text.c_str() + text.size() - 1;
    while (p < end) {
        char* stop = nullptr;
        const double v = std::strtod(p, &stop);
        if (stop == p || !std::isfinite(v)) return false;
        out->push_back(v);
        p = stop;
        while (p < end && *p == ' ') ++p;
        if (p < end && *p++ != ',') return false;
    }
    return true;
}

// ---- parameter database

struct Database {
    std::string type;
    std::map<int, std::string> rows;  // ID -> VALUE of the type's table
};

bool ReadRows(sqlite3* db, const std::string& table, std::map<int, std::string>* rows, std::string* error) {
    sqlite3_stmt* stmt = nullptr;
    const std::string sql = "SELECT ID, VALUE FROM \"" + table + "\"";
    if (sqlite3_prepare_v2(db, sql.c_str(), -1, &stmt, nullptr) != SQLITE_OK) {
        *error = "cannot read table " + table + " of parameter.db: " + sqlite3_errmsg(db);
        return false;
    }
    int rc;
    while ((rc = sqlite3_step(stmt)) == SQLITE_ROW) {
        const unsigned char* v = sqlite3_column_text(stmt, 1);
        (*rows)[sqlite3_column_int(stmt, 0)] = v ? reinterpret_cast<const char*>(v) : "";
    }
    if (rc != SQLITE_DONE) *error = "cannot read table " + table + " of parameter.db: " + sqlite3_errmsg(db);
    sqlite3_finalize(stmt);
    return rc == SQLITE_DONE;
}

bool ReadDatabase(const char* path, Database* out, std::string* error) {
    sqlite3* db = nullptr;
    if (sqlite3_open_v2(path, &db, SQLITE_OPEN_READONLY, nullptr) != SQLITE_OK) {
        *error = std::string("cannot open ") + path + ": " + (db ? sqlite3_errmsg(db) : "out of memory");
        sqlite3_close(db);
        return false;
    }
    std::map<int, std::string> system;
    bool ok = ReadRows(db, "system_parameters", &system, error);
    if (ok && system.count(1) == 0) {
        *error = "parameter.db names no robot type (system_parameters row 1)";
        ok = false;
    }
    if (ok) {
        out->type = system[1];
        bool six = false, known = false;
        for (const char* t : kSixJointTypes) six = six || out->type == t;
        for (const char* t : kOtherTypes) known = known || out->type == t;
        if (!six) {
            *error = known ? "robot type " + out->type +
                                 " cannot be exported: only the six-revolute-joint types GL_6L3, "
                                 "GL_2P8_P6_3P3, GL_6L6 and GL_2L6_4L3 can"
                           : "unknown robot type '" + out->type + "' in parameter.db";
            ok = false;
        }
    }
    ok = ok && ReadRows(db, out->type, &out->rows, error);
    sqlite3_close(db);
    return ok;
}

// Row `id` of the type's table as at least n numbers.
bool Row(const Database& db, int id, size_t n, std::vector<double>* v, std::string* error) {
    auto it = db.rows.find(id);
    if (it == db.rows.end() || !ParseList(it->second, v) || v->size() < n) {
        *error = "table " + db.type + " row " + std::to_string(id) + " does not hold " + std::to_string(n) + " numbers";
        return false;
    }
    return true;
}

// ---- frames

// R = Rx(alpha) Rz(offset), entries of trigonometric zeros set to 0.
void JointRotation(int i, double R[3][3]) {
    auto clean = [](double v) { return std::fabs(v) < 1e-15 ? 0.0 : v; };
    const double ca = clean(std::cos(kAlpha[i])), sa = clean(std::sin(kAlpha[i]));
    const double co = clean(std::cos(kOffset[i])), so = clean(std::sin(kOffset[i]));
    const double M[3][3] = {{co, -so, 0.0}, {ca * so, ca * co, -sa}, {sa * so, sa * co, ca}};
    std::memcpy(R, M, sizeof M);
}

// Roll, pitch, yaw of R = Rz(yaw) Ry(pitch) Rx(roll).
void Rpy(const double R[3][3], double rpy[3]) {
    const double cp = std::hypot(R[0][0], R[1][0]);
    rpy[1] = std::atan2(-R[2][0], cp);
    if (cp > 1e-12) {
        rpy[0] = std::atan2(R[2][1], R[2][2]);
        rpy[2] = std::atan2(R[1][0], R[0][0]);
    } else {  // pitch +-pi/2: only roll -+ yaw is defined; roll = 0
        rpy[0] = 0.0;
        rpy[2] = std::atan2(-R[0][1], R[1][1]);
    }
}

void RotationOfRpy(const double rpy[3], double R[3][3]) {
    const double cr = std::cos(rpy[0]), sr = std::sin(rpy[0]), cp = std::cos(rpy[1]), sp = std::sin(rpy[1]);
    const double cy = std::cos(rpy[2]), sy = std::sin(rpy[2]);
    const double M[3][3] = {{cy * cp, cy * sp * sr - sy * cr, cy * sp * cr + sy * sr},
                            {sy * cp, sy * sp * sr + cy * cr, sy * sp * cr - cy * sr},
                            {-sp, cp * sr, cp * cr}};
    std::memcpy(R, M, sizeof M);
}

void JointOrigin(const Geometry& g, int i, double xyz[3], double rpy[3]) {
    xyz[0] = g.a[i];
    xyz[1] = -g.d[i] * std::sin(kAlpha[i]);
    xyz[2] = g.d[i] * std::cos(kAlpha[i]);
    double R[3][3];
    JointRotation(i, R);
    Rpy(R, rpy);
}

// ---- inertial data from the base parameters
//
// Standard parameters of link i at 10 i: XX XY XZ YY YZ ZZ (about the link
// origin), MX MY MZ, M. The base parameters keep of links 2..6 the entries
// XX - YY, XY, XZ, YZ, ZZ, MX, MY, each with what the links beyond add to it;
// of link 1 only ZZ. A link's YY, MZ and M only reach the torques through
// its parent (they describe a body on its joint axis, which turns with the
// parent), so any values may be chosen for them as long as the kept entries
// are matched afterwards; the torques stay the same.
constexpr int kKept[7] = {0, 1, 2, 4, 5, 6, 7};  // XX XY XZ YZ ZZ MX MY

// Sets link i's kept entries so that its base parameters equal P's. Each kept
// entry enters only its own base parameter, with coefficient 1.
void MatchKept(const Geometry& g, const double* P, int i, double* S) {
    double now[kBaseParameterNum];
    standard_to_base_parameters(g.a, kModelAlpha, g.d, S, now);
    if (i == 0) {
        S[5] += P[0] - now[0];
        return;
    }
    for (int k = 0; k < 7; ++k) S[10 * i + kKept[k]] += P[1 + 7 * (i - 1) + k] - now[1 + 7 * (i - 1) + k];
}

// Links 6 down to 2: with the link's own YY, MZ, M at zero, its second
// moments in the x-y plane (A, 2 x 2, from the base parameters) must carry
// its first moments and x-y/z couplings (Q). The least mass and axial spread
// that do so, K = Q^T A^-1 Q, plus a floor make the link's pseudo-inertia
// [[A, Q], [Q^T, K + floor]] positive definite: a physically possible body.
// Taking the least keeps the most for the parent, whose own entries are what
// its base parameters hold less what the child's choice carries to it (a
// child given more than the real arm's links have can leave its parent
// without a possible body; with the least, seeded sweeps of random physical
// arms have always found one for every link). Link 1: only ZZ is known; it gets
// XX = YY = ZZ, its centre of mass on its origin and the mass of a solid
// cylinder of radius d1 with that ZZ. Links for which no such body exists
// (A not positive definite: base parameters that no real arm has) are
// listed in *bad; their values still reproduce the base parameters.
void InertiaFromBaseParameters(const Geometry& g, const double* P, double* S, std::vector<int>* bad) {
    std::fill(S, S + kStandardParameterNum, 0.0);
    for (int i = kJoints - 1; i >= 1; --i) {
        MatchKept(g, P, i, S);
        double* s = S + 10 * i;
        const double a00 = 0.5 * (s[5] - s[0]), a01 = -s[1], a11 = 0.5 * (s[5] + s[0]);
        const double det = a00 * a11 - a01 * a01;
        if (!(a00 > 0.0 && det > 0.0)) {
            s[9] = kMassFloor;
            continue;
        }
        const double inv[2][2] = {{a11 / det, -a01 / det}, {-a01 / det, a00 / det}};
        const double Q[2][2] = {{-s[2], s[6]}, {-s[4], s[7]}};
        double K[2][2] = {};
        for (int r = 0; r < 2; ++r)
            for (int c = 0; c < 2; ++c)
                for (int x = 0; x < 2; ++x)
                    for (int y = 0; y < 2; ++y) K[r][c] += Q[x][r] * inv[x][y] * Q[y][c];
        const double spread = K[0][0] + kSpreadFloor;  // integral of z^2 dm
        s[3] = spread - 0.5 * (s[0] - s[5]);           // YY, XX follows below
        s[8] = K[0][1];                                // MZ
        s[9] = K[1][1] + kMassFloor;                   // M
        MatchKept(g, P, i, S);
    }
    MatchKept(g, P, 0, S);
    S[0] = S[3] = S[5];
    S[9] = g.d[0] > 0.0 && S[5] > 0.0 ? S[5] / (0.5 * g.d[0] * g.d[0]) : kMassFloor;
    if (!(S[5] > 0.0)) bad->insert(bad->begin(), 1);
    for (int i = 1; i < kJoints; ++i) {
        const double* s = S + 10 * i;
        const double a00 = 0.5 * (s[5] - s[0] + s[3]), a11 = 0.5 * (s[5] + s[0] - s[3]);
        if (!(a00 > 0.0 && a00 * a11 - s[1] * s[1] > 0.0)) bad->push_back(i + 1);
    }
}

// The <inertial> of a link from its standard parameters.
Inertial FromStandard(const double* s) {
    Inertial in;
    in.mass = s[9];
    const double h[3] = {s[6], s[7], s[8]};
    for (int k = 0; k < 3; ++k) in.xyz[k] = h[k] / in.mass;
    // Inertia about the centre of mass: I_O - (|h|^2 E - h h^T) / m.
    const double hh = (h[0] * h[0] + h[1] * h[1] + h[2] * h[2]) / in.mass;
    in.ixx = s[0] - hh + h[0] * h[0] / in.mass;
    in.iyy = s[3] - hh + h[1] * h[1] / in.mass;
    in.izz = s[5] - hh + h[2] * h[2] / in.mass;
    in.ixy = s[1] + h[0] * h[1] / in.mass;
    in.ixz = s[2] + h[0] * h[2] / in.mass;
    in.iyz = s[4] + h[1] * h[2] / in.mass;
    return in;
}

// ---- the simulated world's URDF (only what is needed of it: no general XML)

struct Element {
    std::map<std::string, std::string> attr;
    std::string inner;  // text between the tags, empty for <x .../>
};

// The elements <tag ...> of text, outermost first; elements of one tag
// name do not nest in a URDF.
std::vector<Element> Elements(const std::string& text, const std::string& tag) {
    std::vector<Element> found;
    for (size_t p = text.find("<" + tag); p != std::string::npos; p = text.find("<" + tag, p + 1)) {
        size_t q = p + 1 + tag.size();
        if (q >= text.size() ||
            !(std::isspace(static_cast<unsigned char>(text[q])) || text[q] == '/' || text[q] == '>'))
            continue;
        Element e;
        while (q < text.size() && text[q] != '>' && text[q] != '/') {
            if (std::isspace(static_cast<unsigned char>(text[q]))) {
                ++q;
                continue;
            }
            const size_t eq = text.find('=', q);
            if (eq == std::string::npos || eq + 1 >= text.size()) return found;
            const char quote = text[eq + 1];
            const size_t close = text.find(quote, eq + 2);
            if (close == std::string::npos) return found;
            std::string name = text.substr(q, eq - q);
            while (!name.empty() && std::isspace(static_cast<unsigned char>(name.back()))) name.pop_back();
            e.attr[name] = text.substr(eq + 2, close - eq - 2);
            q = close + 1;
        }
        if (q < text.size() && text[q] == '>') {
            const size_t end = text.find("</" + tag + ">", q);
            if (end == std::string::npos) return found;
            e.inner = text.substr(q + 1, end - q - 1);
            p = end;
        }
        found.push_back(e);
    }
    return found;
}

// n numbers of a blank-separated attribute; `fallback` when it is absent.
bool Numbers(const Element& e, const char* name, int n, double* out, const char* fallback) {
    auto it = e.attr.find(name);
    std::istringstream in(it == e.attr.end() ? fallback : it->second);
    for (int k = 0; k < n; ++k)
        if (!(in >> out[k]) || !std::isfinite(out[k])) return false;
    std::string rest;
    return !(in >> rest);
}

bool Child(const std::string& inner, const char* tag, Element* out) {
    const std::vector<Element> e = Elements(inner, tag);
    if (e.empty()) return false;
    *out = e.front();
    return true;
}

// The inertial data of the world's links, joint order; a link without one
// gets mass 0 (written without <inertial>).
bool InertiaFromWorld(const char* path, const Geometry& g, std::vector<Inertial>* out, std::string* error) {
    std::ifstream file(path);
    std::stringstream buf;
    buf << file.rdbuf();
    std::string text = buf.str();
    if (!file || text.find("<robot") == std::string::npos) {
        *error = std::string("cannot read the URDF file ") + path;
        return false;
    }
    for (size_t p; (p = text.find("<!--")) != std::string::npos;) {
        const size_t end = text.find("-->", p);
        text.erase(p, end == std::string::npos ? std::string::npos : end + 3 - p);
    }
    std::map<std::string, std::string> link_inner;
    for (const Element& l : Elements(text, "link")) link_inner[l.attr.count("name") ? l.attr.at("name") : ""] = l.inner;
    // Joints by parent link; the root is the link that is no joint's child.
    std::map<std::string, std::vector<Element>> by_parent;
    std::map<std::string, bool> is_child;
    for (const Element& j : Elements(text, "joint")) {
        Element parent, child;
        if (!Child(j.inner, "parent", &parent) || !Child(j.inner, "child", &child)) {
            *error = std::string(path) + ": a joint without parent or child link";
            return false;
        }
        by_parent[parent.attr["link"]].push_back(j);
        is_child[child.attr["link"]] = true;
    }
    std::string link;
    for (const auto& l : link_inner)
        if (!is_child[l.first]) link = l.first;
    out->assign(kJoints, Inertial());
    for (int i = 0; i < kJoints; ++i) {
        std::vector<Element>& next = by_parent[link];
        const std::string type = next.size() == 1 ? next[0].attr["type"] : "";
        if (type != "revolute" && type != "continuous") {
            *error = std::string(path) + ": link '" + link + "' is not followed by joint " + std::to_string(i + 1) +
                     " alone; the arm must be one chain of six revolute joints from its root";
            return false;
        }
        Element& j = next[0];
        Element origin, axis, child;
        Child(j.inner, "origin", &origin);
        Child(j.inner, "axis", &axis);
        double xyz[3], rpy[3], ax[3], want_xyz[3], want_rpy[3], R[3][3], want_R[3][3];
        const bool numbers = Numbers(origin, "xyz", 3, xyz, "0 0 0") && Numbers(origin, "rpy", 3, rpy, "0 0 0") &&
                             Numbers(axis, "xyz", 3, ax, "1 0 0");
        JointOrigin(g, i, want_xyz, want_rpy);
        RotationOfRpy(rpy, R);
        RotationOfRpy(want_rpy, want_R);
        double mismatch = std::fabs(ax[0]) + std::fabs(ax[1]) + std::fabs(ax[2] - 1.0);
        for (int r = 0; r < 3; ++r) {
            mismatch += std::fabs(xyz[r] - want_xyz[r]);
            for (int c = 0; c < 3; ++c) mismatch += std::fabs(R[r][c] - want_R[r][c]);
        }
        if (!numbers || !(mismatch < 1e-6)) {
            *error = std::string(path) + ": joint '" + j.attr["name"] +
                     "' does not sit where parameter.db's geometry puts joint " + std::to_string(i + 1);
            return false;
        }
        Child(j.inner, "child", &child);
        link = child.attr["link"];
        Element inertial, m, inertia, io;
        if (!Child(link_inner[link], "inertial", &inertial)) continue;
        Inertial& in = (*out)[i];
        Child(inertial.inner, "origin", &io);
        double I[6] = {};
        const char* names[6] = {"ixx", "ixy", "ixz", "iyy", "iyz", "izz"};
        bool ok = Child(inertial.inner, "mass", &m) && Child(inertial.inner, "inertia", &inertia) &&
                  Numbers(m, "value", 1, &in.mass, "") && Numbers(io, "xyz", 3, in.xyz, "0 0 0") &&
                  Numbers(io, "rpy", 3, in.rpy, "0 0 0");
        for (int k = 0; k < 6 && ok; ++k) ok = Numbers(inertia, names[k], 1, &I[k], "0");
        if (!ok || !(in.mass > 0.0)) {
            *error = std::string(path) + ": link '" + link + "' has an unusable <inertial>";
            return false;
        }
        in.ixx = I[0], in.ixy = I[1], in.ixz = I[2], in.iyy = I[3], in.iyz = I[4], in.izz = I[5];
    }
    return true;
}

// ---- the urdfdom model

urdf::Pose PoseOf(const double xyz[3], const double rpy[3]) {
    urdf::Pose pose;
    pose.position = urdf::Vector3(xyz[0], xyz[1], xyz[2]);
    pose.rotation.setFromRPY(rpy[0], rpy[1], rpy[2]);
    return pose;
}

// A link's cylinder of radius r [m], as its visual and its collision shape:
// from the link origin to `next`, the next joint's origin in the link frame
// [m], its axis (the cylinder's z) along that offset. A link whose next joint
// sits on its origin (and the flange, which has none) gets its actuator's
// drum instead: 2 r long along its joint axis z, centred on the origin.
void AddCylinder(urdf::Link* link, const double next[3], double r) {
    auto cylinder = std::make_shared<urdf::Cylinder>();
    cylinder->radius = r;
    cylinder->length = std::sqrt(next[0] * next[0] + next[1] * next[1] + next[2] * next[2]);
    double xyz[3] = {}, rpy[3] = {};
    if (cylinder->length > 1e-9) {  // above the rounding noise of the frames
        for (int k = 0; k < 3; ++k) xyz[k] = 0.5 * next[k];
        // Rz(yaw) Ry(pitch) turns z onto the offset.
        rpy[1] = std::atan2(std::hypot(next[0], next[1]), next[2]);
        rpy[2] = std::atan2(next[1], next[0]);
    } else {
        cylinder->length = 2.0 * r;
    }
    auto visual = std::make_shared<urdf::Visual>();
    visual->origin = PoseOf(xyz, rpy);
    visual->geometry = cylinder;
    auto collision = std::make_shared<urdf::Collision>();
    collision->origin = visual->origin;
    collision->geometry = cylinder;
    link->visual = visual;
    link->visual_array = {visual};
    link->collision = collision;
    link->collision_array = {collision};
}

// urdfdom's exporter writes numbers through streams of default precision:
// six digits, pi/2 as 1.5708 (4e-6 rad off), a speed limit of 3.1415926 rad/s
// as 3.14159. Streams take the number formatting of the global locale when
// they are made; while this one is global, doubles are written as Num writes
// them, the shortest text that reads back as the same double.
class RoundTripNumbers : public std::num_put<char> {
protected:
    iter_type do_put(iter_type out, std::ios_base&, char_type, double v) const override {
        for (const char c : Num(v)) *out++ = c;
        return out;
    }
};

// ---- output

bool WriteOutput(const std::string& path, const std::string& text, std::string* error) {
    if (path.empty() || path == "-") {
        std::fwrite(text.data(), 1, text.size(), stdout);
        if (std::fflush(stdout) != 0) {
            *error = "cannot write standard output";
            return false;
        }
        return true;
    }
    const std::string part = tql::PartFileName(path);
    FILE* f = std::fopen(part.c_str(), "w");
    bool ok = f != nullptr && std::fwrite(text.data(), 1, text.size(), f) == text.size();
    ok = f != nullptr && std::fclose(f) == 0 && ok;
    ok = ok && tql::CommitFile(part, path) == 0;  // flushed to the disk, then renamed
    if (!ok) {
        *error = "cannot write " + path + ": " + std::strerror(errno);
        std::remove(part.c_str());
    }
    return ok;
}

std::string Lower(std::string s) {
    for (char& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return s;
}

int Fail(const std::string& message) {
    std::fprintf(stderr, "tql-urdf: %s\n", message.c_str());
    return 1;
}

}  // namespace

int Usage() {
    std::fprintf(stderr, "usage: tql-urdf [--inertial-from WORLD.urdf] [OUTPUT.urdf]\n");
    return 2;
}

int main(int argc, char** argv) {
    std::string world_file, output;
    CLI::App app{"Writes the URDF of the arm in ./parameter.db (standard output without OUTPUT).", "tql-urdf"};
    app.add_option("OUTPUT", output, "the URDF file to write");
    app.add_option("--inertial-from", world_file, "a world URDF whose links' inertial data fit row 13");
    if (const int status = tqltools::ParseCommandLine(app, argc, argv, Usage); status >= 0) return status;
    const char* world = world_file.empty() ? nullptr : world_file.c_str();

    Database db;
    std::string error;
    std::vector<double> lengths, speed, acceleration, direction, row13;
    if (!ReadDatabase("parameter.db", &db, &error) || !Row(db, 12, kJoints, &lengths, &error) ||
        !Row(db, 1, kJoints, &speed, &error) || !Row(db, 2, kJoints, &acceleration, &error) ||
        !Row(db, 11, kJoints, &direction, &error))
        return Fail(error);
    for (int i = 0; i < kJoints; ++i)
        if (!(speed[i] > 0.0) || (direction[i] != 1.0 && direction[i] != -1.0))
            return Fail("table " + db.type + ": joint " + std::to_string(i + 1) +
                        " needs a positive speed limit (row 1) and a direction of 1 or -1 (row 11)");
    Geometry g;  // row 12: d1, a2, a3, d4, d5, d6 in mm
    ModifiedDhFromLengths(lengths.data(), g.a, g.d);
    for (int i = 0; i < kJoints; ++i) {
        g.a[i] /= 1000.0;
        g.d[i] /= 1000.0;
    }

    // Row 13: 36 base parameters, optionally 12 friction coefficients.
    // Anything shorter, or all zeros, is no dynamic model.
    const bool has_row13 = Row(db, 13, kBaseParameterNum, &row13, &error);
    bool has_model = false;
    for (int k = 0; has_row13 && k < kBaseParameterNum; ++k) has_model = has_model || row13[k] != 0.0;
    const bool has_friction = has_row13 && row13.size() >= kBaseParameterNum + 2 * kJoints;

    std::vector<Inertial> inertial(kJoints);
    std::vector<int> bad;
    std::ostringstream note;
    if (world != nullptr) {
        if (!InertiaFromWorld(world, g, &inertial, &error)) return Fail(error);
        note << "  Inertial data: copied from " << world << ", whose joints sit where\n"
             << "  parameter.db's geometry puts them.\n";
    } else if (has_model) {
        double S[kStandardParameterNum], check[kBaseParameterNum];
        InertiaFromBaseParameters(g, row13.data(), S, &bad);
        standard_to_base_parameters(g.a, kModelAlpha, g.d, S, check);
        for (int k = 0; k < kBaseParameterNum; ++k)
            if (!(std::fabs(check[k] - row13[k]) <= 1e-9 * (1.0 + std::fabs(row13[k]))))
                return Fail("row 13 of " + db.type + " cannot be mapped back to link inertias");
        for (int i = 0; i < kJoints; ++i) inertial[i] = FromStandard(S + 10 * i);
        note << "  Inertial data: from row 13 of " << db.type << " (the controller's 36 base\n"
             << "  parameters), mapped back to one set of link inertias with the same base\n"
             << "  parameters, so rigid-body solvers on this file give the joint torques of\n"
             << "  the controller's model (friction aside; gravity 9.80665 m/s^2 along -z).\n"
             << "  Identifiable, per link in its frame (about its origin; M mass, MX MY MZ\n"
             << "  first moments): link 6: XX-YY, XY, XZ, YZ, ZZ, MX, MY on their own;\n"
             << "  links 2..5: the same seven, each lumped with what the links beyond add\n"
             << "  (their mass, MZ and YY carried on the joint axis); link 1: ZZ only, lumped\n"
             << "  with links 2..6. Not identifiable: every link's mass, MZ and YY (only\n"
             << "  XX-YY), and link 1's other entries. Fill: links 6..2 get the least mass\n"
             << "  and axial spread their identified entries need, plus 1 g at 1 cm;\n"
             << "  link 1 its centre of mass at its origin, XX = YY = ZZ and the mass of a\n"
             << "  solid cylinder of radius d1. Masses and centres of mass below are thus\n"
             << "  one consistent choice, not the arm's.\n";
        if (!bad.empty()) {
            std::string list;
            for (int l : bad) list += (list.empty() ? "" : ", ") + std::to_string(l);
            note << "  NOT PHYSICAL: no physically possible body fits the base parameters of\n"
                 << "  link(s) " << list << "; their inertia is not positive definite.\n";
            std::fprintf(stderr,
                         "tql-urdf: warning: the base parameters of link(s) %s fit no physically possible "
                         "body; written as they map back\n",
                         list.c_str());
        }
    } else {
        note << "  Inertial data: none (row 13 of " << db.type << " holds no dynamic parameters).\n";
        std::fprintf(stderr,
                     "tql-urdf: row 13 of %s holds no dynamic parameters: links written without "
                     "inertial data\n",
                     db.type.c_str());
    }

    // Effort: the joint torque at the peak current of the joint's actuator
    // (the type's layout picks the actuator; parameter.db holds no torques).
    int type_code = -1;
    for (int code : {kTypeGL_6L3, kTypeGL_2P8_P6_3P3, kTypeGL_6L6, kTypeGL_2L6_4L3})
        if (db.type == RobotTypeName(code)) type_code = code;
    double effort[kJoints];
    for (int i = 0; i < kJoints; ++i)
        if (!((effort[i] = JointPeakTorque(type_code, i)) > 0.0))
            return Fail("no peak torque known for joint " + std::to_string(i + 1) + " of robot type " + db.type);
    double size = 0.0;  // m
    for (int i = 0; i < kJoints; ++i) size += std::fabs(g.a[i]) + std::fabs(g.d[i]);
    const double radius = std::max(kLinkRadiusShare * size, kLinkRadiusFloor);

    // The chain base_link, link1 .. link6, flange; next[k]: the origin of the
    // joint after link k in link k's frame (the flange sits on link 6's
    // frame and is the last).
    urdf::ModelInterface model;
    model.name_ = Lower(db.type);
    std::vector<urdf::LinkSharedPtr> links;
    for (int k = 0; k <= kJoints + 1; ++k) {
        links.push_back(std::make_shared<urdf::Link>());
        links[k]->name = k == 0 ? "base_link" : k <= kJoints ? "link" + std::to_string(k) : "flange";
        model.links_[links[k]->name] = links[k];
    }
    double rpy[kJoints][3], next[kJoints + 2][3] = {};
    for (int i = 0; i < kJoints; ++i) {
        JointOrigin(g, i, next[i], rpy[i]);
        auto j = std::make_shared<urdf::Joint>();
        j->name = "joint" + std::to_string(i + 1);
        j->type = urdf::Joint::REVOLUTE;
        j->parent_link_name = links[i]->name;
        j->child_link_name = links[i + 1]->name;
        j->parent_to_joint_origin_transform = PoseOf(next[i], rpy[i]);
        j->axis = urdf::Vector3(0.0, 0.0, 1.0);
        j->limits = std::make_shared<urdf::JointLimits>();
        j->limits->lower = -kPositionLimit;
        j->limits->upper = kPositionLimit;
        j->limits->effort = effort[i];
        j->limits->velocity = speed[i] * kDegToRad;
        if (has_friction) {
            j->dynamics = std::make_shared<urdf::JointDynamics>();
            j->dynamics->damping = row13[kBaseParameterNum + i];
            j->dynamics->friction = row13[kBaseParameterNum + kJoints + i];
        }
        model.joints_[j->name] = j;
        const Inertial& in = inertial[i];
        if (in.mass == 0.0) continue;
        auto I = std::make_shared<urdf::Inertial>();
        I->origin = PoseOf(in.xyz, in.rpy);
        I->mass = in.mass;
        I->ixx = in.ixx, I->ixy = in.ixy, I->ixz = in.ixz, I->iyy = in.iyy, I->iyz = in.iyz, I->izz = in.izz;
        links[i + 1]->inertial = I;
    }
    auto flange = std::make_shared<urdf::Joint>();
    flange->name = "flange_joint";
    flange->type = urdf::Joint::FIXED;
    flange->parent_link_name = links[kJoints]->name;
    flange->child_link_name = links[kJoints + 1]->name;
    model.joints_[flange->name] = flange;
    for (int k = 0; k <= kJoints + 1; ++k) AddCylinder(links[k].get(), next[k], radius);
    try {
        std::map<std::string, std::string> parent_of;
        model.initTree(parent_of);
        model.initRoot(parent_of);
    } catch (const std::exception& e) {
        return Fail(std::string("the model is no tree: ") + e.what());
    }

    std::unique_ptr<TiXmlDocument> doc;
    {
        const std::locale previous = std::locale::global(std::locale(std::locale::classic(), new RoundTripNumbers));
        doc.reset(urdf::exportURDF(model));
        std::locale::global(previous);
    }
    TiXmlElement* robot = doc ? doc->RootElement() : nullptr;
    if (robot == nullptr) return Fail("urdfdom's exporter wrote no document");
    std::map<std::string, TiXmlElement*> element;  // links and joints by name (no name is both)
    for (TiXmlElement* e = robot->FirstChildElement(); e != nullptr; e = e->NextSiblingElement())
        if (const char* name = e->Attribute("name")) element[name] = e;
    // The exporter writes a rotation as the roll, pitch and yaw of its
    // quaternion, which can come back an ulp off the angles the frame was
    // made of: those angles are written instead.
    auto set_rpy = [&](const std::string& key, const char* inner, const double* angles) {
        TiXmlElement* e = element.count(key) ? element[key] : nullptr;
        if (e != nullptr && inner != nullptr) e = e->FirstChildElement(inner);
        if (e != nullptr) e = e->FirstChildElement("origin");
        if (e != nullptr) e->SetAttribute("rpy", Nums(angles, 3));
        return e != nullptr;
    };
    for (int i = 0; i < kJoints; ++i) {
        const std::string n = std::to_string(i + 1);
        if (!set_rpy("joint" + n, nullptr, rpy[i]) ||
            (inertial[i].mass != 0.0 && !set_rpy("link" + n, "inertial", inertial[i].rpy)))
            return Fail("urdfdom's exporter wrote no origin of joint " + n + " or link " + n);
        const std::string note = " alpha " + Num(kAlpha[i]) + ", a " + Num(g.a[i]) + " m, d " + Num(g.d[i]) +
                                 " m, offset " + Num(kOffset[i]) + "; actuator direction " + Num(direction[i]) +
                                 "; acceleration limit " + Num(acceleration[i] * kDegToRad) + " rad/s^2 ";
        TiXmlElement* joint = element["joint" + n];
        joint->InsertBeforeChild(joint->FirstChild(), TiXmlComment(note.c_str()));
    }
    std::ostringstream header;
    header << "\n"
           << "  Robot type " << db.type << " as the controller sees it (written by tql-urdf from parameter.db).\n"
           << "  Frames: link i is the controller's modified-DH frame i, joint i's origin\n"
           << "  Rx(alpha_i) Tx(a_i) Tz(d_i) Rz(offset_i), its axis z, its angle the controller's\n"
           << "  joint angle q_i; \"flange\" is the flange frame of the forward kinematics.\n"
           << "  Units: m, kg, kg*m^2, rad, rad/s, N*m. Position limits: the actuators' factory\n"
           << "  limits (parameter.db holds none); velocity: row 1; effort: the joint torque at\n"
           << "  the peak current of the joint's actuator (torque constant x peak current, the\n"
           << "  most the controller commands; parameter.db holds no torques).\n"
           << "  Shapes: one cylinder per link, visual and collision, of radius " << Num(radius) << " m\n"
           << "  from the link's origin to the next joint's (where that joint sits on the\n"
           << "  origin, and for the flange, 2 radii along the joint axis): a picture and a\n"
           << "  coarse collision body, not the arm's housing.\n"
           << note.str();
    doc->InsertBeforeChild(robot, TiXmlComment(header.str().c_str()));
    doc->InsertBeforeChild(doc->FirstChild(), TiXmlDeclaration("1.0", "", ""));
    TiXmlPrinter printer;
    printer.SetIndent("  ");
    doc->Accept(&printer);
    std::string text = printer.Str();
    if (text.empty() || text.back() != '\n') text += '\n';
    if (!WriteOutput(output, text, &error)) return Fail(error);
    return 0;
}
