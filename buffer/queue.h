// SPDX-License-Identifier: Apache-2.0
// QUEUE: a first-in first-out stream of bytes in a circular storage area, usable from C.
// Owns no memory: the caller provides the context and the storage and frees both. Knows no OS and
// logs nothing. Not safe for concurrent use: the owner serialises every call, from any thread.
#pragma once

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

// What every call returns. Arguments are checked in the order of these codes, so a call with
// several faults reports the first; a refused call leaves the context unchanged.
enum QUEUE_Status {
    QUEUE_OK = 0,            // done
    QUEUE_NULL_CONTEXT = 1,  // context pointer is null
    QUEUE_NULL_DATA = 2,     // data, storage or result pointer is null
    QUEUE_BAD_SIZE = 3,      // storage size below 1 or no multiple of 4
    QUEUE_BAD_LENGTH = 4,    // length negative or larger than the storage
    QUEUE_FULL = 6           // the block does not fit; nothing of it was queued
};

// All lengths in bytes. After every call bufStart <= readPtr, writePtr < bufEnd.
typedef struct QUEUE_Ctx {
    uint8_t* bufStart;  // first byte of the storage
    uint8_t* bufEnd;    // one past the last byte of the storage
    uint8_t* readPtr;   // where the next dequeue starts
    uint8_t* writePtr;  // where the next enqueue goes
    int32_t size;       // capacity of the storage
    int32_t depth;      // bytes currently held
} QUEUE_Ctx;

// Bytes to allocate for a context.
uint32_t QUEUE_GetContextSize(void);

// Makes raw memory a context without storage.
int32_t QUEUE_InitContext(QUEUE_Ctx* ctx);

// Attaches `size` bytes of storage, a multiple of 4, in place of any earlier one. Leaves `depth` as
// it was: follow with QUEUE_Clear.
int32_t QUEUE_SetBuffer(QUEUE_Ctx* ctx, void* storage, int32_t size);

// Empties the queue; the storage is not touched.
int32_t QUEUE_Clear(QUEUE_Ctx* ctx);

// Appends `n` bytes, all of them or, when they do not fit, none (QUEUE_FULL).
int32_t QUEUE_EnqueueFromBuff(QUEUE_Ctx* ctx, const void* src, int32_t n);

// Takes `n` bytes. A queue that holds fewer gives what it has, followed by zeros, and succeeds.
int32_t QUEUE_DequeueToBuff(QUEUE_Ctx* ctx, void* dst, int32_t n);

// Stores the number of bytes held.
int32_t QUEUE_GetDepth(const QUEUE_Ctx* ctx, uint32_t* depth);

#ifdef __cplusplus
}
#endif
