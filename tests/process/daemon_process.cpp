// SPDX-License-Identifier: Apache-2.0
// The whole daemon, its own main under the name uafdMain, as a process whose surroundings a test
// controls. The daemon's main thread obeys the test's commands, each between two reads of the
// control device:
//   echo WORD                   the note "echo WORD": everything before it has been handled
//   answer FUNCTION CODE TIMES  the next calls of an alsa-lib function return CODE; 0 times: they
//                               work again
//   refuse CALL ERRNO TIMES     the next calls of a libc function fail (outside.h)
//   xrun STREAM, suspend STREAM, lag STREAM, stall STREAM 0|1, card 0|1
//   plant DEFECT                makes a mistake that must be reported: race, use, leak, shift
//   end                         looks for leaks and ends the process with status 0
#include <climits>
#include <cstdlib>
#include <sstream>
#include <string>
#include <thread>
#include <unistd.h>

#include <gtest/gtest.h>

#include "tests/process/outside.h"
#include "tests/support/fake_alsa.h"

#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#include <sanitizer/lsan_interface.h>
#define UAFD_LEAK_CHECK 1
#endif
#endif

int uafdMain();

namespace uafd {
namespace {

volatile int plantedNumber = 31;
char* volatile plantedMemory;

void plant(const std::string& defect) {
    if (defect == "race") {
        std::thread other([] { plantedNumber = 1; });
        plantedNumber = 2;
        other.join();
    } else if (defect == "use") {
        plantedMemory = new char[8]();
        delete[] plantedMemory;
        plantedMemory[0] = 1;
    } else if (defect == "leak") {
        for (int i = 0; i < 100; ++i) {
            plantedMemory = new char[8]();
        }
    } else if (defect == "shift") {
        plantedNumber = INT_MAX << plantedNumber;
    }
}

[[noreturn]] void end() {
#ifdef UAFD_LEAK_CHECK
    __lsan_do_leak_check();
#endif
    _exit(EXIT_SUCCESS);
}

outside::Stream streamIn(std::istream& words) {
    std::string name;
    words >> name;
    return name == "capture" ? outside::kCapture : outside::kPlayback;
}

void answer(std::istream& words) {
    std::string function;
    long code = 0;
    int times = 0;
    words >> function >> code >> times;
    if (times == 0) {
        fake_alsa::stopAnswering(function);
    }
    for (int nth = 1; nth <= times; ++nth) {
        fake_alsa::answerAt(function, nth, code);
    }
}

void refuse(std::istream& words) {
    std::string call;
    int error = 0;
    int times = 0;
    words >> call >> error >> times;
    if (!outside::refuse(call, error, times)) {
        ADD_FAILURE() << "no such call: " << call;
    }
}

bool valueIn(std::istream& words) {
    int value = 0;
    words >> value;
    return value != 0;
}

void obey(const std::string& command) {
    std::istringstream words(command);
    std::string verb;
    words >> verb;
    if (verb == "echo") {
        outside::note(command);
    } else if (verb == "answer") {
        answer(words);
    } else if (verb == "refuse") {
        refuse(words);
    } else if (verb == "stall") {
        const outside::Stream stream = streamIn(words);
        outside::stall(stream, valueIn(words));
    } else if (verb == "card") {
        outside::setCardThere(valueIn(words));
    } else if (verb == "plant") {
        std::string defect;
        words >> defect;
        plant(defect);
    } else if (verb == "end") {
        end();
    } else if (!outside::upset(verb, streamIn(words))) {
        ADD_FAILURE() << "no such command: " << command;
    }
}

}  // namespace
}  // namespace uafd

using namespace uafd;

int main(int count, char** arguments) {
    if (count != 2) {
        return EXIT_FAILURE;
    }
    // A stand-in that is misused ends the process on the spot.
    GTEST_FLAG_SET(break_on_failure, true);
    outside::install(arguments[1], obey);
    return uafdMain();
}
