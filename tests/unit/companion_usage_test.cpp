// What the companion tool's command line takes and says, and that its manual and completion follow.
#include <regex>
#include <set>
#include <sstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>

#include "tests/support/companion_tool.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;

TEST_F(ToolTest, HelpsItself) {
    EXPECT_EQ(run({"--help"}), 0);
    for (const char* command : {"record FILE", "play FILE", "loop", "events", "volume N",
                                "mute on|off", "meter", "latency", "check"}) {
        EXPECT_THAT(tool->output(), HasSubstr(std::string("\n  ") + command + " "));
    }
    EXPECT_EQ(run({"record", "--help"}), 0);
    EXPECT_EQ(tool->errors(), "");
}

// Every word of the help's that a user may type: commands, and options.
std::set<std::string> wordsOfHelp(const std::string& help) {
    std::set<std::string> words;
    const std::regex word(R"(\n  ([a-z]+)|(--[a-z]+)  ?)");
    for (std::sregex_iterator at(help.begin(), help.end(), word), end; at != end; ++at) {
        words.insert((*at)[1].matched ? (*at)[1] : (*at)[2]);
    }
    return words;
}

std::string contentsOf(const std::string& path) {
    std::stringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
}

TEST_F(ToolTest, IsDescribedByItsManual) {
    run({"--help"});
    std::set<std::string> described;
    const std::string manual = contentsOf(TOOL_FOLDER "/uafd-companion.1");
    // The first word behind a .TP's first macro.
    const std::regex entry(R"(\.TP\n\.[BIR]+ "?((?:\\-\\-)?[a-z]+))");
    for (std::sregex_iterator at(manual.begin(), manual.end(), entry), end; at != end; ++at) {
        described.insert(std::regex_replace((*at)[1].str(), std::regex(R"(\\-)"), "-"));
    }
    EXPECT_EQ(described, wordsOfHelp(tool->output()));
}

// What bash offers behind these words, the last of which is begun.
std::set<std::string> completionsOf(const std::string& words) {
    ChildProcess bash({"/bin/bash", "-c",
                       "source " TOOL_FOLDER "/completion.bash; COMP_WORDS=(" + words +
                           "); COMP_CWORD=$((${#COMP_WORDS[@]} - 1)); _uafd_companion; "
                           "printf '%s\\n' \"${COMPREPLY[@]}\""});
    EXPECT_EQ(bash.wait(), 0) << bash.errors();
    std::set<std::string> offered;
    std::istringstream lines(bash.output());
    for (std::string line; std::getline(lines, line);) {
        if (!line.empty()) {
            offered.insert(line);
        }
    }
    return offered;
}

TEST_F(ToolTest, IsCompletedByTheShell) {
    run({"--help"});
    std::set<std::string> offered = completionsOf("uafd-companion ''");
    const std::set<std::string> options = completionsOf("uafd-companion loop --");
    offered.insert(options.begin(), options.end());
    EXPECT_EQ(offered, wordsOfHelp(tool->output()));
    EXPECT_THAT(completionsOf("uafd-companion re"), ElementsAre("record"));
    EXPECT_THAT(completionsOf("uafd-companion mute o"), ElementsAre("off", "on"));
    EXPECT_THAT(completionsOf("uafd-companion loop --seconds ''"), ElementsAre());
    EXPECT_THAT(completionsOf("uafd-companion play " TOOL_FOLDER "/comp"),
                ElementsAre(TOOL_FOLDER "/completion.bash"));
    folder.write("notes", "");
    EXPECT_THAT(completionsOf("uafd-companion loop --directory " + folder.path()),
                ElementsAre(folder.path()));
}

struct Misuse {
    const char* name;
    std::vector<std::string> words;
    const char* complaint;
};

class Misused : public ToolTest, public testing::WithParamInterface<Misuse> {};

TEST_P(Misused, SaysWhatItDoesNotUnderstand) {
    EXPECT_EQ(run(GetParam().words), 2);
    EXPECT_EQ(tool->output(), "");
    EXPECT_EQ(tool->errors(), std::string("uafd-companion: ") + GetParam().complaint + "\n");
}

INSTANTIATE_TEST_SUITE_P(
    By, Misused,
    testing::Values(Misuse{"NoCommand", {}, "a command is missing; see uafd-companion --help"},
                    Misuse{
                        "AnUnknownCommand", {"sing"}, "no command sing; see uafd-companion --help"},
                    Misuse{"AnUnknownOption",
                           {"loop", "--speed", "1"},
                           "not understood: --speed 1; see uafd-companion --help"},
                    Misuse{"NoNumber",
                           {"loop", "--seconds", "1m"},
                           "not understood: --seconds 1m; see uafd-companion --help"},
                    Misuse{"TooLowATone",
                           {"play", "--tone", "0"},
                           "not understood: --tone 0; see uafd-companion --help"},
                    Misuse{"TooLoudATone",
                           {"play", "--level", "1"},
                           "not understood: --level 1; see uafd-companion --help"},
                    Misuse{"AHalfCount",
                           {"events", "--count", "1.5"},
                           "not understood: --count 1.5; see uafd-companion --help"},
                    Misuse{"NoFile", {"record"}, "record wants an argument"},
                    Misuse{"AnArgumentOfCheck", {"check", "all"}, "check takes no argument"},
                    Misuse{"AThirdWord",
                           {"record", "a.wav", "b.wav"},
                           "one argument too many: b.wav; see uafd-companion --help"},
                    Misuse{"NoVolume", {"volume", "loud"}, "not understood: volume loud"},
                    Misuse{"TooLargeAVolume", {"volume", "32768"}, "not understood: volume 32768"},
                    Misuse{"NoMute", {"mute", "maybe"}, "not understood: mute maybe"}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(ToolTest, WantsAValueForAnOption) {
    ChildProcess process({TOOL_PROGRAM, "loop", "--seconds"});
    EXPECT_EQ(process.wait(), 2);
    EXPECT_EQ(process.errors(),
              "uafd-companion: --seconds wants a value; see uafd-companion --help\n");
}

}  // namespace
