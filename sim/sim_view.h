// Live view of the simulated arm: a small HTTP/1.1 server on 127.0.0.1 that
// serves the bus state as JSON (GET /state, with the digital outputs), the
// world's URDF (GET /arm.urdf), the Cartesian workspace of the controller's
// parameter.db in the bus's directory (GET /workspace) and the web page's
// bundled files (GET /, /index.html, /view.js, ...).
//
// Off unless sim.conf's "view" or TQL_SIM_VIEW names a port. The server runs
// on its own thread, reads the bus only under the bus mutex (taken with
// try_lock, so stopping it never waits on a thread that holds the mutex), and
// never writes to standard output.
#ifndef TQL_SIM_VIEW_H
#define TQL_SIM_VIEW_H

#include <string>

namespace tqlsim {

struct Bus;

// Stops the server of the previous load, if any, and starts one when the
// loaded configuration asks for it. A port that cannot be bound is reported
// on standard error and the bus runs on without a view. Caller holds the bus mutex.
void RestartView(Bus& bus);
// Stops the server and joins its thread (with or without the bus mutex held;
// never from the server's own thread). Does nothing when none runs.
void StopView();

// The view root: TQL_SIM_VIEW_ROOT, else `configured` (relative to `directory`),
// else the installed share/tql/web seen from this library's directory (found
// with dladdr; ../share/tql/web for a lib/ install) when it holds index.html,
// else the build tree's bundle.
std::string ViewRoot(const std::string& directory, const std::string& configured);

}  // namespace tqlsim

#endif  // TQL_SIM_VIEW_H
