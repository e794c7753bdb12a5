#include "server.h"

#include <pthread.h>
#include <sched.h>

#include <boost/asio.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/websocket.hpp>
#include <algorithm>
#include <chrono>
#include <deque>
#include <iostream>
#include <set>
#include <thread>

#include "desk.h"

namespace pendant {

namespace beast = boost::beast;
namespace http = beast::http;
namespace websocket = beast::websocket;
namespace net = boost::asio;
using tcp = net::ip::tcp;

namespace {

constexpr std::size_t kHeaderLimit = 8 * 1024;
constexpr std::size_t kBodyLimit = 64 * 1024;
constexpr std::size_t kMessageLimit = 256 * 1024;
constexpr auto kRequestTime = std::chrono::seconds(10);
constexpr auto kStatePeriod = std::chrono::milliseconds(50);
constexpr std::size_t kQueuedStates = 2;    // a slow reader skips states beyond these
constexpr std::size_t kQueuedMessages = 64;  // ... and is closed beyond these

// Requests a watching page may make; every other one needs control.
bool ForWatchers(const std::string& op) { return op == "load_program" || op == "control"; }

bool SameText(const std::string& a, const std::string& b) {
    // Time independent of where they differ.
    if (a.size() != b.size()) return false;
    unsigned char diff = 0;
    for (std::size_t i = 0; i < a.size(); ++i) diff |= static_cast<unsigned char>(a[i] ^ b[i]);
    return diff == 0;
}

std::string QueryValue(beast::string_view target, const std::string& name) {
    const std::size_t q = target.find('?');
    if (q == beast::string_view::npos) return {};
    std::string query(target.substr(q + 1));
    for (std::size_t at = 0; at <= query.size();) {
        std::size_t end = query.find('&', at);
        if (end == std::string::npos) end = query.size();
        const std::string pair = query.substr(at, end - at);
        if (pair.compare(0, name.size() + 1, name + "=") == 0) return pair.substr(name.size() + 1);
        at = end + 1;
    }
    return {};
}

std::string CookieValue(beast::string_view cookies, const std::string& name) {
    std::string all(cookies);
    for (std::size_t at = 0; at < all.size();) {
        while (at < all.size() && (all[at] == ' ' || all[at] == ';')) ++at;
        std::size_t end = all.find(';', at);
        if (end == std::string::npos) end = all.size();
        const std::string pair = all.substr(at, end - at);
        if (pair.compare(0, name.size() + 1, name + "=") == 0) return pair.substr(name.size() + 1);
        at = end;
    }
    return {};
}

void NormalPriority() {
    sched_param param{};
    param.sched_priority = 0;
    pthread_setschedparam(pthread_self(), SCHED_OTHER, &param);
}

}  // namespace

bool LoopbackAddress(const std::string& address) {
    boost::system::error_code error;
    const net::ip::address ip = net::ip::make_address(address, error);
    return !error && ip.is_loopback();
}

class WsSession;

struct Server::Impl {
    ServerOptions options;
    Desk* desk;
    // Before the io_context: sessions it destroys still find these.
    std::set<WsSession*> sockets;
    WsSession* controller = nullptr;
    int connections = 0;
    bool loopback = true;
    unsigned short port = 0;
    net::io_context ioc{1};
    tcp::acceptor acceptor{ioc};
    net::steady_timer ticker{ioc};
    std::thread thread;

    void Accept();
    void Tick();
    void Broadcast();
    // Host, Origin and token of a request: 0 when it may pass, else the HTTP
    // status to refuse it with.
    int Refusal(const http::request<http::string_body>& request) const;
    bool HostAllowed(beast::string_view host) const;
};

// ---- WebSocket: state out, requests in

class WsSession : public std::enable_shared_from_this<WsSession> {
public:
    WsSession(tcp::socket socket, Server::Impl* server) : ws_(std::move(socket)), server_(server) {}

    void Run(http::request<http::string_body> request) {
        ws_.set_option(websocket::stream_base::timeout::suggested(beast::role_type::server));
        ws_.read_message_max(kMessageLimit);
        ws_.async_accept(request, [self = shared_from_this()](beast::error_code error) {
            if (error) return self->Closed();
            self->server_->sockets.insert(self.get());
            self->Send(self->server_->desk->Hello().dump(), false);
            self->Read();
        });
    }

    // Queues one text message; states are skipped for a reader that lags.
    void Send(std::string text, bool state) {
        if (closed_) return;
        if (state && queue_.size() > kQueuedStates) return;
        if (queue_.size() >= kQueuedMessages) {
            ws_.next_layer().close();
            return;
        }
        queue_.push_back(std::move(text));
        if (queue_.size() == 1) Write();
    }

    void Reply(const Json& reply) {
        Json j = reply;
        j["type"] = "reply";
        Send(j.dump(-1, ' ', false, Json::error_handler_t::replace), false);
    }

private:
    void Write() {
        ws_.text(true);
        ws_.async_write(net::buffer(queue_.front()), [self = shared_from_this()](beast::error_code error, std::size_t) {
            if (error) return self->Closed();
            self->queue_.pop_front();
            if (!self->queue_.empty()) self->Write();
        });
    }

    void Read() {
        ws_.async_read(buffer_, [self = shared_from_this()](beast::error_code error, std::size_t) {
            if (error) return self->Closed();
            const std::string text = beast::buffers_to_string(self->buffer_.data());
            self->buffer_.consume(self->buffer_.size());
            self->Request(text);
            self->Read();
        });
    }

    void Request(const std::string& text) {
        const Json request = Json::parse(text, nullptr, false);
        if (request.is_discarded() || !request.is_object() || !request.contains("op") || !request["op"].is_string())
            return Reply({{"ok", false},
                          {"id", request.is_object() ? request.value("id", Json()) : Json()},
                          {"error", "a request is a JSON object with an \"op\" string"}});
        const std::string op = request["op"];
        Server::Impl* s = server_;
        if (op == "control") {
            if (s->controller != nullptr && s->controller != this)
                return Reply({{"ok", false}, {"id", request.value("id", Json())}, {"error", "another page holds control"}});
            s->controller = this;
            return Reply({{"ok", true}, {"id", request.value("id", Json())}});
        }
        if (op == "release_control") {
            if (s->controller == this) {
                s->controller = nullptr;
                s->desk->ControllerGone();
            }
            return Reply({{"ok", true}, {"id", request.value("id", Json())}});
        }
        if (!ForWatchers(op) && s->controller != this) {
            if (op == "heartbeat") return;
            return Reply({{"ok", false}, {"id", request.value("id", Json())},
                          {"error", "this page only watches: take control first"}});
        }
        // The reply may come from the arm's thread: back onto the server's.
        std::weak_ptr<WsSession> weak = shared_from_this();
        net::io_context& ioc = s->ioc;
        try {
            s->desk->Handle(request, [weak, &ioc](Json reply) {
                net::post(ioc, [weak, reply = std::move(reply)] {
                    if (auto self = weak.lock()) self->Reply(reply);
                });
            });
        } catch (const Json::exception& error) {
            Reply({{"ok", false}, {"id", request.value("id", Json())}, {"error", std::string("bad request: ") + error.what()}});
        }
    }

    void Closed() {
        if (closed_) return;
        closed_ = true;
        server_->sockets.erase(this);
        if (server_->controller == this) {
            server_->controller = nullptr;
            server_->desk->ControllerGone();
        }
        --server_->connections;
    }

    websocket::stream<beast::tcp_stream> ws_;
    Server::Impl* server_;
    beast::flat_buffer buffer_;
    std::deque<std::string> queue_;
    bool closed_ = false;

public:
    ~WsSession() { Closed(); }
};

// ---- HTTP: the page's files, the URDF, the WebSocket upgrade

class HttpSession : public std::enable_shared_from_this<HttpSession> {
public:
    HttpSession(tcp::socket socket, Server::Impl* server) : stream_(std::move(socket)), server_(server) {}
    ~HttpSession() {
        if (!upgraded_) --server_->connections;
    }

    void Read() {
        parser_.emplace();
        parser_->header_limit(kHeaderLimit);
        parser_->body_limit(kBodyLimit);
        stream_.expires_after(kRequestTime);
        http::async_read(stream_, buffer_, *parser_, [self = shared_from_this()](beast::error_code error, std::size_t) {
            if (error == http::error::body_limit || error == http::error::header_limit)
                return self->Respond(http::status::payload_too_large, "text/plain", "request too large\n", true);
            if (error) return;
            self->Serve(self->parser_->release());
        });
    }

private:
    void Serve(http::request<http::string_body> request) {
        if (const int status = server_->Refusal(request)) {
            const char* why = status == 401 ? "a token is needed (?token=...)\n" : "not this server's page\n";
            return Respond(static_cast<http::status>(status), "text/plain", why, true);
        }
        std::string path(request.target().substr(0, request.target().find('?')));
        if (websocket::is_upgrade(request)) {
            if (path != "/ws") return Respond(http::status::not_found, "text/plain", "no such socket\n", true);
            upgraded_ = true;
            std::make_shared<WsSession>(stream_.release_socket(), server_)->Run(std::move(request));
            return;
        }
        if (request.method() != http::verb::get && request.method() != http::verb::head)
            return Respond(http::status::method_not_allowed, "text/plain", "GET only\n", true);
        if (path == "/") path = "/index.html";
        const auto file = server_->options.files.find(path.substr(1));
        if (file == server_->options.files.end())
            return Respond(http::status::not_found, "text/plain", "not found\n", !request.keep_alive());
        // A page loaded with its token keeps it as a cookie for its files and socket.
        const std::string token = QueryValue(request.target(), "token");
        cookie_ = !server_->options.token.empty() && !token.empty()
                      ? "tql_token=" + token + "; HttpOnly; SameSite=Strict; Path=/"
                      : std::string();
        Respond(http::status::ok, file->second.first, file->second.second, !request.keep_alive());
    }

    void Respond(http::status status, const std::string& type, const std::string& body, bool close) {
        auto response = std::make_shared<http::response<http::string_body>>(status, 11);
        response->set(http::field::server, "tql-pendant");
        response->set(http::field::content_type, type);
        response->set(http::field::cache_control, "no-store");
        response->set("X-Content-Type-Options", "nosniff");
        if (!cookie_.empty()) response->set(http::field::set_cookie, cookie_);
        response->keep_alive(!close);
        response->body() = body;
        response->prepare_payload();
        stream_.expires_after(kRequestTime);
        http::async_write(stream_, *response,
                          [self = shared_from_this(), response, close](beast::error_code error, std::size_t) {
                              if (error || close) {
                                  beast::error_code ignored;
                                  self->stream_.socket().shutdown(tcp::socket::shutdown_send, ignored);
                                  return;
                              }
                              self->Read();
                          });
    }

    beast::tcp_stream stream_;
    Server::Impl* server_;
    beast::flat_buffer buffer_;
    boost::optional<http::request_parser<http::string_body>> parser_;
    std::string cookie_;
    bool upgraded_ = false;
};

// ---- the server

bool Server::Impl::HostAllowed(beast::string_view host) const {
    if (!loopback) return true;  // the token guards it
    const std::string port_text = ":" + std::to_string(port);
    for (const std::string name : {"127.0.0.1", "localhost", "[::1]", options.address.c_str()})
        if (host == name + port_text) return true;
    return false;
}

int Server::Impl::Refusal(const http::request<http::string_body>& request) const {
    if (!options.token.empty()) {
        std::string given = QueryValue(request.target(), "token");
        const beast::string_view authorization = request[http::field::authorization];
        if (given.empty() && authorization.starts_with("Bearer ")) given = std::string(authorization.substr(7));
        if (given.empty()) given = CookieValue(request[http::field::cookie], "tql_token");
        if (!SameText(given, options.token)) return 401;
    }
    if (!HostAllowed(request[http::field::host])) return 403;
    const beast::string_view origin = request[http::field::origin];
    if (!origin.empty() && origin != "http://" + std::string(request[http::field::host])) return 403;
    return 0;
}

void Server::Impl::Accept() {
    acceptor.async_accept(net::make_strand(ioc), [this](beast::error_code error, tcp::socket socket) {
        if (error == net::error::operation_aborted) return;
        if (!error) {
            if (connections >= kMaxSessions) {
                beast::error_code ignored;
                socket.close(ignored);
            } else {
                ++connections;
                std::make_shared<HttpSession>(std::move(socket), this)->Read();
            }
        }
        Accept();
    });
}

void Server::Impl::Broadcast() {
    if (sockets.empty()) return;
    Json state = desk->State();
    state["controlled"] = controller != nullptr;
    state["pages"] = sockets.size();
    for (WsSession* socket : sockets) {
        state["control"] = socket == controller;
        socket->Send(state.dump(-1, ' ', false, Json::error_handler_t::replace), true);
    }
}

void Server::Impl::Tick() {
    // Absolute deadlines: 20 states a second, not a little fewer.
    ticker.expires_at(std::max(ticker.expiry() + kStatePeriod, net::steady_timer::clock_type::now()));
    ticker.async_wait([this](beast::error_code error) {
        if (error) return;
        Broadcast();
        Tick();
    });
}

Server::Server(ServerOptions options, Desk* desk) : impl_(new Impl) {
    impl_->options = std::move(options);
    impl_->desk = desk;
}

Server::~Server() { Stop(); }

bool Server::Start() {
    Impl& s = *impl_;
    beast::error_code error;
    const net::ip::address address = net::ip::make_address(s.options.address, error);
    if (error) {
        std::cerr << "tql-pendant: " << s.options.address << " is not an address" << std::endl;
        return false;
    }
    s.loopback = address.is_loopback();
    const tcp::endpoint endpoint(address, s.options.port);
    s.acceptor.open(endpoint.protocol(), error);
    if (!error) s.acceptor.set_option(net::socket_base::reuse_address(true), error);
    if (!error) s.acceptor.bind(endpoint, error);
    if (!error) s.acceptor.listen(net::socket_base::max_listen_connections, error);
    if (error) {
        std::cerr << "tql-pendant: cannot listen on " << s.options.address << ":" << s.options.port << ": "
                  << error.message() << std::endl;
        return false;
    }
    s.port = s.acceptor.local_endpoint().port();
    s.Accept();
    s.ticker.expires_at(net::steady_timer::clock_type::now());
    s.Tick();
    s.thread = std::thread([&s] {
        NormalPriority();
        s.ioc.run();
    });
    return true;
}

void Server::Stop() {
    if (!impl_ || !impl_->thread.joinable()) return;
    impl_->ioc.stop();
    impl_->thread.join();
}

unsigned short Server::Port() const { return impl_->port; }

}  // namespace pendant
