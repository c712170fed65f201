// SPDX-License-Identifier: Apache-2.0
#include "tests/support/channel_lifecycle.h"

#include <cerrno>
#include <csignal>
#include <unistd.h>

#include <sys/stat.h>

namespace uafd {

void ChannelLifecycleTest::SetUp() {
    signal(SIGPIPE, SIG_IGN);
    makeFifos();
    fake_sys::hooks().nanosleep = [](const timespec*, timespec*) {
        return fake_sys::real::sched_yield();
    };
    fake_sys::hooks().open = [this](const char* path, int flags) {
        openerTid = gettid();
        return fake_sys::real::open(path, flags);
    };
    fake_sys::hooks().fopen = [](const char*, const char*) {
        errno = ENOENT;
        return nullptr;
    };
    fake_alsa::hooks().wait = [this](snd_pcm_t* pcm, int timeoutMs) {
        atWait();
        std::this_thread::yield();
        return fake_alsa::device::wait(pcm, timeoutMs);
    };
    fake_alsa::hooks().writei = [this](snd_pcm_t* pcm, const int16_t* samples,
                                       snd_pcm_uframes_t frames) {
        lastPlayed = samples[frames - 1];
        return fake_alsa::device::writei(pcm, samples, frames);
    };
    setNames();
}

void ChannelLifecycleTest::TearDown() {
    EXPECT_TRUE(source.hasStopped());
    EXPECT_TRUE(sink.hasStopped());
    source.joinWorker();
    sink.joinWorker();
    EXPECT_EQ(0, fake_alsa::pcmsOpen());
    signal(SIGPIPE, SIG_DFL);
    fake_sys::Test::TearDown();
}

void ChannelLifecycleTest::makeFifos() {
    ASSERT_EQ(0, mkfifo(sourceFifo.c_str(), 0600));
    ASSERT_EQ(0, mkfifo(sinkFifo.c_str(), 0600));
}

void ChannelLifecycleTest::setNames() {
    source.setDevName(sourceFifo.c_str(), kPcmName);
    sink.setDevName(sinkFifo.c_str(), kPcmName);
}

void ChannelLifecycleTest::replaceOnceWaitedOn(const std::string& fifo) {
    ASSERT_TRUE(eventually([&] { return openerTid != 0 && isAsleep(openerTid); }));
    ASSERT_EQ(0, unlink(fifo.c_str()));
    ASSERT_EQ(0, mkfifo(fifo.c_str(), 0600));
}

void ChannelLifecycleTest::expectAlternatingMessages() {
    for (const uint32_t type : {kSinkMessage, kSourceMessage}) {
        uint32_t expected = 1;
        for (const fake_ipc::Message& message : fake_ipc::messages()) {
            if (message.first == type) {
                ASSERT_EQ(expected, message.second) << "type " << type;
                expected = 1 - expected;
            }
        }
        EXPECT_EQ(1U, expected) << "type " << type << " ends with an on";
    }
}

int ChannelLifecycleTest::logged(int priority, const char* tag, const std::string& text) {
    return fake_log::count({priority, tag, text});
}

}  // namespace uafd
