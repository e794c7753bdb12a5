// The bus's side of the physical world: which actuator drives which joint,
// unit conversions, the current readings (inverse dynamics of the commanded
// motion, or the commanded current, plus seeded noise), the forward dynamics
// of current mode on the bus clock, and the scripted operator hand.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <limits>

#include "sim_bus.h"

namespace tqlsim {
namespace {

constexpr double kTwoPi = 6.283185307179586;
constexpr double kDegree = kTwoPi / 360.0;
// Longest integration step of the forward dynamics, s.
constexpr double kSubstep = 0.001;
// Hard stops of an actuator whose limits are unusable (min > max).
constexpr double kNoStop = 1e300;

double ToJoint(const Drive& d, double raw) { return raw * d.direction / d.reduction_ratio * kTwoPi; }
double ToRaw(const Drive& d, double q) { return q / kTwoPi * d.reduction_ratio * d.direction; }

bool Free(const SimActuator& a) { return Moving(a) && a.mode == Actuator::Mode_Cur && a.current_received; }

// The commanded motion of a position-mode actuator (raw rev/s and rev/s^2):
// backward differences of its last set-points; at rest when the newest is
// older than the motion hold. Gaps under one period count as one period.
void CommandedMotion(const SimActuator& a, double now, double* rate, double* acc) {
    *rate = *acc = 0.0;
    if (now - a.applied_time[0] > kMotionHold + 1e-12) return;
    const double h1 = std::max(a.applied_time[0] - a.applied_time[1], kPeriod);
    const double h2 = std::max(a.applied_time[1] - a.applied_time[2], kPeriod);
    const double v1 = (a.applied_raw[0] - a.applied_raw[1]) / h1;
    const double v2 = (a.applied_raw[1] - a.applied_raw[2]) / h2;
    *rate = v1;
    *acc = (v1 - v2) / (0.5 * (h1 + h2));
}

// The point of segment a-b nearest to c, as the fraction along it.
double Nearest(const double* a, const double* b, const double* c) {
    double ab2 = 0.0, t = 0.0;
    for (int k = 0; k < 3; ++k) {
        ab2 += (b[k] - a[k]) * (b[k] - a[k]);
        t += (c[k] - a[k]) * (b[k] - a[k]);
    }
    return ab2 > 0.0 ? std::clamp(t / ab2, 0.0, 1.0) : 0.0;
}

// How deep a ball of radius r at p reaches into obstacle o (m, > 0 when it
// does) and the unit normal pushing it out.
double Depth(const Obstacle& o, const double* p, double r, double* normal) {
    if (!o.box) {
        double d[3], len = 0.0;
        for (int k = 0; k < 3; ++k) {
            d[k] = p[k] - o.centre[k];
            len += d[k] * d[k];
        }
        len = std::sqrt(len);
        for (int k = 0; k < 3; ++k) normal[k] = len > 0.0 ? d[k] / len : (k == 2 ? 1.0 : 0.0);
        return o.size[0] + r - len;
    }
    // Box: outside, from the nearest point of its surface; inside, out of
    // the nearest face.
    double outside[3], out2 = 0.0, inside = HUGE_VAL;
    int face = 2;
    for (int k = 0; k < 3; ++k) {
        const double half = 0.5 * o.size[k], rel = p[k] - o.centre[k];
        outside[k] = rel - std::clamp(rel, -half, half);
        out2 += outside[k] * outside[k];
        if (half - std::fabs(rel) < inside) inside = half - std::fabs(rel), face = k;
    }
    if (out2 > 0.0) {
        const double len = std::sqrt(out2);
        for (int k = 0; k < 3; ++k) normal[k] = outside[k] / len;
        return r - len;
    }
    for (int k = 0; k < 3; ++k) normal[k] = 0.0;
    normal[face] = p[face] >= o.centre[face] ? 1.0 : -1.0;
    return r + inside;
}

}  // namespace

namespace {

// The link (capsule) that reaches deepest into obstacle o, with the points
// of the chain's links (3 per joint and the flange): its index (-1 for none),
// the depth (m), the unit normal pushing it out and the touching point.
int Deepest(const Obstacle& o, const double* points, int n, double r, double* depth, double* normal, double* at) {
    int link = -1;
    double best = 0.0;
    for (int i = 0; i < n; ++i) {
        const double* a = &points[3 * i];
        const double* b = &points[3 * (i + 1)];
        // The capsule's deepest point: nearest the sphere's centre, or the
        // deepest of nine along the link for a box.
        for (int s = 0; s <= (o.box ? 8 : 0); ++s) {
            const double u = o.box ? s / 8.0 : Nearest(a, b, o.centre);
            double point[3], nrm[3];
            for (int c = 0; c < 3; ++c) point[c] = a[c] + u * (b[c] - a[c]);
            const double d = Depth(o, point, r, nrm);
            if (d < best || (d == best && link >= 0 && d > 0.0 && i < link)) continue;
            if (!(d > 0.0)) continue;
            best = d;
            link = i;
            for (int c = 0; c < 3; ++c) normal[c] = nrm[c], at[c] = point[c] - r * nrm[c];
        }
    }
    *depth = best;
    return link;
}

}  // namespace

void UpdateContacts(Bus& bus, const double* q, const double* dq, double now) {
    Physics& p = bus.physics;
    const std::vector<Obstacle>& obstacles = bus.config.obstacles;
    if (obstacles.empty() || !p.world.loaded()) return;
    const int n = p.world.joints();
    p.link_points.resize(3 * static_cast<size_t>(n + 1));
    p.world.LinkPoints(q, p.link_points.data());
    // The depth's rate from the joints' rates (a short step along them), not
    // from the depths of earlier readings, which come microseconds apart on
    // the real clock (a link's first touch then spiked the damping force) and
    // at the same instant on the virtual one.
    constexpr double kAhead = 1e-4;  // s
    if (dq != nullptr) {
        p.link_points_ahead.resize(p.link_points.size());
        p.q_ahead.resize(static_cast<size_t>(n));
        for (int j = 0; j < n; ++j) p.q_ahead[j] = q[j] + kAhead * dq[j];
        p.world.LinkPoints(p.q_ahead.data(), p.link_points_ahead.data());
    }
    const double r = bus.config.link_radius;
    std::vector<Contact>& contacts = p.contacts;
    contacts.clear();
    // Each obstacle pushes the one link that reaches deepest into it (the
    // capsules overlap at the joints: a contact there is one contact).
    for (const Obstacle& o : obstacles) {
        double depth = 0.0, normal[3] = {0.0, 0.0, 1.0}, at[3] = {0.0, 0.0, 0.0}, unused[3];
        const int link = Deepest(o, p.link_points.data(), n, r, &depth, normal, at);
        if (link < 0) continue;
        double ahead = depth;  // at rest: the spring's force alone
        if (dq != nullptr) Deepest(o, p.link_points_ahead.data(), n, r, &ahead, unused, unused);
        const double push = std::max(o.stiffness * depth + o.damping * (ahead - depth) / kAhead, 0.0);
        Contact contact;
        contact.link = link;
        for (int c = 0; c < 3; ++c) contact.point[c] = at[c], contact.force[c] = push * normal[c];
        contacts.push_back(contact);
        if (now > p.contacts_recorded) bus.recorder.Row(now, link + 1, 0, "contact", push);
    }
    if (!contacts.empty()) p.contacts_recorded = now;
    p.world.SetContacts(contacts);
}

double ExternalTorque(const Physics& p, int j, double t) {
    double torque = 0.0;
    for (const TorquePulse& pulse : p.pulses)
        if (pulse.joint == j && t >= pulse.at && t < pulse.at + pulse.duration) torque += pulse.torque;
    return torque;
}

namespace {

// Inverse dynamics of every joint's commanded motion, once per bus time and
// command generation, against the contacts there.
void UpdateReadings(Bus& bus, double now) {
    Physics& p = bus.physics;
    if (p.cache_time == now && p.cache_generation == p.generation) return;
    for (const SimActuator& a : bus.actuators) {
        const int j = a.joint;
        const Drive& d = p.drive[j];
        double rate = 0.0, acc = 0.0;  // raw rev/s, rev/s^2 (converted like positions)
        if (Moving(a) && a.mode == Actuator::Mode_Pos) CommandedMotion(a, now, &rate, &acc);
        if (Moving(a) && a.mode == Actuator::Mode_Vel) rate = LiveVelocity(bus, a, now) / 60.0;
        p.q[j] = ToJoint(d, a.raw_position);
        p.dq[j] = Free(a) ? p.world.dq()[j] : ToJoint(d, rate);
        p.ddq[j] = ToJoint(d, acc);
    }
    // A link in position mode stands at its set-point between set-points
    // (the drive reaches each within its period): its contact is the
    // spring's alone. A free link's is damped at the world's rate.
    bool any_free = false;
    p.contact_dq.assign(p.dq.size(), 0.0);
    for (const SimActuator& a : bus.actuators)
        if (Free(a)) p.contact_dq[a.joint] = p.dq[a.joint], any_free = true;
    UpdateContacts(bus, p.q.data(), any_free ? p.contact_dq.data() : nullptr, now);
    p.world.InverseDynamics(p.q.data(), p.dq.data(), p.ddq.data(), p.tau.data());
    for (size_t j = 0; j < p.tau.size(); ++j) p.tau[j] -= ExternalTorque(p, static_cast<int>(j), now);
    for (const SimActuator& a : bus.actuators) {
        const Drive& d = p.drive[a.joint];
        p.cached_current[a.joint] = p.tau[a.joint] / (d.torque_constant * d.direction);
    }
    p.cache_time = now;
    p.cache_generation = p.generation;
}

double Noise(Physics& p, int j) {
    const Drive& d = p.drive[j];
    const double sd = d.current_noise * d.peak_current;
    return sd > 0.0 ? sd * p.gauss[j](p.rng[j]) : 0.0;
}

// The hand's targets at `t` seconds after its origin into the joints' drive
// inputs (spring and damper 0 where it does not hold).
void ApplyHand(Physics& p, double t) {
    JointDrive* drive = p.world.drive();
    const int n = p.world.joints();
    const std::vector<HandRow>& rows = p.hand;
    const bool holding = !rows.empty() && p.hand_origin >= 0.0 && t >= rows.front().time && t <= rows.back().time;
    if (!holding) {
        for (int j = 0; j < n; ++j) drive[j].hand_k = drive[j].hand_b = 0.0;
        return;
    }
    if (rows[p.hand_row].time > t) p.hand_row = 0;
    while (p.hand_row + 1 < rows.size() && rows[p.hand_row + 1].time <= t) ++p.hand_row;
    const HandRow& r0 = rows[p.hand_row];
    const HandRow& r1 = rows[std::min(p.hand_row + 1, rows.size() - 1)];
    const double u = r1.time > r0.time ? (t - r0.time) / (r1.time - r0.time) : 1.0;
    // A person's hand moves from pose to pose smoothly, starting and ending at
    // rest (the minimum-jerk timing), not at a speed that jumps at each pose.
    const double s = u * u * u * (10.0 + u * (-15.0 + 6.0 * u));
    for (int j = 0; j < n; ++j) {
        const double target = r0.target[j] + s * (r1.target[j] - r0.target[j]);
        const bool held = std::isfinite(target);
        drive[j].hand_k = held ? p.drive[j].hand_stiffness : 0.0;
        drive[j].hand_b = held ? p.drive[j].hand_damping : 0.0;
        drive[j].hand_target = held ? target : 0.0;
    }
}

std::string Trim(const std::string& s) {
    const size_t b = s.find_first_not_of(" \t\r\n");
    if (b == std::string::npos) return "";
    return s.substr(b, s.find_last_not_of(" \t\r\n") - b + 1);
}

bool ParseField(const std::string& text, double* out) {
    char* end = nullptr;
    *out = std::strtod(text.c_str(), &end);
    return !text.empty() && *end == '\0' && std::isfinite(*out);
}

// The hand's CSV: "time,target1,...,targetN" rows (seconds, degrees; an empty
// target: not held), '#' comment lines, one header line before the rows.
bool ReadHand(const std::string& path, int joints, std::vector<HandRow>* rows, std::string* problem) {
    std::ifstream in(path);
    if (!in) {
        *problem = "cannot read the file";
        return false;
    }
    std::string line;
    int line_no = 0;
    bool header_allowed = true;
    while (std::getline(in, line)) {
        ++line_no;
        line = Trim(line);
        if (line.empty() || line[0] == '#') continue;
        std::vector<std::string> fields;
        size_t start = 0;
        for (size_t comma; (comma = line.find(',', start)) != std::string::npos; start = comma + 1)
            fields.push_back(Trim(line.substr(start, comma - start)));
        fields.push_back(Trim(line.substr(start)));
        HandRow row;
        bool ok = static_cast<int>(fields.size()) == joints + 1 && ParseField(fields[0], &row.time);
        for (size_t k = 1; ok && k < fields.size(); ++k) {
            double deg = std::numeric_limits<double>::quiet_NaN();
            ok = fields[k].empty() || ParseField(fields[k], &deg);
            row.target.push_back(deg * kDegree);
        }
        if (!ok && header_allowed && rows->empty()) {
            header_allowed = false;
            continue;
        }
        if (!ok || (!rows->empty() && row.time < rows->back().time)) {
            *problem = "line " + std::to_string(line_no) + ": expected time,target1,...,target" +
                       std::to_string(joints) + " with times in order";
            return false;
        }
        rows->push_back(row);
    }
    if (rows->empty()) {
        *problem = "no rows";
        return false;
    }
    return true;
}

}  // namespace

const Drive& Config::DriveOf(uint8_t id) const {
    auto it = drive_per_id.find(id);
    return it == drive_per_id.end() ? drive : it->second;
}

void LoadPhysics(Bus& bus) {
    Physics& p = bus.physics;
    p.world.Clear();
    p.drive.clear();
    p.hand.clear();
    p.hand_row = 0;
    p.hand_origin = -1.0;
    p.pulses.clear();
    p.contacts_recorded = -1.0;
    p.time = BusNow();
    p.cache_time = -1.0;
    for (SimActuator& a : bus.actuators) a.joint = -1;
    // Without the physics libraries (the board's cross build) the arm is
    // kinematic whatever the configuration says, silently.
    if (bus.config.urdf_path.empty() || !World::Built()) return;

    const std::string path = InDirectory(bus.directory, bus.config.urdf_path);
    std::string problem;
    if (!p.world.Load(path, &problem, bus.config.payload_kg, bus.config.payload_com)) {
        std::fprintf(stderr, "sim: %s: %s; running without physics\n", path.c_str(), problem.c_str());
        return;
    }
    const size_t n = static_cast<size_t>(p.world.joints());
    if (n != bus.actuators.size()) {
        std::fprintf(stderr, "sim: %s has %zu revolute joints for %zu actuators; running without physics\n",
                     path.c_str(), n, bus.actuators.size());
        p.world.Clear();
        return;
    }
    // The k-th actuator in id order drives world joint k.
    std::vector<SimActuator*> by_id;
    for (SimActuator& a : bus.actuators) by_id.push_back(&a);
    std::sort(by_id.begin(), by_id.end(), [](const SimActuator* x, const SimActuator* y) { return x->id < y->id; });
    p.drive.resize(n);
    p.rng.resize(n);
    p.gauss.assign(n, std::normal_distribution<double>(0.0, 1.0));
    p.was_free.assign(n, 0);
    p.synced_raw.assign(n, 0.0);
    p.cached_current.assign(n, 0.0);
    for (std::vector<double>* v : {&p.q, &p.dq, &p.ddq, &p.tau}) v->assign(n, 0.0);
    for (size_t j = 0; j < n; ++j) {
        SimActuator& a = *by_id[j];
        a.joint = static_cast<int>(j);
        p.drive[j] = bus.config.DriveOf(a.id);
        const unsigned long long seed = static_cast<unsigned long long>(p.drive[j].noise_seed);
        std::seed_seq seq{static_cast<unsigned>(seed & 0xffffffffu), static_cast<unsigned>(seed >> 32),
                          static_cast<unsigned>(a.id)};
        p.rng[j].seed(seq);
        p.world.q()[j] = ToJoint(p.drive[j], a.raw_position);
        p.synced_raw[j] = a.raw_position;
    }
    if (!bus.config.hand_path.empty()) {
        const std::string hand = InDirectory(bus.directory, bus.config.hand_path);
        if (!ReadHand(hand, static_cast<int>(n), &p.hand, &problem)) {
            std::fprintf(stderr, "sim: %s: %s; no hand\n", hand.c_str(), problem.c_str());
            p.hand.clear();
        }
    }
}

void NoteCurrentMode(Bus& bus, double now) {
    if (bus.physics.hand_origin < 0.0) bus.physics.hand_origin = now;
}

void AdvanceWorld(Bus& bus, double now) {
    Physics& p = bus.physics;
    if (!p.world.loaded()) return;
    World& w = p.world;
    JointDrive* drive = w.drive();
    bool any_free = false;
    for (const SimActuator& a : bus.actuators) {
        const int j = a.joint;
        const Drive& d = p.drive[j];
        const bool free = Free(a);
        // Locked joints stand where their actuators are; a joint set free
        // starts from rest there, as does one pushed by tql_sim_set_position.
        if (!free || !p.was_free[j] || a.raw_position != p.synced_raw[j]) {
            w.q()[j] = ToJoint(d, a.raw_position);
            w.dq()[j] = 0.0;
            p.synced_raw[j] = a.raw_position;
        }
        p.was_free[j] = free;
        any_free = any_free || free;
        drive[j].free = free;
        drive[j].motor = a.current_command * d.torque_constant * d.direction;  // within the peak already
        if (a.live.min_position <= a.live.max_position) {
            const double lo = ToJoint(d, a.live.min_position + a.homing_offset);
            const double hi = ToJoint(d, a.live.max_position + a.homing_offset);
            drive[j].lower = std::min(lo, hi);
            drive[j].upper = std::max(lo, hi);
        } else {
            drive[j].lower = -kNoStop;
            drive[j].upper = kNoStop;
        }
    }
    const double elapsed = now - p.time;
    if (!(elapsed > 0.0)) return;
    p.time = now;
    if (!any_free) return;
    // The whole interval since the last bus call, in equal steps of at most kSubstep.
    const double steps = std::ceil(elapsed / kSubstep - 1e-9);
    const double h = elapsed / steps;
    const double start = now - elapsed;
    if (p.hand.empty()) ApplyHand(p, -1.0);  // no hand: springs and dampers off
    for (double s = 0.0; s < steps; s += 1.0) {
        if (!p.hand.empty()) ApplyHand(p, start + s * h - p.hand_origin);
        UpdateContacts(bus, w.q(), w.dq(), start + s * h);
        for (const SimActuator& a : bus.actuators)
            drive[a.joint].motor = a.current_command * p.drive[a.joint].torque_constant * p.drive[a.joint].direction +
                                   ExternalTorque(p, a.joint, start + s * h);
        w.Step(h);
    }
    for (SimActuator& a : bus.actuators) {
        if (!Free(a)) continue;
        a.raw_position = ToRaw(p.drive[a.joint], w.q()[a.joint]);
        p.synced_raw[a.joint] = a.raw_position;
    }
    ++p.generation;
}

double LiveCurrent(Bus& bus, const SimActuator& a, double now) {
    if (!Moving(a)) return 0.0;
    Physics& p = bus.physics;
    if (!p.world.loaded()) return a.mode == Actuator::Mode_Cur ? a.current_command : 0.0;
    double amps = a.current_command;
    if (a.mode != Actuator::Mode_Cur) {
        UpdateReadings(bus, now);
        // A drive delivers at most its peak (beyond it, it trips: setPosition).
        const double peak = p.drive[a.joint].peak_current;
        amps = std::clamp(p.cached_current[a.joint], -peak, peak);
    }
    return amps + Noise(p, a.joint);
}

double HoldingCurrent(Bus& bus, const SimActuator& a, double now) {
    UpdateReadings(bus, now);
    return bus.physics.cached_current[a.joint];
}

double WorldRpm(const Bus& bus, const SimActuator& a) {
    const Physics& p = bus.physics;
    if (!p.world.loaded() || !Free(a)) return 0.0;
    // rad/s at the joint to rpm at the actuator.
    return ToRaw(p.drive[a.joint], p.world.dq()[a.joint]) * 60.0;
}

double JointAngle(const Bus& bus, const SimActuator& a) {
    const Physics& p = bus.physics;
    if (p.world.loaded()) return p.world.q()[a.joint];
    return ToJoint(bus.config.DriveOf(a.id), a.raw_position);
}

}  // namespace tqlsim
