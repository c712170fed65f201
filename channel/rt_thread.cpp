// SPDX-License-Identifier: Apache-2.0
#include "channel/rt_thread.h"

#include <cerrno>
#include <sched.h>

#include "platform/log.h"

namespace uafd {
namespace {

void setRtScheduling(pthread_attr_t* attributes, const char* tag) {
    if (pthread_attr_setschedpolicy(attributes, SCHED_FIFO) != 0) {
        LOGE_AS(tag, "unable to setschedpolicy\n");
        return;
    }
    sched_param parameters;
    if (pthread_attr_getschedparam(attributes, &parameters) != 0) {
        return;
    }
    parameters.sched_priority = kRtPriority;
    if (pthread_attr_setschedparam(attributes, &parameters) != 0) {
        LOGE_AS(tag, "unable to set thread priority\n");
        return;
    }
    // Without this call the creator's policy and priority are inherited and those above ignored. It
    // comes last, because SCHED_FIFO without a priority would make the creation fail.
    pthread_attr_setinheritsched(attributes, PTHREAD_EXPLICIT_SCHED);
}

}  // namespace

int createRtThread(pthread_t* threadId, void* (*entry)(void*), void* argument, const char* tag) {
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    setRtScheduling(&attributes, tag);
    pthread_t created;
    const int rc = pthread_create(&created, &attributes, entry, argument);
    const int savedErrno = errno;
    pthread_attr_destroy(&attributes);
    if (rc == 0) {
        *threadId = created;
    }
    errno = savedErrno;
    return rc;
}

}  // namespace uafd
