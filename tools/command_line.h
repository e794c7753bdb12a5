// The companion tools' command lines, read by CLI11: --help lists the
// options (exit status 0); an unknown option, a missing argument or a value
// out of range prints CLI11's reason and the tool's usage on standard error
// (exit status 2).
#ifndef TQL_TOOLS_COMMAND_LINE_H
#define TQL_TOOLS_COMMAND_LINE_H

#include <CLI/CLI.hpp>
#include <cstdio>

namespace tqltools {

// -1 when the tool goes on, else the status to exit with.
inline int ParseCommandLine(CLI::App& app, int argc, char** argv, int (*usage)()) {
    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp& help) {
        return app.exit(help);
    } catch (const CLI::ParseError& error) {
        std::fprintf(stderr, "%s: %s\n", app.get_name().c_str(), error.what());
        usage();
        return 2;
    }
    return -1;
}

}  // namespace tqltools

#endif  // TQL_TOOLS_COMMAND_LINE_H
