// SPDX-License-Identifier: Apache-2.0
// Queues that could replace the daemon's, of the same size.
#include <algorithm>
#include <array>
#include <boost/circular_buffer.hpp>
#include <boost/lockfree/spsc_queue.hpp>
#include <concurrentqueue/concurrentqueue.h>
#include <jack/ringbuffer.h>
#include <readerwriterqueue/readerwriterqueue.h>

#include "bench/host/contestants.h"

namespace bench {
namespace {

size_t sizeOf(int32_t samples) {
    return static_cast<size_t>(samples) * sizeof(int16_t);
}

class Jack {
  public:
    Jack() : ring(jack_ringbuffer_create(sizeOf(kStorage))) {}
    Jack(const Jack&) = delete;
    Jack& operator=(const Jack&) = delete;
    ~Jack() { jack_ringbuffer_free(ring); }

    void put(const int16_t* from, int32_t n) {
        jack_ringbuffer_write(ring, reinterpret_cast<const char*>(from), sizeOf(n));
    }
    void take(int16_t* to, int32_t n) {
        jack_ringbuffer_read(ring, reinterpret_cast<char*>(to), sizeOf(n));
    }

  private:
    jack_ringbuffer_t* const ring;
};

class BoostSpsc {
  public:
    void put(const int16_t* from, int32_t n) { queue.push(from, static_cast<size_t>(n)); }
    void take(int16_t* to, int32_t n) { queue.pop(to, static_cast<size_t>(n)); }

  private:
    boost::lockfree::spsc_queue<int16_t, boost::lockfree::capacity<kStorage>> queue;
};

class BoostCircular {
  public:
    void put(const int16_t* from, int32_t n) { buffer.insert(buffer.end(), from, from + n); }
    void take(int16_t* to, int32_t n) {
        const auto one = buffer.array_one();
        const size_t head = std::min(one.second, static_cast<size_t>(n));
        std::copy_n(one.first, head, to);
        std::copy_n(buffer.array_two().first, static_cast<size_t>(n) - head, to + head);
        buffer.erase_begin(static_cast<size_t>(n));
    }

  private:
    boost::circular_buffer<int16_t> buffer{static_cast<size_t>(kStorage)};
};

// Moves samples in bulk calls, with the tokens that make these fast.
class MoodycamelConcurrent {
  public:
    void put(const int16_t* from, int32_t n) {
        queue.enqueue_bulk(producer, from, static_cast<size_t>(n));
    }
    void take(int16_t* to, int32_t n) {
        queue.try_dequeue_bulk(consumer, to, static_cast<size_t>(n));
    }

  private:
    moodycamel::ConcurrentQueue<int16_t> queue{static_cast<size_t>(kStorage)};
    moodycamel::ProducerToken producer{queue};
    moodycamel::ConsumerToken consumer{queue};
};

// Has no bulk calls, so its elements are frames; it could not do the daemon's job.
class MoodycamelReaderWriter {
  public:
    void put(const int16_t* from, int32_t n) {
        for (int32_t done = 0; done < n; done += kFrame) {
            Frame frame;
            std::copy_n(from + done, kFrame, frame.begin());
            queue.try_enqueue(frame);
        }
    }
    void take(int16_t* to, int32_t /*n*/) {
        if (const Frame* const frame = queue.peek()) {
            std::copy_n(frame->begin(), kFrame, to);
            queue.pop();
        }
    }

  private:
    using Frame = std::array<int16_t, kFrame>;
    moodycamel::ReaderWriterQueue<Frame> queue{kStorage / kFrame};
};

}  // namespace

std::vector<QueueContestant> queueContestants() {
    std::vector<QueueContestant> all = ownQueues();
    all.insert(all.end(),
               {queueContestant<Jack>(kJack), queueContestant<BoostSpsc>("boost spsc_queue"),
                queueContestant<BoostCircular>("boost circular_buffer"),
                queueContestant<MoodycamelReaderWriter>("moodycamel ReaderWriterQueue of frames"),
                queueContestant<MoodycamelConcurrent>("moodycamel ConcurrentQueue")});
    return all;
}

}  // namespace bench
