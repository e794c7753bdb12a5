// The pendant's HTTP and WebSocket server (Boost.Beast on one Asio thread):
// the page's own files, the arm's URDF, and /ws, where pages receive the
// arm's state about 20 times a second and send their requests.
//
// Who may reach it: on a loopback address, any local page whose Host header
// names this server (a page of another site, reaching it through the
// operator's browser by DNS rebinding, names its own host and is refused);
// elsewhere, or with a token file, only requests carrying the token (query
// "token=", header "Authorization: Bearer", or the cookie the page gets with
// its first load). A WebSocket whose Origin is not this server's is refused.
// One page holds control (it asked first); the others watch.
//
// Every request is bounded: 8 KiB of headers, 64 KiB of body, 10 s to
// arrive; a WebSocket message at most 256 KiB; at most kMaxSessions
// connections. A client that reads slowly misses state updates instead of
// holding anything up. The thread runs at normal priority whatever the
// control loop's.
#ifndef TQL_PENDANT_SERVER_H
#define TQL_PENDANT_SERVER_H

#include <map>
#include <memory>
#include <string>

namespace pendant {

class Desk;

struct ServerOptions {
    std::string address = "127.0.0.1";
    unsigned short port = 8765;
    std::string token;  // empty: none needed (loopback only)
    // name -> (content type, body): the page's files and the URDF.
    std::map<std::string, std::pair<std::string, std::string>> files;
};

class Server {
public:
    static constexpr int kMaxSessions = 64;
    Server(ServerOptions options, Desk* desk);
    ~Server();
    // Binds and starts the thread. false after a message on standard error.
    bool Start();
    void Stop();
    unsigned short Port() const;

    struct Impl;  // the sessions' shared state, in server.cpp

private:
    std::unique_ptr<Impl> impl_;
};

// True for 127.0.0.0/8 and ::1.
bool LoopbackAddress(const std::string& address);

}  // namespace pendant

#endif  // TQL_PENDANT_SERVER_H
