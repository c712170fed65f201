#include <algorithm>
#include <deque>

#include "companion/tool/commands.h"
#include "companion/tool/session.h"
#include "companion/tool/tool.h"

namespace {

// Host and app have clocks of their own: what is queued wanders.
constexpr size_t kStartFrames = 720;  // before the first block
constexpr size_t kMostFrames = 1920;  // more is cut back to that

class Looper : public Handler {
  public:
    explicit Looper(double seconds)
        : ticksLeft_(seconds > 0 ? static_cast<int64_t>(seconds / kBlockS) : INT64_MAX) {}

    void onSound(const int16_t* samples, int frames) override {
        for (int i = 0; i < frames; ++i) {
            queue_.push_back(samples[2 * i]);
        }
        if (queue_.size() > kMostFrames) {
            drop(queue_.size() - kStartFrames);
        }
    }
    // Silence until there is enough, and again when it runs dry.
    void fillBlock(int16_t* samples) override {
        flows_ = queue_.size() >= (flows_ ? UAFD_BLOCK_FRAMES : kStartFrames);
        for (size_t i = 0; flows_ && i < UAFD_BLOCK_FRAMES; ++i) {
            samples[2 * i] = samples[2 * i + 1] = queue_[i];
        }
    }
    void onBlockTaken() override { drop(flows_ ? UAFD_BLOCK_FRAMES : 0); }
    void onTick() override { --ticksLeft_; }
    bool isDone() override { return ticksLeft_ <= 0; }

  private:
    void drop(size_t frames) {
        queue_.erase(queue_.begin(), queue_.begin() + static_cast<std::ptrdiff_t>(frames));
    }

    std::deque<int16_t> queue_;
    bool flows_ = false;
    int64_t ticksLeft_;
};

}  // namespace

int loopBack(const CommandLine& line) {
    Session session(line.directory);
    Looper looper(line.seconds);
    if (!session.open()) {
        return kExitFailed;
    }
    session.run(&looper);
    return kExitDone;
}
