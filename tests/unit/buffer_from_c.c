// SPDX-License-Identifier: Apache-2.0
// The buffer modules as a C program sees them; called by ssrs_setup_test.
#include <stdlib.h>
#include <string.h>

#include "buffer/queue.h"
#include "buffer/ssrs.h"

#define REQUIRE(condition)   \
    do {                     \
        if (!(condition)) {  \
            return __LINE__; \
        }                    \
    } while (0)

static int queueFromC(void) {
    QUEUE_Ctx ctx;
    uint32_t storage[2];
    char out[4];
    uint32_t depth;
    REQUIRE(QUEUE_GetContextSize() == sizeof(ctx));
    REQUIRE(QUEUE_InitContext(&ctx) == QUEUE_OK);
    REQUIRE(QUEUE_SetBuffer(&ctx, storage, 6) == QUEUE_BAD_SIZE);
    REQUIRE(QUEUE_SetBuffer(&ctx, storage, sizeof(storage)) == QUEUE_OK);
    REQUIRE(QUEUE_Clear(&ctx) == QUEUE_OK);
    REQUIRE(QUEUE_EnqueueFromBuff(&ctx, "abc", 3) == QUEUE_OK);
    REQUIRE(QUEUE_GetDepth(&ctx, &depth) == QUEUE_OK && depth == 3);
    REQUIRE(QUEUE_DequeueToBuff(&ctx, out, 4) == QUEUE_OK);
    REQUIRE(memcmp(out, "abc", 4) == 0);
    return 0;
}

static int ssrsFromC(SSRS_Ctx* ctx) {
    int16_t storage[8];
    const int16_t block[2] = {5, 6};
    int16_t frame[2];
    SSRS_Stats stats;
    REQUIRE(SSRS_InitContext(ctx) == SSRS_OK);
    REQUIRE(SSRS_SetFrameSize(ctx, SSRS_FRAME_SIZE_MAX + 1) == SSRS_BAD_PARAMETER);
    REQUIRE(SSRS_SetFrameSize(ctx, 2) == SSRS_OK);
    REQUIRE(SSRS_SetQBuff(ctx, storage, 8) == SSRS_OK);
    REQUIRE(SSRS_SetQDepth(ctx, 2, 4) == SSRS_OK);
    REQUIRE(SSRS_Write(ctx, block, 2) == SSRS_OK);
    REQUIRE(SSRS_Read(ctx, frame) == SSRS_OK && frame[0] == 0 && frame[1] == 5);
    REQUIRE(SSRS_StatsGet(ctx, &stats) == SSRS_OK && stats.rdSamples == 2);
    return 0;
}

int bufferFromC(void) {
    const int queueResult = queueFromC();
    SSRS_Ctx* const ctx = malloc(SSRS_GetContextSize());
    const int ssrsResult = ctx == NULL ? __LINE__ : ssrsFromC(ctx);
    free(ctx);
    return queueResult != 0 ? queueResult : ssrsResult;
}
