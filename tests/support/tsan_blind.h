// SPDX-License-Identifier: Apache-2.0
// Hides what this thread does from ThreadSanitizer. A stand-in's locks and descriptors put the
// daemon's threads in an order that the real surroundings do not promise; if ThreadSanitizer saw
// it, races would stay hidden. The calls nest. Other builds do nothing.
#pragma once

#if defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define UAFD_TSAN 1
#endif
#endif

#ifdef UAFD_TSAN
// Functions of the sanitizer's runtime.
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

// Hides what orders threads: locks and descriptors.
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

// Hide what orders threads, and memory accesses.
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
