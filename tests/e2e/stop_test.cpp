// A stop request is never lost: a Ctrl-C pressed while a job waits at a
// prompt, after a demonstration or in the pause between two cycles ends the
// job before its next motion, with -1, through the host.
#include <string>
#include <vector>

#include "test_support.h"

namespace {

using tqltest::HostRun;
using tqltest::ScratchDir;
using tqltest::SetPointTimes;

}  // namespace

TEST(StopRequest, CtrlCAtAPromptEndsTheJobBeforeItsNextMotion) {
    const struct {
        const char* mode;
        const char* input;  // then nothing more: the next prompt waits
        const char* interrupt_after;
        const char* said;
    } cases[] = {
        {"mode4", "1\nSTEP\nFORWARD\n", "Current line number = 4\nFORWARD or BACKWARD ",
         "Current line number = 4\nFORWARD or BACKWARD Program exit!\n"},
        {"tutorials", "1\n1\n", "Done\nInput option: ", "Stop requested: no further motion.\n"},
    };
    for (const auto& c : cases) {
        ScratchDir dir(false);
        const HostRun run = tqltest::RunHostInterrupted(dir.path(), {c.mode}, c.input, {{"TQL_SIM_RECORD", "rec.csv"}},
                                                        c.interrupt_after, 60.0, true);
        EXPECT_EQ(run.exit_code, 255) << c.mode << "\n" << run.out;
        EXPECT_NE(run.out.find(c.said), std::string::npos) << run.out;
        // Nothing moved after the prompt: the output ends where the stop was
        // taken, and the arm was never sent home or to a next line.
        EXPECT_EQ(tqltest::CountOf(run.out, "Current line number = "), c.mode[0] == 'm' ? 1 : 0) << run.out;
        EXPECT_EQ(run.out.find("Please hold the arm"), std::string::npos) << run.out;
    }
}

TEST(StopRequest, CtrlCInThePauseBetweenCyclesEndsTheRun) {
    // The first cycle's end: the last set-point before the pause.
    ScratchDir first(false);
    const HostRun cycles = tqltest::RunHost(first.path(), {"mode4"}, "1\nCONTINUOUS\nNO\n",
                                            {{"TQL_SIM_RECORD", "rec.csv"}, {"TQL_SIM_INTERRUPT", "40"}});
    const std::vector<double> times = SetPointTimes(tqltest::ReadFile(first.File("rec.csv")), 1);
    double pause = -1;
    for (size_t k = 1; k < times.size() && pause < 0; ++k)
        if (times[k] - times[k - 1] > 0.5) pause = times[k - 1];
    ASSERT_GT(pause, 0) << cycles.out;

    ScratchDir dir(false);
    const std::string at = std::to_string(pause + 0.3);
    const HostRun run = tqltest::RunHost(dir.path(), {"mode4"}, "1\nCONTINUOUS\nNO\n",
                                         {{"TQL_SIM_RECORD", "rec.csv"}, {"TQL_SIM_INTERRUPT", at}});
    EXPECT_EQ(run.exit_code, 255) << run.out;
    EXPECT_EQ(run.out.find("Cycle count : 2"), std::string::npos) << run.out;
    const std::vector<double> sent = SetPointTimes(tqltest::ReadFile(dir.File("rec.csv")), 1);
    ASSERT_FALSE(sent.empty());
    EXPECT_LE(sent.back(), pause + 1e-9);
}
