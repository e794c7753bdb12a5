// tql-pendant: the operator's pendant in the browser. Boots the arm from the
// working directory's parameter.db (optionally after running one mode word
// as the tql host would, with its dialogue on this terminal) and serves the
// pendant's page: the arm in 3D, hold-to-run jogs, hand guiding, teaching,
// the program editor, program runs and trajectory recording.
//
// Standard output carries the library's dialogue, unchanged; the pendant's
// own lines (its URL among them) go to standard error.
#include <signal.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <atomic>
#include <chrono>
#include <climits>
#include <cstring>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <sstream>
#include <thread>

#include "desk.h"
#include "execute.h"
#include "server.h"
#include "timing.h"

namespace {

std::atomic<bool> quit{false};
std::atomic<bool> busy{false};

// Ctrl-C stops what the arm does, as in every motion of the library; with
// the arm at rest it ends the pendant. SIGTERM ends it.
void OnSignal(int signo) {
    if (signo == SIGINT && busy.load()) {
        SetStopFlagForSignal(signo);
        return;
    }
    quit.store(true);
}

void InstallSignals() {
    struct sigaction action {};
    action.sa_handler = OnSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = 0;  // no SA_RESTART: an operator's read ends on Ctrl-C
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
}

std::string ReadFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return {};
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

std::string Directory(const std::string& path) {
    const size_t slash = path.rfind('/');
    return slash == std::string::npos ? "." : path.substr(0, slash);
}

// The page's files: --root, else the installed share/tql/web beside bin/,
// else the build tree's bundle beside the program.
std::string PageRoot(const std::string& given) {
    if (!given.empty()) return given;
    char self[PATH_MAX] = {};
    const ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
    const std::string bin = n > 0 ? Directory(std::string(self, static_cast<size_t>(n))) : ".";
    for (const std::string& root : {bin + "/../share/tql/web", bin + "/web"})
        if (!ReadFile(root + "/index.html").empty()) return root;
    return bin + "/web";
}

std::string ContentType(const std::string& name) {
    const std::pair<const char*, const char*> types[] = {
        {".html", "text/html; charset=utf-8"}, {".js", "text/javascript; charset=utf-8"},
        {".css", "text/css; charset=utf-8"},   {".urdf", "application/xml; charset=utf-8"},
        {".png", "image/png"},                 {".json", "application/json"}};
    for (const auto& type : types)
        if (name.size() >= std::strlen(type.first) && name.compare(name.size() - std::strlen(type.first), std::string::npos, type.first) == 0)
            return type.second;
    return "application/octet-stream";
}

std::string RandomToken() {
    unsigned char bytes[16] = {};
    std::ifstream random("/dev/urandom", std::ios::binary);
    random.read(reinterpret_cast<char*>(bytes), sizeof bytes);
    static const char hex[] = "0123456789abcdef";
    std::string token;
    for (unsigned char b : bytes) token += hex[b >> 4], token += hex[b & 15];
    return token;
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{"tql-pendant: the operator's pendant of the arm in the working directory, in a browser"};
    std::string listen = "127.0.0.1", token_file, root, urdf = "arm.urdf", job;
    std::string program = "file/data.txt", trajectory = "file/trajectory.txt";
    int port = 8765;
    bool stay = false;
    app.add_option("--port", port, "TCP port (0: any free one)")->check(CLI::Range(0, 65535));
    app.add_option("--listen", listen, "address to listen on; other than loopback, a token is needed");
    app.add_option("--token-file", token_file, "file whose first line is the token (else one is made and printed)");
    app.add_option("--root", root, "directory of the page's files");
    app.add_option("--urdf", urdf, "the arm's URDF, drawn by the page (tql-urdf writes one)");
    app.add_option("--program", program, "the motion program the pendant teaches into and runs");
    app.add_option("--trajectory", trajectory, "the trajectory recorded by hand guiding and replayed");
    app.add_option("--job", job, "a mode word run first, with its dialogue on this terminal");
    app.add_flag("--stay", stay, "with --job: keep serving after the job (until Ctrl-C)");
    CLI11_PARSE(app, argc, argv);

    tql::UseBusClockIfVirtual();
    pendant::ServerOptions options;
    options.address = listen;
    options.port = static_cast<unsigned short>(port);
    if (!token_file.empty()) {
        std::istringstream first(ReadFile(token_file));
        std::getline(first, options.token);
        if (options.token.empty()) {
            std::cerr << "tql-pendant: " << token_file << " holds no token" << std::endl;
            return 2;
        }
    } else if (!pendant::LoopbackAddress(listen)) {
        options.token = RandomToken();
    }
    const std::string page_root = PageRoot(root);
    // The bundle's own list names the files served; nothing else is.
    std::istringstream names(ReadFile(page_root + "/files.txt"));
    for (std::string name; std::getline(names, name);) {
        if (name.empty() || name.find("..") != std::string::npos) continue;
        std::string body = ReadFile(page_root + "/" + name);
        if (!body.empty()) options.files[name] = {ContentType(name), std::move(body)};
    }
    if (options.files.count("index.html") == 0)
        std::cerr << "tql-pendant: no page in " << page_root << " (npm ci --prefix web, then build)" << std::endl;
    const std::string model = ReadFile(urdf);
    if (!model.empty()) options.files["arm.urdf"] = {ContentType(".urdf"), model};

    pendant::OutputTap tap;
    tap.Start();
    pendant::Desk desk(program, trajectory, &tap);
    pendant::Server server(options, &desk);
    // Before the arm's threads exist: none of the server's inherits a
    // real-time priority.
    if (!server.Start()) {
        tap.Stop();
        return 2;
    }
    std::string url = "http://" + (listen == "0.0.0.0" ? std::string("127.0.0.1") : listen) + ":" +
                      std::to_string(server.Port()) + "/";
    if (!options.token.empty()) url += "?token=" + options.token;
    std::cerr << "Pendant: " << url << std::endl;

    InstallSignals();
    desk.Start(job, stay);
    while (!quit.load()) {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        const bool moving = desk.Busy();
        busy.store(moving);
        // A motion installs the library's own Ctrl-C handler; at rest the
        // pendant's takes its place again.
        if (!moving) InstallSignals();
        if (!job.empty() && desk.JobDone() && !stay) break;
    }
    server.Stop();
    desk.Stop();
    tap.Stop();
    return job.empty() ? 0 : desk.JobResult();  // as tql: -1 exits 255
}
