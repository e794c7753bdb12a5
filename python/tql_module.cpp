// Python module "tql": the arm's kinematics, the jerk-limited speed profile,
// the dynamic model, trajectory files and the parameter database over numpy
// arrays. Every array argument is checked for its shape before the library
// reads it; library failures become Python exceptions carrying the
// library's own message (its console output during the call is captured).
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "database.h"
#include "dynamics.h"
#include "interpolation.h"
#include "kinematics.h"
#include "mechnical_unit.h"
#include "speed_profile.h"

namespace py = pybind11;

namespace {

using Array = py::array_t<double, py::array::c_style | py::array::forcecast>;

// ---- argument checks

std::string ShapeText(const Array& a) {
    std::string s = "(";
    for (py::ssize_t i = 0; i < a.ndim(); ++i) s += (i ? ", " : "") + std::to_string(a.shape(i));
    return s + (a.ndim() == 1 ? ",)" : ")");
}

// A float64 copy-or-view of `obj` with exactly `n` entries in one dimension.
Array Vector(const py::handle& obj, py::ssize_t n, const char* what) {
    Array a = Array::ensure(obj);
    if (!a) throw py::value_error(std::string(what) + " must be an array of numbers");
    if (a.ndim() != 1 || a.shape(0) != n)
        throw py::value_error(std::string(what) + " must have shape (" + std::to_string(n) + ",), got " +
                              ShapeText(a));
    return a;
}

Array Matrix(const py::handle& obj, py::ssize_t rows, py::ssize_t cols, const char* what) {
    Array a = Array::ensure(obj);
    if (!a) throw py::value_error(std::string(what) + " must be an array of numbers");
    if (a.ndim() != 2 || a.shape(0) != rows || a.shape(1) != cols)
        throw py::value_error(std::string(what) + " must have shape (" + std::to_string(rows) + ", " +
                              std::to_string(cols) + "), got " + ShapeText(a));
    return a;
}

Array NewArray(std::vector<py::ssize_t> shape) { return Array(shape); }

// ---- console capture
//
// Redirects the process's standard output and error (file descriptors 1 and
// 2) into a temporary file for the duration of one library call.
class Captured {
public:
    Captured() {
        Flush();
        file_ = std::tmpfile();
        if (file_ == nullptr) return;
        saved_out_ = dup(1);
        saved_err_ = dup(2);
        if (saved_out_ < 0 || saved_err_ < 0 || dup2(fileno(file_), 1) < 0 || dup2(fileno(file_), 2) < 0) Restore();
    }
    ~Captured() {
        Restore();
        if (file_ != nullptr) std::fclose(file_);
    }
    Captured(const Captured&) = delete;
    Captured& operator=(const Captured&) = delete;

    // Everything printed since construction, trailing blanks removed; the
    // redirection ends here.
    std::string Text() {
        Restore();
        std::string text;
        if (file_ == nullptr) return text;
        std::rewind(file_);
        char buf[4096];
        size_t got;
        while ((got = std::fread(buf, 1, sizeof buf, file_)) > 0) text.append(buf, got);
        while (!text.empty() && std::isspace(static_cast<unsigned char>(text.back()))) text.pop_back();
        return text;
    }

private:
    static void Flush() {
        std::cout.flush();
        std::cerr.flush();
        std::fflush(stdout);
        std::fflush(stderr);
    }
    void Restore() {
        Flush();
        if (saved_out_ >= 0) {
            dup2(saved_out_, 1);
            close(saved_out_);
        }
        if (saved_err_ >= 0) {
            dup2(saved_err_, 2);
            close(saved_err_);
        }
        saved_out_ = saved_err_ = -1;
    }

    std::FILE* file_ = nullptr;
    int saved_out_ = -1;
    int saved_err_ = -1;
};

std::string WithLibraryText(std::string message, const std::string& library) {
    return library.empty() ? message : message + ": " + library;
}

// ---- kinematics

// Database order (d1, a2, a3, d4, d5, d6) to the kinematics' geometry vector, mm.
void KinematicsLengths(const py::handle& L, double out[6]) {
    const Array lengths = Vector(L, 6, "L");
    double a[6], d[6];
    ModifiedDhFromLengths(lengths.data(), a, d);
    GeometryFromDh(a, d, out);
}

Array FkUr(const py::handle& q_in, const py::handle& L_in) {
    const Array q = Vector(q_in, 6, "q");
    double L[6];
    KinematicsLengths(L_in, L);
    double T[4][4];
    fk_ur(q.data(), T, L);
    Array out = NewArray({4, 4});
    std::memcpy(out.mutable_data(), T, sizeof T);
    return out;
}

const char* IkFailure(int code) {
    switch (code) {
        case kIkShoulderSingular: return "shoulder singular (wrist centre within d4 of the base axis)";
        case kIkT3Error: return "wrist equation without a real solution";
        case kIkWristSingular: return "wrist singular (|sin q5| < 1e-5: axes 4 and 6 aligned)";
        case kIkElbowSingular: return "elbow singular (target on the reach boundary)";
        case kIkOutOfReach: return "target out of reach";
        case kIkInvalidInput: return "non-finite target or geometry, or no finite solution";
        default: return "unknown failure";
    }
}

Array IkUr(const py::handle& T_in, const py::handle& L_in, const py::object& seed_in) {
    const Array Tm = Matrix(T_in, 4, 4, "T");
    double L[6];
    KinematicsLengths(L_in, L);
    double T[4][4];
    std::memcpy(T, Tm.data(), sizeof T);
    double q[6] = {};
    if (!seed_in.is_none()) {
        const Array seed = Vector(seed_in, 6, "seed");
        std::copy(seed.data(), seed.data() + 6, q);
    }
    int status;
    {
        Captured console;
        status = ik_ur(q, T, L);
    }
    if (status != kIkOk)
        throw py::value_error(std::string("ik_ur: ") + IkFailure(status) + " (code " + std::to_string(status) + ")");
    Array out = NewArray({6});
    std::copy(q, q + 6, out.mutable_data());
    return out;
}

Array JacobianUr(const py::handle& a_in, const py::handle& d_in, const py::handle& q_in) {
    const Array a = Vector(a_in, 6, "a"), d = Vector(d_in, 6, "d"), q = Vector(q_in, 6, "q");
    Array J = NewArray({6, 6});
    calculate_jacobian_ur(a.data(), d.data(), q.data(), J.mutable_data());
    return J;
}

// ---- speed profile

// A planned profile sampled every control period.
struct SampledProfile {
    Array t, s, v, a, j;
    std::vector<double> durations;  // the seven phase durations, s
    double total_time = 0.0;        // s
    double peak_speed = 0.0;        // reached in phase 4
    double jerk = 0.0;              // after rounding to whole periods
};

SampledProfile PlanProfile(double distance, double speed, double acceleration, double jerk) {
    if (!(std::isfinite(distance) && distance >= 0.0))
        throw py::value_error("speed_profile: distance must be finite and >= 0");
    for (double limit : {speed, acceleration, jerk})
        if (!(std::isfinite(limit) && limit > 0.0))
            throw py::value_error("speed_profile: speed, acceleration and jerk must be finite and > 0");

    // Rest to rest, as the segments plan it: limits through SetProfileLimits
    // with the acceleration limit serving for deceleration too (the planner
    // keeps one jerk for both sides), durations rounded up to whole periods,
    // jerk re-fitted.
    double limits[4];
    SetProfileLimits(limits, speed, acceleration, acceleration, jerk);
    SpeedProfile p;
    p.set_parameters(distance, limits[0], 0.0, 0.0, limits[1], limits[2], limits[3]);
    p.jerk_limit_profile_rounding();
    if (!std::isfinite(p.ttotal_) || p.ttotal_ / PERIOD > 1e7)
        throw py::value_error("speed_profile: the profile lasts too long to be sampled (over 1e7 periods)");

    const py::ssize_t n = static_cast<py::ssize_t>(std::lround(p.ttotal_ / PERIOD)) + 1;
    SampledProfile out{NewArray({n}), NewArray({n}), NewArray({n}), NewArray({n}), NewArray({n}),
                       std::vector<double>(p.t_, p.t_ + 7), p.ttotal_, p.phase_end_[2][kPhaseSpeed], p.jerk_};
    // Jerk of each phase, and the acceleration at each phase's start.
    const double phase_jerk[7] = {p.jerk_, 0.0, -p.jerk_, 0.0, -p.jerk_, 0.0, p.jerk_};
    double phase_start[8] = {0.0};
    for (int k = 0; k < 7; ++k) phase_start[k + 1] = phase_start[k] + p.t_[k];
    double* t = out.t.mutable_data();
    double* s = out.s.mutable_data();
    double* v = out.v.mutable_data();
    double* a = out.a.mutable_data();
    double* j = out.j.mutable_data();
    for (py::ssize_t i = 0; i < n; ++i) {
        t[i] = static_cast<double>(i) * PERIOD;
        double sv[2];
        p.calculate_current_speed(t[i], sv);
        s[i] = sv[0];
        v[i] = sv[1];
        // Phase of t: the first whose end is not before t (boundaries belong
        // to the phase that ends there, as in the sampling above).
        int k = 0;
        while (k < 6 && t[i] > phase_start[k + 1] + em) ++k;
        const double acc_start = k == 0 ? 0.0 : p.phase_end_[k - 1][kPhaseAcceleration];
        a[i] = acc_start + phase_jerk[k] * (t[i] - phase_start[k]);
        j[i] = phase_jerk[k];
    }
    return out;
}

// ---- dynamics

Array Regressor(const py::handle& a_in, const py::handle& d_in, const py::handle& q_in, const py::handle& dq_in,
                const py::handle& ddq_in) {
    const Array a = Vector(a_in, 6, "a"), d = Vector(d_in, 6, "d"), q = Vector(q_in, 6, "q");
    const Array dq = Vector(dq_in, 6, "dq"), ddq = Vector(ddq_in, 6, "ddq");
    double theta[kDynamicsJointNum];
    ModelAngles(q.data(), theta);
    Array Y = NewArray({kDynamicsJointNum, kBaseParameterNum});
    parameter_linearization(theta, dq.data(), ddq.data(), a.data(), kModelAlpha, d.data(),
                            reinterpret_cast<double(*)[kBaseParameterNum]>(Y.mutable_data()));
    return Y;
}

Array InverseDynamics(const py::handle& a_in, const py::handle& d_in, const py::handle& q_in,
                      const py::handle& dq_in, const py::handle& ddq_in, const py::handle& P_in) {
    // The library takes non-const pointers but reads only: work on copies.
    auto copy = [](const py::handle& h, py::ssize_t n, const char* what) {
        const Array v = Vector(h, n, what);
        return std::vector<double>(v.data(), v.data() + n);
    };
    std::vector<double> a = copy(a_in, 6, "a"), d = copy(d_in, 6, "d"), q = copy(q_in, 6, "q");
    std::vector<double> dq = copy(dq_in, 6, "dq");
    std::vector<double> ddq = copy(ddq_in, 6, "ddq"), P = copy(P_in, kBaseParameterNum, "P");
    Array tau = NewArray({kDynamicsJointNum});
    InverserDynamicsUr(a.data(), d.data(), q.data(), dq.data(), ddq.data(), tau.mutable_data(), P.data());
    return tau;
}

// ---- trajectory files

[[noreturn]] void ThrowOsError(int error, const std::string& message, const std::string& path) {
    // OSError(errno, text, filename) becomes FileNotFoundError etc. by errno.
    PyErr_SetObject(PyExc_OSError, py::make_tuple(error, message, path).ptr());
    throw py::error_already_set();
}

Array ReadTrajectory(const std::string& path, int cols, int max_rows) {
    if (cols < 1 || cols > 1000) throw py::value_error("read_trajectory: cols must be within 1..1000");
    if (max_rows < 1) throw py::value_error("read_trajectory: max_rows must be >= 1");
    // A file of n bytes holds at most n + 1 lines: no larger buffer is needed.
    int capacity = max_rows;
    if (std::FILE* f = std::fopen(path.c_str(), "rb")) {
        if (std::fseek(f, 0, SEEK_END) == 0) {
            const long size = std::ftell(f);
            if (size >= 0 && size < capacity) capacity = static_cast<int>(size) + 1;
        }
        std::fclose(f);
    }
    std::vector<double> data(static_cast<size_t>(capacity) * cols, 0.0);
    int rows = 0;
    int status;
    std::string text;
    {
        Captured console;
        status = GetMatrixFromFile(path, data.data(), capacity, cols, &rows);
        text = console.Text();
    }
    if (status < 0) {
        std::FILE* f = std::fopen(path.c_str(), "r");
        const int error = errno;
        if (f == nullptr) ThrowOsError(error, WithLibraryText("read_trajectory: cannot open", text), path);
        std::fclose(f);
        throw py::value_error(WithLibraryText("read_trajectory: no samples in " + path, text));
    }
    Array out = NewArray({rows, cols});
    std::copy(data.begin(), data.begin() + static_cast<size_t>(rows) * cols, out.mutable_data());
    return out;
}

void WriteTrajectory(const std::string& path, const py::handle& samples) {
    Array m = Array::ensure(samples);
    if (!m || m.ndim() != 2 || m.shape(0) < 1 || m.shape(1) < 1)
        throw py::value_error("write_trajectory: samples must be a non-empty 2-D array (rows, cols), got " +
                              (m ? ShapeText(m) : std::string("a non-array")));
    if (m.shape(0) > kMaxTrajectoryRows * 100 || m.shape(1) > 1000)
        throw py::value_error("write_trajectory: too large an array " + ShapeText(m));
    std::vector<double> data(m.data(), m.data() + m.size());
    int status;
    std::string text;
    {
        Captured console;
        status = SaveMatrixToFile(path, data.data(), static_cast<int>(m.shape(0)), static_cast<int>(m.shape(1)));
        text = console.Text();
    }
    if (status < 0) ThrowOsError(EIO, WithLibraryText("write_trajectory: cannot write", text), path);
}

// ---- parameter database

py::array_t<double> Head(const double* v, int n) {
    py::array_t<double> out(n);
    std::copy(v, v + n, out.mutable_data());
    return out;
}

py::dict ReadRobotParameters(const std::string& path, const py::object& joints_in) {
    ResourceData* record = GetResourceDate();
    // The loader works on the process's parameter record: keep a copy and
    // put it back, whatever happens.
    struct Restore {
        ResourceData* record;
        ResourceData saved;
        ~Restore() { *record = saved; }
    } restore{record, *record};

    auto robot = std::make_unique<Robot>();  // never connected: controller_ stays null
    int status;
    std::string text;
    {
        Captured console;
        status = SelectFromTableListAt(path.c_str(), record);
        if (status == 0) {
            // The loader takes the joint count from the ids it is given. A
            // first call without ids finds the type's own count (refusing the
            // empty list); free combinations take theirs from the caller.
            int n = joints_in.is_none() ? -1 : joints_in.cast<int>();
            if (n < 0) {
                robot->GetParametersFromDatabase();
                n = robot->joint_num_;
            }
            if (n < 1 || n > kMaxJointNum) {
                status = -2;
            } else {
                robot->actuator_ids_.clear();
                for (int i = 1; i <= n; ++i) robot->actuator_ids_.push_back(static_cast<unsigned char>(i));
                status = robot->GetParametersFromDatabase();
            }
        }
        text = console.Text();
    }
    if (status == -2)
        throw py::value_error("read_robot_parameters: " + std::string(RobotTypeName(record->robot_type)) +
                              " takes its joints from the actuator bus; pass joints=1.." +
                              std::to_string(kMaxJointNum));
    if (status < 0) {
        std::FILE* f = std::fopen(path.c_str(), "r");
        const int error = errno;
        if (f == nullptr) ThrowOsError(error, WithLibraryText("read_robot_parameters: cannot open", text), path);
        std::fclose(f);
        throw py::value_error(WithLibraryText("read_robot_parameters: " + path + " refused", text));
    }

    const int n = robot->joint_num_;
    py::array_t<double> ratio(n), direction(n);
    for (int i = 0; i < n; ++i) {
        ratio.mutable_at(i) = robot->link_[i].reduction_ratio_;
        direction.mutable_at(i) = robot->link_[i].direct_;
    }
    const double* c = record->cartesian_limits;
    py::dict out;
    out["robot_type"] = RobotTypeName(record->robot_type);
    out["robot_type_code"] = record->robot_type;
    out["joints"] = n;
    out["L"] = Head(record->kinematic_lengths, 6);
    out["joint_speed_deg_s"] = Head(record->joint_speed, n);
    out["joint_acceleration_deg_s2"] = Head(record->joint_acceleration, n);
    out["joint_jerk_deg_s3"] = Head(record->joint_jerk, n);
    out["line_limits"] = py::make_tuple(c[0], c[1], c[2]);
    out["rotate_limits_deg"] = py::make_tuple(c[3], c[4], c[5]);
    out["reduction_ratio"] = ratio;
    out["direction"] = direction;
    // The joints' position limits live in the actuators, read at bring-up.
    out["position_limits_deg"] = py::none();
    out["dynamics_switch"] = record->dynamics_switch;
    out["dynamic_parameters"] = Head(record->dynamic_parameters, kBaseParameterNum);
    return out;
}

}  // namespace

PYBIND11_MODULE(tql, m) {
    m.doc() =
        "The Orvalt manipulator controller's computations over numpy arrays: kinematics, the jerk-limited\n"
        "speed profile, the dynamic model, trajectory files and the parameter database. Lengths in mm\n"
        "unless stated, angles in rad. Nothing here touches the actuator bus.";

    m.def("fk_ur", &FkUr, py::arg("q"), py::arg("L"),
          "fk_ur(q, L) -> (4, 4) array\n\n"
          "Flange pose in the base frame (translation in mm in column 3) for the six joint angles q (rad,\n"
          "user zero) and the kinematic lengths L as stored in the database: (d1, a2, a3, d4, d5, d6), mm.");
    m.def("ik_ur", &IkUr, py::arg("T"), py::arg("L"), py::arg("seed") = py::none(),
          "ik_ur(T, L, seed=None) -> (6,) array\n\n"
          "The joint angles (rad) reaching the (4, 4) flange pose T, joint by joint the solution nearest\n"
          "to the seed (default zeros; angles are not wrapped). L as for fk_ur. Raises ValueError naming\n"
          "the failure and the library's code for singular, unreachable or non-finite targets.");
    m.def("jacobian_ur", &JacobianUr, py::arg("a"), py::arg("d"), py::arg("q"),
          "jacobian_ur(a, d, q) -> (6, 6) array\n\n"
          "Geometric Jacobian of the flange in the base frame. a, d: the joints' modified-DH link lengths\n"
          "and offsets (6 each, one length unit), a = (0, 0, a2, a3, 0, 0), d = (d1, 0, 0, d4, d5, d6).\n"
          "Rows 0..2: linear velocity (length unit per rad), rows 3..5: angular velocity; column j: joint j.");

    py::class_<SampledProfile>(m, "Profile",
                               "A jerk-limited rest-to-rest profile sampled every 4 ms: arrays t (s), s, v, a, j\n"
                               "(the distance's unit per s^0..3); unpacks as t, s, v, a, j.")
        .def_readonly("t", &SampledProfile::t, "Sample times, s, 0 to total_time every 4 ms.")
        .def_readonly("s", &SampledProfile::s, "Position along the distance.")
        .def_readonly("v", &SampledProfile::v, "Speed.")
        .def_readonly("a", &SampledProfile::a, "Acceleration.")
        .def_readonly("j", &SampledProfile::j, "Jerk (that of the phase holding the sample).")
        .def_readonly("durations", &SampledProfile::durations, "The seven phase durations, s.")
        .def_readonly("total_time", &SampledProfile::total_time, "Duration, s, a whole number of periods.")
        .def_readonly("peak_speed", &SampledProfile::peak_speed, "Speed of the cruise phase.")
        .def_readonly("jerk", &SampledProfile::jerk, "Jerk after rounding to whole periods.")
        .def("__iter__",
             [](const SampledProfile& p) { return py::iter(py::make_tuple(p.t, p.s, p.v, p.a, p.j)); });
    m.def("speed_profile", &PlanProfile, py::arg("distance"), py::arg("speed"), py::arg("acceleration"),
          py::arg("jerk"),
          "speed_profile(distance, speed, acceleration, jerk) -> Profile\n\n"
          "Plans the seven-phase jerk-limited profile over distance (>= 0) from rest to rest with the\n"
          "given limits (acceleration serving for deceleration, as in every motion of the library), its\n"
          "phases rounded up to whole 4 ms periods as the motion segments do, and samples it every 4 ms.\n"
          "Limits in the distance's unit per s, s^2, s^3. Raises ValueError for a\n"
          "negative or non-finite distance or a limit that is not finite and positive.");

    m.def("regressor", &Regressor, py::arg("a"), py::arg("d"), py::arg("q"), py::arg("dq"), py::arg("ddq"),
          "regressor(a, d, q, dq, ddq) -> (6, 36) array\n\n"
          "Y with tau = Y @ P for the 36 base parameters P. a, d: modified-DH lengths and offsets in m\n"
          "(6 each); q, dq, ddq: user-zero joint angles (rad), rates and accelerations.");
    m.def("inverse_dynamics", &InverseDynamics, py::arg("a"), py::arg("d"), py::arg("q"), py::arg("dq"),
          py::arg("ddq"), py::arg("P"),
          "inverse_dynamics(a, d, q, dq, ddq, P) -> (6,) array\n\n"
          "Joint torques (N*m) of the dynamic model: a, d in m, q, dq, ddq user-zero (rad, rad/s,\n"
          "rad/s^2), P the 36 base parameters.");

    m.def("read_trajectory", &ReadTrajectory, py::arg("path"), py::arg("cols") = 6,
          py::arg("max_rows") = kMaxTrajectoryRows,
          "read_trajectory(path, cols=6, max_rows=75000) -> (rows, cols) array\n\n"
          "Reads a trajectory file (one sample a line, values separated by ','). Missing values read as\n"
          "0. Raises OSError when the file cannot be opened, ValueError when it holds no line.");
    m.def("write_trajectory", &WriteTrajectory, py::arg("path"), py::arg("samples"),
          "write_trajectory(path, samples)\n\n"
          "Writes a (rows, cols) array as a trajectory file, six significant digits, the file appearing\n"
          "whole or not at all. Raises ValueError for an empty or non-2-D array, OSError when writing fails.");

    m.def("read_robot_parameters", &ReadRobotParameters, py::arg("db_path"), py::arg("joints") = py::none(),
          "read_robot_parameters(db_path, joints=None) -> dict\n\n"
          "The robot's parameters as the library loads them from the database file (opened read-only,\n"
          "no actuator touched): robot_type (name), robot_type_code, joints, L (d1, a2, a3, d4, d5, d6,\n"
          "mm), joint_speed_deg_s, joint_acceleration_deg_s2, joint_jerk_deg_s3 (per joint),\n"
          "line_limits (mm/s, mm/s^2, mm/s^3), rotate_limits_deg (deg/s, deg/s^2, deg/s^3),\n"
          "reduction_ratio (actuator turns per joint turn) and direction (+1/-1) per joint,\n"
          "position_limits_deg (None: held by the actuators), dynamics_switch, dynamic_parameters (36).\n"
          "joints is needed only for FREE_COMBINATION, whose joints come from the bus. Raises OSError\n"
          "when the file cannot be opened, ValueError when the library refuses its contents.");
}
