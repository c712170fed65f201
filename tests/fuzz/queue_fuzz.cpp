// SPDX-License-Identifier: Apache-2.0
// The byte queue beside its model, in any sequence of calls: null pointers, lengths of every kind,
// storage attached again with and without clearing, a context initialised again in use. Codes,
// depth, delivered bytes, positions and every byte of the storage must be the model's.
#include <algorithm>
#include <memory>
#include <vector>

#include "buffer/queue.h"
#include "tests/fuzz/fuzz.h"
#include "tests/support/queue_model.h"

namespace uafd {

const int fuzz::kMaxInputBytes = 48;

namespace {

using fuzz::require;

constexpr int32_t kStorageMax = 512;
constexpr int32_t kLengthMax = 1024;  // the size of the memory behind a pointer

class QueueRun {
  public:
    explicit QueueRun(fuzz::Input& input) : input(input) { makeContext(); }

    void step() {
        const uint8_t call = input.byte();
        switch (call % 16) {
            case 0:
                refuseNullContext();
                break;
            case 1:
                makeContext();
                break;
            case 2:
            case 3:
                attach(call < 128);
                break;
            case 4:
                require(QUEUE_Clear(ctx.get()) == 0, "a clear succeeds");
                model.clear();
                break;
            case 5:
                require(QUEUE_GetDepth(ctx.get(), nullptr) == 2, "a null result is refused");
                break;
            default:
                call % 2 == 0 ? enqueue(call < 240) : dequeue(call < 240);
        }
        compare();
    }

  private:
    void makeContext() {
        require(QUEUE_GetContextSize() == sizeof(QUEUE_Ctx), "the context has its size");
        ctx = std::make_unique<QUEUE_Ctx>();
        std::fill_n(reinterpret_cast<uint8_t*>(ctx.get()), sizeof(QUEUE_Ctx), uint8_t{0xA5});
        require(QUEUE_InitContext(ctx.get()) == 0, "a context can be made");
        model = QueueModel();
        storage.clear();
    }

    int32_t length() { return input.size(static_cast<int32_t>(model.storage.size())); }

    // A refused call never follows its pointers: these lead nowhere.
    void refuseNullContext() {
        const int32_t n = length();
        uint8_t* const nowhere = n % 2 == 0 ? nullptr : reinterpret_cast<uint8_t*>(8);
        require(QUEUE_InitContext(nullptr) == 1, "InitContext refuses no context");
        require(QUEUE_SetBuffer(nullptr, nowhere, n) == 1, "SetBuffer refuses no context");
        require(QUEUE_Clear(nullptr) == 1, "Clear refuses no context");
        require(QUEUE_EnqueueFromBuff(nullptr, nowhere, n) == 1, "Enqueue refuses no context");
        require(QUEUE_DequeueToBuff(nullptr, nowhere, n) == 1, "Dequeue refuses no context");
        require(QUEUE_GetDepth(nullptr, nullptr) == 1, "GetDepth refuses no context");
    }

    void attach(bool haveStorage) {
        const int32_t size = length();
        const bool usable = haveStorage && size > 0 && size <= kStorageMax;
        if (haveStorage && size > kStorageMax && size % 4 == 0) {
            return;  // it would be accepted, and there is no such memory
        }
        std::vector<uint8_t> given(usable ? static_cast<size_t>(size) : 1);
        std::generate(given.begin(), given.end(), [this] { return nextByte(); });
        const int expected = model.setBuffer(haveStorage, given, size);
        require(QUEUE_SetBuffer(ctx.get(), haveStorage ? given.data() : nullptr, size) == expected,
                "SetBuffer returns the model's code");
        if (expected == 0) {
            storage = std::move(given);
        }
    }

    void enqueue(bool haveSource) {
        const int32_t n = length();
        std::vector<uint8_t> block(static_cast<size_t>(std::clamp(n, 0, kLengthMax)) + 1);
        block.pop_back();  // exactly `n` bytes of memory, but never a null pointer
        std::generate(block.begin(), block.end(), [this] { return nextByte(); });
        const uint8_t* const source = haveSource ? block.data() : nullptr;
        require(QUEUE_EnqueueFromBuff(ctx.get(), source, n) == model.enqueue(source, n),
                "Enqueue returns the model's code");
    }

    void dequeue(bool haveTarget) {
        const int32_t n = length();
        const std::vector<uint8_t> untouched(static_cast<size_t>(std::clamp(n, 1, kLengthMax)),
                                             0xEE);
        std::vector<uint8_t> out = untouched;
        std::vector<uint8_t> expected;
        const int code = model.dequeue(haveTarget, n, expected);
        require(QUEUE_DequeueToBuff(ctx.get(), haveTarget ? out.data() : nullptr, n) == code,
                "Dequeue returns the model's code");
        expected.resize(out.size(), 0xEE);
        require(out == expected, "Dequeue delivers the model's bytes");
    }

    void compare() {
        uint32_t depth = 0xDEADBEEF;
        require(QUEUE_GetDepth(ctx.get(), &depth) == 0 && depth == model.depth,
                "the depth is the model's");
        require(storage == model.storage, "the storage holds the model's bytes");
        require(ctx->bufStart == (storage.empty() ? nullptr : storage.data()),
                "the storage is where it was attached");
        require(ctx->readPtr - ctx->bufStart == static_cast<ptrdiff_t>(model.readAt) &&
                    ctx->writePtr - ctx->bufStart == static_cast<ptrdiff_t>(model.writeAt),
                "the positions are the model's");
    }

    uint8_t nextByte() { return static_cast<uint8_t>(filling += 0x4F); }

    fuzz::Input& input;
    std::unique_ptr<QUEUE_Ctx> ctx;
    std::vector<uint8_t> storage;
    QueueModel model;
    unsigned filling = 0;
};

}  // namespace

void fuzz::execute(Input& input) {
    QueueRun run(input);
    while (!input.empty()) {
        run.step();
    }
}

}  // namespace uafd
