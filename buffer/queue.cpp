// SPDX-License-Identifier: Apache-2.0
#include "buffer/queue.h"

#include <algorithm>
#include <cstddef>
#include <cstring>

namespace {

// How the end of the storage splits a block of `bytes` at `position`, and where the next block
// starts. After a block that ends exactly at the end of the storage the next is at its start.
struct Split {
    Split(const QUEUE_Ctx* ctx, uint8_t* position, size_t bytes) {
        const auto room = static_cast<size_t>(ctx->bufEnd - position);
        head = std::min(bytes, room);
        rest = bytes - head;
        next = bytes < room ? position + bytes : ctx->bufStart + rest;
    }
    size_t head;  // bytes before the end of the storage
    size_t rest;  // bytes from its start on
    uint8_t* next;
};

int32_t QueueEnqueueFromBuff(QUEUE_Ctx* ctx, const uint8_t* src, int32_t n) {
    if (n > ctx->size - ctx->depth) {
        return QUEUE_FULL;
    }
    uint8_t* const dst = ctx->writePtr;
    const Split split(ctx, dst, static_cast<size_t>(n));
    ctx->writePtr = split.next;
    ctx->depth += n;
    memmove(dst, src, split.head);
    if (split.rest > 0) {
        memmove(ctx->bufStart, src + split.head, split.rest);
    }
    return QUEUE_OK;
}

int32_t QueueDequeueToBuff(QUEUE_Ctx* ctx, uint8_t* dst, int32_t n) {
    if (ctx->depth < n) {
        memset(dst, 0, static_cast<size_t>(n));
        n = ctx->depth;
    }
    const uint8_t* const src = ctx->readPtr;
    const Split split(ctx, ctx->readPtr, static_cast<size_t>(n));
    ctx->readPtr = split.next;
    ctx->depth -= n;
    memmove(dst, src, split.head);
    if (split.rest > 0) {
        memmove(dst + split.head, ctx->bufStart, split.rest);
    }
    return QUEUE_OK;
}

// The checks that both directions share; QUEUE_OK lets the transfer go ahead.
int32_t checkTransfer(const QUEUE_Ctx* ctx, const void* data, int32_t n) {
    if (ctx == nullptr) {
        return QUEUE_NULL_CONTEXT;
    }
    if (data == nullptr) {
        return QUEUE_NULL_DATA;
    }
    return n < 0 || n > ctx->size ? QUEUE_BAD_LENGTH : QUEUE_OK;
}

}  // namespace

uint32_t QUEUE_GetContextSize(void) {
    return sizeof(QUEUE_Ctx);
}

int32_t QUEUE_InitContext(QUEUE_Ctx* ctx) {
    if (ctx == nullptr) {
        return QUEUE_NULL_CONTEXT;
    }
    *ctx = QUEUE_Ctx{};
    return QUEUE_OK;
}

int32_t QUEUE_SetBuffer(QUEUE_Ctx* ctx, void* storage, int32_t size) {
    if (ctx == nullptr) {
        return QUEUE_NULL_CONTEXT;
    }
    if (storage == nullptr) {
        return QUEUE_NULL_DATA;
    }
    if (size < 1 || size % 4 != 0) {
        return QUEUE_BAD_SIZE;
    }
    ctx->bufStart = ctx->readPtr = ctx->writePtr = static_cast<uint8_t*>(storage);
    ctx->bufEnd = ctx->bufStart + size;
    ctx->size = size;
    return QUEUE_OK;
}

int32_t QUEUE_Clear(QUEUE_Ctx* ctx) {
    if (ctx == nullptr) {
        return QUEUE_NULL_CONTEXT;
    }
    ctx->readPtr = ctx->writePtr = ctx->bufStart;
    ctx->depth = 0;
    return QUEUE_OK;
}

int32_t QUEUE_EnqueueFromBuff(QUEUE_Ctx* ctx, const void* src, int32_t n) {
    const int32_t status = checkTransfer(ctx, src, n);
    if (status != QUEUE_OK || n == 0) {
        return status;
    }
    return QueueEnqueueFromBuff(ctx, static_cast<const uint8_t*>(src), n);
}

int32_t QUEUE_DequeueToBuff(QUEUE_Ctx* ctx, void* dst, int32_t n) {
    const int32_t status = checkTransfer(ctx, dst, n);
    if (status != QUEUE_OK || n == 0) {
        return status;
    }
    return QueueDequeueToBuff(ctx, static_cast<uint8_t*>(dst), n);
}

int32_t QUEUE_GetDepth(const QUEUE_Ctx* ctx, uint32_t* depth) {
    if (ctx == nullptr) {
        return QUEUE_NULL_CONTEXT;
    }
    if (depth == nullptr) {
        return QUEUE_NULL_DATA;
    }
    *depth = static_cast<uint32_t>(ctx->depth);
    return QUEUE_OK;
}
