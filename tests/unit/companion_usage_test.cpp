// SPDX-License-Identifier: Apache-2.0
// What the companion tool's command line accepts and prints, and that its manual and completion
// agree with it.
#include <set>
#include <sstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/unit/companion_tool.h"

namespace uafd {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;
using testing::UnorderedElementsAre;

TEST_F(ToolTest, HelpsItself) {
    EXPECT_EQ(run({"--help"}), 0);
    const std::string help = tool->output();
    for (const char* command : {"check", "events", "latency", "loop", "meter", "mute on|off",
                                "play [FILE]", "record FILE", "status", "top", "volume N"}) {
        EXPECT_THAT(help, HasSubstr(std::string("\n  ") + command + " "));
    }
    EXPECT_EQ(run({"-h"}), 0);
    EXPECT_EQ(tool->output(), help);
    EXPECT_EQ(run({"record", "--help"}), 0);
    EXPECT_THAT(tool->output(), HasSubstr("--raw "));
    EXPECT_THAT(tool->output(), Not(HasSubstr("--tone ")));
    EXPECT_EQ(tool->errors(), "");
}

// The repository has the generated manual: whoever changes the help texts has to generate it again.
TEST(ToolManual, IsMadeOfTheHelp) {
    ChildProcess made({TOOL_FOLDER "/make-manual", TOOL_PROGRAM});
    EXPECT_EQ(made.wait(), 0) << made.errors();
    EXPECT_EQ(made.output(), contentsOf(TOOL_FOLDER "/uafd-companion.1"))
        << "companion/tool/make-manual PROGRAM >companion/tool/uafd-companion.1";
}

// What bash offers after these words, the last of which is incomplete.
std::set<std::string> completionsOf(const std::string& words) {
    ChildProcess bash(
        {"/bin/bash", "-c",
         "source " TOOL_FOLDER "/completion.bash; COMP_WORDS=(uafd-companion " + words +
             "); COMP_CWORD=$((${#COMP_WORDS[@]} - 1)); "
             "_uafd_companion " TOOL_PROGRAM " \"${COMP_WORDS[-1]}\" \"${COMP_WORDS[-2]}\"; "
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
    EXPECT_THAT(completionsOf("''"),
                UnorderedElementsAre("bridge", "check", "events", "latency", "loop", "meter",
                                     "mute", "play", "record", "status", "top", "volume"));
    EXPECT_THAT(completionsOf("re"), ElementsAre("record"));
    EXPECT_THAT(completionsOf("--v"), ElementsAre("--version"));
    EXPECT_THAT(completionsOf("record --"),
                UnorderedElementsAre("--seconds", "--raw", "--directory", "--group", "--help",
                                     "--version"));
    EXPECT_THAT(completionsOf("bridge --ap"), ElementsAre("--apply-volume"));
    EXPECT_THAT(completionsOf("mute o"), ElementsAre("off", "on"));
    EXPECT_THAT(completionsOf("loop --seconds ''"), ElementsAre());
    EXPECT_THAT(completionsOf("loop ''"), ElementsAre());
    EXPECT_THAT(completionsOf("play " TOOL_FOLDER "/comp"),
                ElementsAre(TOOL_FOLDER "/completion.bash"));
    EXPECT_THAT(completionsOf("record --raw " TOOL_FOLDER "/comp"),
                ElementsAre(TOOL_FOLDER "/completion.bash"));
    EXPECT_THAT(completionsOf("sing ''"), ElementsAre());
    folder.write("notes", "");
    EXPECT_THAT(completionsOf("loop --directory " + folder.path()), ElementsAre(folder.path()));
    EXPECT_THAT(completionsOf("top --sysroot " + folder.path()), ElementsAre(folder.path()));
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
    testing::Values(
        Misuse{"NoCommand", {}, "a command is missing; see uafd-companion --help"},
        Misuse{"AnUnknownCommand", {"sing"}, "unknown command sing; see uafd-companion --help"},
        Misuse{"AnUnknownOption", {"loop", "--speed", "1"}, "unrecognized option '--speed'"},
        Misuse{"AnOptionOfAnotherCommand",
               {"loop", "--volume", "1"},
               "unrecognized option '--volume'"},
        Misuse{"AnUnknownLetter", {"loop", "-x"}, "invalid option -- 'x'"},
        Misuse{
            "AValueTooMany", {"events", "--json=yes"}, "option '--json' doesn't allow an argument"},
        Misuse{"NoNumber",
               {"loop", "--seconds", "1m"},
               "--seconds 1m: needs a number from 0.01 to 86400; see uafd-companion --help"},
        Misuse{"NotANumber",
               {"loop", "--seconds", "nan"},
               "--seconds nan: needs a number from 0.01 to 86400; see uafd-companion --help"},
        Misuse{"TooLowATone",
               {"play", "--tone", "0"},
               "--tone 0: needs a number from 1 to 24000; see uafd-companion --help"},
        Misuse{"TooQuietATone",
               {"play", "--level", "-97"},
               "--level -97: needs a number from -96 to 0; see uafd-companion --help"},
        Misuse{"AHalfCount",
               {"events", "--count", "1.5"},
               "--count 1.5: needs a whole number from 1 to 1000000; see uafd-companion --help"},
        Misuse{"NoFile", {"record"}, "record: FILE is missing; see uafd-companion --help"},
        Misuse{"AnArgumentOfCheck",
               {"check", "all"},
               "check: unexpected argument: all; see uafd-companion --help"},
        Misuse{"AThirdWord",
               {"record", "a.wav", "b.wav"},
               "record: unexpected argument: b.wav; see uafd-companion --help"},
        Misuse{"NoVolume",
               {"volume", "loud"},
               "volume loud: needs a whole number from -32768 to 32767; see uafd-companion --help"},
        Misuse{"TooLowAVolume",
               {"volume", "-32769"},
               "volume -32769: needs a whole number from -32768 to 32767; see uafd-companion "
               "--help"},
        Misuse{"NoDirection",
               {"bridge", "--speaker", "none", "--microphone", "none"},
               "bridge: speaker and microphone are both none; see uafd-companion --help"},
        Misuse{"TooShortALatency",
               {"bridge", "--latency", "1"},
               "--latency 1: needs a number from 5 to 500; see uafd-companion --help"},
        Misuse{
            "NoMute", {"mute", "maybe"}, "mute maybe: needs on or off; see uafd-companion --help"}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(ToolWithoutAFolder, WantsAValueForAnOption) {
    ChildProcess process({TOOL_PROGRAM, "loop", "--seconds"});
    EXPECT_EQ(process.wait(), 2);
    EXPECT_EQ(process.errors(), "uafd-companion: option '--seconds' requires an argument\n");
}

TEST_F(ToolTest, TakesOptionsAnywhereAndWithAnEqualsSign) {
    daemon.bindSocket();
    for (const std::vector<std::string>& words :
         {std::vector<std::string>{"--directory", folder.path(), "volume", "-7"},
          {"volume", "--directory=" + folder.path(), "-7"},
          {"volume", "-7", "--directory", folder.path()},
          {"volume", "--directory", folder.path(), "--", "-7"}}) {
        std::vector<std::string> command = words;
        command.insert(command.begin(), TOOL_PROGRAM);
        EXPECT_EQ(ChildProcess(command).wait(), 0) << words[1];
        EXPECT_THAT(daemon.messages(),
                    ElementsAre(DaemonEnds::Message{3, static_cast<uint16_t>(-7)}));
    }
}

TEST_F(ToolTest, TellsItsVersion) {
    EXPECT_EQ(run({"--version"}), 0);
    EXPECT_EQ(tool->output(), "uafd-companion " TOOL_VERSION "\n");
    EXPECT_EQ(run({"record", "--version"}), 0);
    EXPECT_EQ(tool->output(), "uafd-companion " TOOL_VERSION "\n");
}

}  // namespace
}  // namespace uafd
