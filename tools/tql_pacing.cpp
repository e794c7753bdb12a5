// tql-pacing: period statistics of a flight recording.
//
// Reads the simulated bus's flight-recorder CSV (time,id,mode,command,value)
// and, per actuator, takes the intervals between consecutive position
// set-points. Gaps of 50 ms or more are pauses between motions (TIMER lines,
// pauses between cycles, mode switches) and split the streams rather than
// counting as periods. Prints, per actuator: periods, mean, median, p99 and
// worst period in ms, and overruns: periods longer than twice the median
// (the controller's loop was more than a period late).
//
// Usage: tql-pacing FILE.csv   (exit 1 when the file holds no set-point stream)
#include <algorithm>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "command_line.h"

namespace {

constexpr double kPauseSeconds = 0.05;

struct Stats {
    size_t periods = 0;
    double mean = 0, median = 0, p99 = 0, worst = 0;
    size_t overruns = 0;
};

Stats Summarise(std::vector<double> periods) {
    Stats s;
    s.periods = periods.size();
    if (periods.empty()) return s;
    std::sort(periods.begin(), periods.end());
    double sum = 0;
    for (double p : periods) sum += p;
    s.mean = sum / periods.size();
    s.median = periods[periods.size() / 2];
    s.p99 = periods[std::min(periods.size() - 1, static_cast<size_t>(0.99 * periods.size()))];
    s.worst = periods.back();
    for (double p : periods) s.overruns += p > 2.0 * s.median ? 1 : 0;
    return s;
}

int Usage() {
    std::cerr << "usage: tql-pacing FILE.csv" << std::endl;
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    std::string file;
    CLI::App app{"Period statistics of the set-point streams in a flight recording.", "tql-pacing"};
    app.add_option("FILE", file, "a flight recording (TQL_SIM_RECORD)")->required();
    if (const int status = tqltools::ParseCommandLine(app, argc, argv, Usage); status >= 0) return status;
    std::ifstream in(file);
    if (!in) {
        std::cerr << "tql-pacing: cannot open " << file << std::endl;
        return 2;
    }
    std::map<int, double> last;               // id -> time of its previous set-point
    std::map<int, std::vector<double>> periods;  // id -> periods, seconds
    for (std::string line; std::getline(in, line);) {
        double time = 0, value = 0;
        int id = 0, mode = 0;
        char command[64] = {};
        if (std::sscanf(line.c_str(), "%lf,%d,%d,%63[^,],%lf", &time, &id, &mode, command, &value) != 5) continue;
        if (std::string(command) != "setPosition") continue;
        auto seen = last.find(id);
        if (seen != last.end() && time - seen->second < kPauseSeconds) periods[id].push_back(time - seen->second);
        last[id] = time;
    }
    if (periods.empty()) {
        std::cerr << "tql-pacing: no set-point streams in " << file << std::endl;
        return 1;
    }
    std::printf("actuator  periods   mean ms  median ms   p99 ms  worst ms  overruns\n");
    for (const auto& entry : periods) {
        const Stats s = Summarise(entry.second);
        std::printf("%8d  %7zu  %8.4f  %9.4f  %7.4f  %8.4f  %8zu\n", entry.first, s.periods, s.mean * 1e3,
                    s.median * 1e3, s.p99 * 1e3, s.worst * 1e3, s.overruns);
    }
    return 0;
}
