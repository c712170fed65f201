// SPDX-License-Identifier: Apache-2.0
// Traces of the life cycle's model, replayed step by step on the daemon's own threads: before each
// step both channels must look as in the model, and each step must have the same effects: log
// lines, messages to the app and signals.
//
// A line of a trace is a call: the thread, the channel, the call and its answer, then the visible
// state of both channels just before (ReplayedDaemon::view). The indented lines after it are what
// the thread then does until its next call.
#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/model/replayed_daemon.h"
#include "tests/support/fake_alsa.h"

namespace uafd {
namespace {

using ::testing::ElementsAreArray;

struct Step {
    int line = 0;
    std::string thread;
    std::string call;
    std::string answer;
    int channel = 0;
    std::string views[2];
    std::vector<std::string> effects;
};

Step parse(const std::string& text, int line) {
    std::istringstream words(text);
    std::vector<std::string> found;
    for (std::string word; words >> word;) {
        found.push_back(word);
    }
    Step step;
    step.line = line;
    if (found.size() < 5) {
        ADD_FAILURE() << "line " << line << " is no step: " << text;
        return step;
    }
    step.thread = found[0] == "loop" ? found[0] : found[0] + " " + found[1];
    step.channel = found[1][0] - '0';
    step.call = found[1] + " " + found[2];
    step.answer = found.size() > 5 ? found[3] : "";
    step.views[0] = found[found.size() - 2];
    step.views[1] = found[found.size() - 1];
    if (found[2] == "event") {
        step.call = "event";
        step.answer = found[1] + " " + found[3];
    }
    return step;
}

std::vector<Step> readTrace(const std::string& path) {
    std::ifstream file(path);
    std::vector<Step> steps;
    int line = 0;
    for (std::string text; std::getline(file, text);) {
        ++line;
        if (text.compare(0, 2, "  ") == 0 && !steps.empty()) {
            steps.back().effects.push_back(text.substr(2));
        } else {
            steps.push_back(parse(text, line));
        }
    }
    return steps;
}

class ReplayTest : public fake_sys::Test, public ::testing::WithParamInterface<std::string> {
  protected:
    static void replay(ReplayedDaemon& daemon, const Step& step) {
        for (const int channel : {0, 1}) {
            ASSERT_EQ(step.views[channel], daemon.view(channel)) << "channel " << channel;
        }
        if (step.thread.compare(0, 4, "app ") == 0) {
            return;  // its effects are in the answers of the calls
        }
        ASSERT_EQ(step.call, daemon.stage.callOf(step.thread)) << step.thread;
        daemon.stage.answer(step.thread, step.answer);
        ASSERT_THAT(daemon.stage.takeEffects(), ElementsAreArray(step.effects));
    }
};

TEST_P(ReplayTest, TheThreadsDoWhatTheModelDoes) {
    const std::vector<Step> steps = readTrace(std::string(TRACES) + "/" + GetParam() + ".trace");
    ASSERT_FALSE(steps.empty());
    ReplayedDaemon daemon;
    for (const Step& step : steps) {
        SCOPED_TRACE("line " + std::to_string(step.line) + " of trace " + GetParam());
        ASSERT_NO_FATAL_FAILURE(replay(daemon, step));
        ASSERT_FALSE(HasFailure());
    }
}

std::vector<std::string> traces() {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(TRACES)) {
        names.push_back(entry.path().stem().string());
    }
    std::sort(names.begin(), names.end());
    return names;
}

INSTANTIATE_TEST_SUITE_P(Traces, ReplayTest, ::testing::ValuesIn(traces()),
                         [](const auto& suite) { return "Number" + suite.param; });

}  // namespace
}  // namespace uafd
