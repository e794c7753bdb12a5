// The physical world of the simulated arm: a KDL chain built from a URDF file
// (urdfdom), inverse dynamics by recursive Newton-Euler, forward dynamics by
// the joint-space mass matrix. Without KDL, urdfdom or Eigen at configure time
// (TQL_SIM_PHYSICS undefined) every load fails and the bus stays kinematic.
#include "sim_world.h"

#include <cmath>

#ifdef TQL_SIM_PHYSICS
#include <console_bridge/console.h>
#include <urdf_parser/urdf_parser.h>

#include <Eigen/Dense>
#include <fstream>
#include <kdl/chain.hpp>
#include <kdl/chaindynparam.hpp>
#include <kdl/chainfksolverpos_recursive.hpp>
#include <kdl/chainidsolver_recursive_newton_euler.hpp>
#include <sstream>
#endif

namespace tqlsim {

#ifdef TQL_SIM_PHYSICS

namespace {

// Gravity along the base frame's -z (z up), m/s^2.
const KDL::Vector kGravity(0.0, 0.0, -9.80665);

KDL::Rotation ToRotation(const urdf::Rotation& r) { return KDL::Rotation::Quaternion(r.x, r.y, r.z, r.w); }

KDL::Frame ToFrame(const urdf::Pose& p) {
    return KDL::Frame(ToRotation(p.rotation), KDL::Vector(p.position.x, p.position.y, p.position.z));
}

// URDF gives the centre of mass as a pose in the link frame and the inertia
// about it along that pose's axes; the world keeps it along the link's axes:
// I_link = R * I * R^T.
LinkInertia ToLinkInertia(const urdf::Inertial& in) {
    const KDL::Rotation r = ToRotation(in.origin.rotation);
    const double c[3][3] = {{in.ixx, in.ixy, in.ixz}, {in.ixy, in.iyy, in.iyz}, {in.ixz, in.iyz, in.izz}};
    double out[3][3];
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j) {
            double s = 0.0;
            for (int k = 0; k < 3; ++k)
                for (int l = 0; l < 3; ++l) s += r(i, k) * c[k][l] * r(j, l);
            out[i][j] = s;
        }
    LinkInertia li;
    li.mass = in.mass;
    li.com[0] = in.origin.position.x;
    li.com[1] = in.origin.position.y;
    li.com[2] = in.origin.position.z;
    const double values[6] = {out[0][0], out[1][1], out[2][2], out[0][1], out[0][2], out[1][2]};
    for (int i = 0; i < 6; ++i) li.inertia[i] = values[i];
    return li;
}

// A link the forward dynamics can move: positive mass, positive-definite inertia.
bool Physical(const LinkInertia& li) {
    const double* I = li.inertia;  // xx yy zz xy xz yz
    const double minor2 = I[0] * I[1] - I[3] * I[3];
    const double det = I[0] * (I[1] * I[2] - I[5] * I[5]) - I[3] * (I[3] * I[2] - I[5] * I[4]) +
                       I[4] * (I[3] * I[5] - I[1] * I[4]);
    return li.mass > 0.0 && I[0] > 0.0 && minor2 > 0.0 && det > 0.0;
}

// KDL keeps a segment's inertia in its tip frame (the child link frame),
// built from the inertia about the centre of mass.
KDL::RigidBodyInertia ToKdl(const LinkInertia& li) {
    const double* I = li.inertia;
    return KDL::RigidBodyInertia(li.mass, KDL::Vector(li.com[0], li.com[1], li.com[2]),
                                 KDL::RotationalInertia(I[0], I[1], I[2], I[3], I[4], I[5]));
}

}  // namespace

struct World::Impl {
    KDL::Chain chain;
    std::vector<double> viscous, coulomb;
    std::vector<LinkInertia> links;
    bool friction = true;
    // The solvers keep a reference to `chain`: Impl never moves once built.
    std::unique_ptr<KDL::ChainIdSolver_RNE> id;
    std::unique_ptr<KDL::ChainDynParam> dyn;
    std::unique_ptr<KDL::ChainFkSolverPos_recursive> fk;
    std::vector<int> link_segment;  // the chain segment each actuated link is
    KDL::Wrenches wrenches;         // the contacts, per segment (its frame, about its origin)
    // Work space, sized once at load.
    KDL::JntArray jq, jdq, jddq, jtau;
    KDL::Wrenches no_wrenches;
    KDL::JntSpaceInertiaMatrix mass;
    Eigen::MatrixXd a;
    Eigen::VectorXd rhs, x;
    Eigen::LDLT<Eigen::MatrixXd> ldlt;

    bool Build(const urdf::ModelInterface& model, std::string* problem);
    void Allocate();
    // Adds a point mass (kg, at com in the link frame, m) to the last actuated link.
    void AddPayload(double mass, const KDL::Vector& com);
    // The contacts as KDL wants them: on each segment, in its frame at the
    // joint angles in jq, about its origin.
    const KDL::Wrenches& ContactWrenches(const std::vector<Contact>& contacts);
};

bool World::Impl::Build(const urdf::ModelInterface& model, std::string* problem) {
    urdf::LinkConstSharedPtr link = model.getRoot();
    if (!link) {
        *problem = "no root link";
        return false;
    }
    while (!link->child_joints.empty()) {
        if (link->child_joints.size() > 1) {
            *problem = "link " + link->name + " branches: not a serial chain";
            return false;
        }
        const urdf::JointSharedPtr& j = link->child_joints[0];
        urdf::LinkConstSharedPtr child = model.getLink(j->child_link_name);
        if (!child) {
            *problem = "joint " + j->name + " has no child link";
            return false;
        }
        const KDL::Frame origin = ToFrame(j->parent_to_joint_origin_transform);
        const LinkInertia li = child->inertial ? ToLinkInertia(*child->inertial) : LinkInertia();
        KDL::Joint joint(j->name, KDL::Joint::Fixed);
        if (j->type == urdf::Joint::REVOLUTE || j->type == urdf::Joint::CONTINUOUS) {
            KDL::Vector axis(j->axis.x, j->axis.y, j->axis.z);
            if (axis.Norm() < 1e-9 || !Physical(li)) {
                *problem = "joint " + j->name + ": no axis, or link " + child->name +
                           " without positive mass and inertia";
                return false;
            }
            axis.Normalize();
            // Turns about the axis through the joint origin: child frame = origin * Rot(axis, q).
            joint = KDL::Joint(j->name, origin.p, origin.M * axis, KDL::Joint::RotAxis);
            link_segment.push_back(static_cast<int>(chain.getNrOfSegments()));
            viscous.push_back(j->dynamics ? j->dynamics->damping : 0.0);
            coulomb.push_back(j->dynamics ? j->dynamics->friction : 0.0);
            links.push_back(li);
        } else if (j->type != urdf::Joint::FIXED) {
            *problem = "joint " + j->name + ": only revolute, continuous and fixed joints are supported";
            return false;
        }
        chain.addSegment(KDL::Segment(child->name, joint, origin, ToKdl(li)));
        link = child;
    }
    if (links.empty()) {
        *problem = "no revolute joint";
        return false;
    }
    return true;
}

void World::Impl::AddPayload(double mass, const KDL::Vector& com) {
    KDL::Chain with;
    const unsigned last = static_cast<unsigned>(link_segment.back());
    for (unsigned k = 0; k < chain.getNrOfSegments(); ++k) {
        const KDL::Segment& s = chain.getSegment(k);
        if (k != last) {
            with.addSegment(s);
            continue;
        }
        // A point mass: no inertia about its own centre.
        with.addSegment(KDL::Segment(s.getName(), s.getJoint(), s.getFrameToTip(),
                                     s.getInertia() + KDL::RigidBodyInertia(mass, com)));
    }
    chain = with;
}

void World::Impl::Allocate() {
    const unsigned n = chain.getNrOfJoints();
    id.reset(new KDL::ChainIdSolver_RNE(chain, kGravity));
    dyn.reset(new KDL::ChainDynParam(chain, kGravity));
    fk.reset(new KDL::ChainFkSolverPos_recursive(chain));
    wrenches.assign(chain.getNrOfSegments(), KDL::Wrench::Zero());
    jq.resize(n);
    jdq.resize(n);
    jddq.resize(n);
    jtau.resize(n);
    no_wrenches.assign(chain.getNrOfSegments(), KDL::Wrench::Zero());
    mass.resize(n);
    a.resize(n, n);
    rhs.resize(n);
    x.resize(n);
    // Factorising once sizes the decomposition's storage, so the steps never
    // allocate (and no half-built decomposition is ever copied).
    a.setIdentity();
    ldlt.compute(a);
}

const KDL::Wrenches& World::Impl::ContactWrenches(const std::vector<Contact>& contacts) {
    if (contacts.empty()) return no_wrenches;
    for (KDL::Wrench& f : wrenches) f = KDL::Wrench::Zero();
    KDL::Frame frame;
    for (const Contact& c : contacts) {
        if (c.link < 0 || c.link >= static_cast<int>(link_segment.size())) continue;
        const int segment = link_segment[c.link];
        fk->JntToCart(jq, frame, segment + 1);
        const KDL::Vector force = frame.M.Inverse(KDL::Vector(c.force[0], c.force[1], c.force[2]));
        const KDL::Vector at = frame.Inverse(KDL::Vector(c.point[0], c.point[1], c.point[2]));
        wrenches[segment] += KDL::Wrench(force, at * force);
    }
    return wrenches;
}

bool World::Built() { return true; }

bool World::Load(const std::string& path, std::string* problem, double payload_kg, const double* payload_com) {
    Clear();
    std::ifstream in(path, std::ios::binary);
    std::stringstream text;
    if (!in || !(text << in.rdbuf())) {
        *problem = "cannot read the file";
        return false;
    }
    // urdfdom reports through console_bridge; the bus reports for itself.
    console_bridge::noOutputHandler();
    const urdf::ModelInterfaceSharedPtr model = urdf::parseURDF(text.str());
    console_bridge::restorePreviousOutputHandler();
    if (!model) {
        *problem = "not a valid URDF";
        return false;
    }
    std::unique_ptr<Impl> impl(new Impl);
    if (!impl->Build(*model, problem)) return false;
    if (payload_kg > 0.0 && payload_com != nullptr)
        impl->AddPayload(payload_kg, KDL::Vector(payload_com[0], payload_com[1], payload_com[2]));
    impl->Allocate();
    const size_t n = impl->links.size();
    impl_ = std::move(impl);
    q_.assign(n, 0.0);
    dq_.assign(n, 0.0);
    ddq_.assign(n, 0.0);
    drive_.assign(n, JointDrive());
    return true;
}

double World::viscous(int i) const { return impl_->viscous[i]; }
double World::coulomb(int i) const { return impl_->coulomb[i]; }
LinkInertia World::link(int i) const { return impl_->links[i]; }
void World::set_friction(bool on) {
    if (impl_) impl_->friction = on;
}

void World::LinkPoints(const double* q, double* points) const {
    Impl& w = *impl_;
    const int n = joints();
    KDL::JntArray jq(n);
    for (int i = 0; i < n; ++i) jq(i) = q[i];
    KDL::Frame frame;
    for (int i = 0; i <= n; ++i) {
        const int segments = i < n ? w.link_segment[i] + 1 : static_cast<int>(w.chain.getNrOfSegments());
        w.fk->JntToCart(jq, frame, segments);
        for (int k = 0; k < 3; ++k) points[3 * i + k] = frame.p(k);
    }
}

void World::InverseDynamics(const double* q, const double* dq, const double* ddq, double* tau) {
    Impl& w = *impl_;
    const int n = joints();
    for (int i = 0; i < n; ++i) {
        w.jq(i) = q[i];
        w.jdq(i) = dq[i];
        w.jddq(i) = ddq[i];
    }
    w.id->CartToJnt(w.jq, w.jdq, w.jddq, w.ContactWrenches(contacts_), w.jtau);
    for (int i = 0; i < n; ++i) {
        tau[i] = w.jtau(i);
        if (!w.friction) continue;
        const double v = dq[i];
        tau[i] += w.viscous[i] * v;
        if (std::fabs(v) > kCoulombDeadBand) tau[i] += std::copysign(w.coulomb[i], v);
    }
}

void World::Accelerations(double h, double* ddq) {
    Impl& w = *impl_;
    const int n = joints();
    for (int i = 0; i < n; ++i) {
        w.jq(i) = q_[i];
        w.jdq(i) = drive_[i].free ? dq_[i] : 0.0;  // locked joints stand still
        w.jddq(i) = 0.0;
    }
    // Gravity, Coriolis and centrifugal torques at zero acceleration, less
    // what the contacts push.
    w.id->CartToJnt(w.jq, w.jdq, w.jddq, w.ContactWrenches(contacts_), w.jtau);
    w.dyn->JntToMass(w.jq, w.mass);
    w.a = w.mass.data;
    // A locked joint's row and column become the identity with right side 0,
    // so one fixed-size solve gives the free joints' accelerations and 0 for
    // the locked ones (M_FF is what remains coupled).
    for (int i = 0; i < n; ++i) {
        if (drive_[i].free) continue;
        w.a.row(i).setZero();
        w.a.col(i).setZero();
        w.a(i, i) = 1.0;
        w.rhs(i) = 0.0;
    }
    for (int i = 0; i < n; ++i) {
        const JointDrive& d = drive_[i];
        if (!d.free) continue;
        const double v = dq_[i];
        const double b = w.friction ? w.viscous[i] : 0.0;
        const double fc = w.friction ? w.coulomb[i] : 0.0;
        const double th = std::tanh(v / kCoulombWidth);
        // Damping torque -D*v at the step's end rate v + h*ddq, linearised:
        // the rate-derivative D goes into the matrix.
        const double damping = b + d.hand_b + fc / kCoulombWidth * (1.0 - th * th);
        w.rhs(i) = d.motor - w.jtau(i) - (b + d.hand_b) * v - fc * th +
                   d.hand_k * (d.hand_target - q_[i] - h * v);
        w.a(i, i) += h * damping + h * h * d.hand_k;
    }
    w.ldlt.compute(w.a);
    w.x = w.ldlt.solve(w.rhs);
    for (int i = 0; i < n; ++i) ddq[i] = drive_[i].free ? w.x(i) : 0.0;
}

void World::Step(double h) {
    const int n = joints();
    bool any_free = false;
    for (int i = 0; i < n; ++i) any_free = any_free || drive_[i].free;
    if (any_free) Accelerations(h, ddq_.data());
    for (int i = 0; i < n; ++i) {
        const JointDrive& d = drive_[i];
        if (!d.free) {
            dq_[i] = 0.0;
            continue;
        }
        dq_[i] += h * ddq_[i];
        q_[i] += h * dq_[i];
        if (q_[i] > d.upper || q_[i] < d.lower) {
            q_[i] = q_[i] > d.upper ? d.upper : d.lower;
            dq_[i] = 0.0;
        }
    }
}

#else  // built without the physics libraries: the world never loads

struct World::Impl {};

bool World::Built() { return false; }

bool World::Load(const std::string&, std::string* problem, double, const double*) {
    Clear();
    *problem = "built without KDL and urdfdom";
    return false;
}

double World::viscous(int) const { return 0.0; }
double World::coulomb(int) const { return 0.0; }
LinkInertia World::link(int) const { return LinkInertia(); }
void World::set_friction(bool) {}
void World::InverseDynamics(const double*, const double*, const double*, double* tau) {
    for (int i = 0; i < joints(); ++i) tau[i] = 0.0;
}
void World::Accelerations(double, double* ddq) {
    for (int i = 0; i < joints(); ++i) ddq[i] = 0.0;
}
void World::Step(double) {}
void World::LinkPoints(const double*, double* points) const {
    for (int i = 0; i <= joints(); ++i) points[3 * i] = points[3 * i + 1] = points[3 * i + 2] = 0.0;
}

#endif

World::World() = default;
World::~World() = default;

void World::Clear() {
    impl_.reset();
    q_.clear();
    dq_.clear();
    ddq_.clear();
    drive_.clear();
}

bool World::loaded() const { return impl_ != nullptr; }
int World::joints() const { return static_cast<int>(q_.size()); }

}  // namespace tqlsim
