// SPDX-License-Identifier: Apache-2.0
// Sends the host its own sound back.
#include <vector>

#include "companion/tool/command.h"
#include "companion/tool/session.h"

namespace uafd {
namespace {

// Host and app have different clocks, so the queue's length drifts.
constexpr size_t kStartFrames = 720;  // queued before the first block
constexpr size_t kMostFrames = 1920;  // a longer queue is cut to kStartFrames

class Loop final : public Command, private Handler {
  public:
    Loop() noexcept : Command("loop", "", "send the host its own sound back") {}
    int run(const std::string& /*argument*/) override {
        Session session;
        return session.open(UAFD_SOUND) && session.run(this, *seconds) ? kExitDone : kExitFailed;
    }

  private:
    void onSound(const int16_t* samples, int frames) override {
        for (int i = 0; i < frames; ++i) {
            queue.push_back(samples[2 * i]);
        }
        if (queue.size() > kMostFrames) {
            drop(queue.size() - kStartFrames);
        }
    }
    // Returns silence until enough is queued, and again after the queue has run dry.
    void fillBlock(int16_t* samples) override {
        flows = queue.size() >= (flows ? UAFD_BLOCK_FRAMES : kStartFrames);
        for (size_t i = 0; flows && i < UAFD_BLOCK_FRAMES; ++i) {
            samples[2 * i] = samples[2 * i + 1] = queue[i];
        }
    }
    void onBlockTaken() override { drop(flows ? UAFD_BLOCK_FRAMES : 0); }
    bool isDone() override { return false; }

    void drop(size_t frames) {
        queue.erase(queue.begin(), queue.begin() + static_cast<std::ptrdiff_t>(frames));
    }

    Number<double> seconds{&options, "seconds", "N", kLeastS, kDayS, 0, kSecondsHelp};
    std::vector<int16_t> queue;
    bool flows = false;
};

Loop loop;

}  // namespace
}  // namespace uafd
