// The simulated arm's physical world: a serial chain of rigid links read from
// a URDF file, with gravity and joint friction (Orocos KDL underneath).
//
// Frames and units: joint i turns link i about its own z axis; link i's frame
// is the URDF child link frame of joint i (the controller's modified-DH frame
// i for the demo arm). Joint angles in radians (the controller's user-zero
// angles), rates in rad/s, torques in N*m, masses in kg, lengths in m. Gravity
// is 9.80665 m/s^2 along the base frame's -z.
//
// The header does not depend on KDL, urdfdom or Eigen: the bus builds without
// them (World::Built() is then false and Load always fails).
#ifndef TQL_SIM_WORLD_H
#define TQL_SIM_WORLD_H

#include <memory>
#include <string>
#include <vector>

namespace tqlsim {

// Mass properties of one link in its own frame.
struct LinkInertia {
    double mass = 0.0;                // kg
    double com[3] = {0.0, 0.0, 0.0};  // centre of mass, m
    // Inertia tensor about the centre of mass, axes of the link frame, kg*m^2:
    // xx, yy, zz, xy, xz, yz.
    double inertia[6] = {0.0, 0.0, 0.0, 0.0, 0.0, 0.0};
};

// An external force on one link: where it acts and how hard (base frame, m
// and N). Contacts act in both directions of the dynamics: the inverse
// dynamics' torques are then what holds the arm's motion against them, the
// forward dynamics' accelerations what they push the free arm into.
struct Contact {
    int link = 0;  // actuated link, 0-based (moved by joint `link`)
    double point[3] = {0.0, 0.0, 0.0};
    double force[3] = {0.0, 0.0, 0.0};
};

// Per-joint inputs of the forward dynamics, set by the bus before each step.
struct JointDrive {
    bool free = false;        // false: locked (brake or position control), rate 0
    double motor = 0.0;       // actuator torque on the joint, N*m
    double hand_k = 0.0;      // operator's hand: spring, N*m/rad (0 = not held)
    double hand_b = 0.0;      // and damper, N*m*s/rad
    double hand_target = 0.0;  // rad
    double lower = -1e300;    // hard stops, rad
    double upper = 1e300;
};

class World {
public:
    // Width of the Coulomb friction's smooth sign, tanh(dq / kCoulombWidth),
    // in the forward dynamics (rad/s).
    static constexpr double kCoulombWidth = 0.002;
    // Below this rate (rad/s) the inverse dynamics' Coulomb friction is 0.
    static constexpr double kCoulombDeadBand = 1e-5;

    World();
    ~World();
    World(const World&) = delete;
    World& operator=(const World&) = delete;

    // True when the bus was built with the physics libraries.
    static bool Built();

    // Reads a URDF file: a serial chain from the root link, revolute or
    // continuous joints (fixed joints allowed in between). False with a reason
    // in *problem, leaving the world empty.
    // A payload (kg; centre of mass in m, in the last joint's link frame,
    // which is the flange frame) is carried as a point mass on that link.
    bool Load(const std::string& path, std::string* problem, double payload_kg = 0.0,
              const double* payload_com = nullptr);
    void Clear();
    bool loaded() const;
    int joints() const;  // actuated joints, 0 when empty

    // What the file gives joint i (0-based) and its child link.
    double viscous(int i) const;  // N*m*s/rad
    double coulomb(int i) const;  // N*m
    LinkInertia link(int i) const;

    // Friction on (as loaded) or off, in both directions of the dynamics.
    void set_friction(bool on);

    // Joint torques that move the arm along (q, dq, ddq): rigid body and
    // gravity, plus viscous b*dq and Coulomb fc*sign(dq) (dead band
    // kCoulombDeadBand). Arrays of joints() entries. No allocation.
    void InverseDynamics(const double* q, const double* dq, const double* ddq, double* tau);

    // The contacts acting from now on (none: cleared).
    void SetContacts(const std::vector<Contact>& contacts) { contacts_ = contacts; }
    const std::vector<Contact>& contacts() const { return contacts_; }
    // The origins of the actuated links' frames (each turning about its
    // joint) and of the chain's tip, at joint angles q: joints() + 1 points
    // of three coordinates (base frame, m).
    void LinkPoints(const double* q, double* points) const;

    // State (joints() entries each, writable) and inputs of the forward dynamics.
    double* q() { return q_.data(); }
    double* dq() { return dq_.data(); }
    const double* q() const { return q_.data(); }
    const double* dq() const { return dq_.data(); }
    JointDrive* drive() { return drive_.data(); }

    // Accelerations of the free joints at the present state (locked joints:
    // 0, and their rates taken as 0). The damping terms (viscous, the hand's
    // damper, the Coulomb friction's slope) and the hand's spring are taken at
    // the end of a step of h seconds (h = 0: all explicit):
    //   (M_FF + h*D + h^2*K) ddq_F = tau_F - bias_F - damping_F - K*(q - target + h*dq)
    // No allocation.
    void Accelerations(double h, double* ddq);
    // One semi-implicit Euler step of h seconds (rate first, then angle);
    // a free joint reaching a hard stop stays there with rate 0.
    void Step(double h);

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
    std::vector<double> q_, dq_, ddq_;
    std::vector<JointDrive> drive_;
    std::vector<Contact> contacts_;
};

}  // namespace tqlsim

#endif  // TQL_SIM_WORLD_H
