// SPDX-License-Identifier: Apache-2.0
// Closes ThreadSanitizer's eyes on this thread. A stand-in's locks and descriptors order the
// daemon's threads where the real outside promises no order; seen, they would hide races. Calls
// nest. In other builds nothing happens.
#pragma once

#if defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define UAFD_TSAN 1
#endif
#endif

#ifdef UAFD_TSAN
// The runtime's own names.
extern "C" {
void AnnotateIgnoreSyncBegin(const char* file, int line);
void AnnotateIgnoreSyncEnd(const char* file, int line);
void AnnotateIgnoreReadsBegin(const char* file, int line);
void AnnotateIgnoreReadsEnd(const char* file, int line);
void AnnotateIgnoreWritesBegin(const char* file, int line);
void AnnotateIgnoreWritesEnd(const char* file, int line);
}
#endif

namespace tsan_blind {

// To what orders threads: locks, descriptors.
class ToOrder {
  public:
#ifdef UAFD_TSAN
    ToOrder() {
        AnnotateIgnoreSyncBegin(__FILE__, __LINE__);
    }
    ~ToOrder() {
        AnnotateIgnoreSyncEnd(__FILE__, __LINE__);
    }
#else
    ToOrder() {}
    ~ToOrder() {}
#endif
    ToOrder(const ToOrder&) = delete;
    ToOrder& operator=(const ToOrder&) = delete;
};

// To order and to memory.
inline void begin() {
#ifdef UAFD_TSAN
    AnnotateIgnoreSyncBegin(__FILE__, __LINE__);
    AnnotateIgnoreReadsBegin(__FILE__, __LINE__);
    AnnotateIgnoreWritesBegin(__FILE__, __LINE__);
#endif
}

inline void end() {
#ifdef UAFD_TSAN
    AnnotateIgnoreWritesEnd(__FILE__, __LINE__);
    AnnotateIgnoreReadsEnd(__FILE__, __LINE__);
    AnnotateIgnoreSyncEnd(__FILE__, __LINE__);
#endif
}

}  // namespace tsan_blind
