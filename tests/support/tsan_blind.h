// SPDX-License-Identifier: Apache-2.0
// Hides what this thread does from ThreadSanitizer. A stand-in's locks and descriptors put the
// daemon's threads in an order that the real surroundings do not promise; if ThreadSanitizer saw
// it, races would stay hidden. The calls nest. Other builds do nothing.
#pragma once

#if defined(__has_feature)
#if __has_feature(thread_sanitizer)
// Functions of the sanitizer's runtime.
extern "C" {
void AnnotateIgnoreSyncBegin(const char* file, int line);
void AnnotateIgnoreSyncEnd(const char* file, int line);
void AnnotateIgnoreReadsBegin(const char* file, int line);
void AnnotateIgnoreReadsEnd(const char* file, int line);
void AnnotateIgnoreWritesBegin(const char* file, int line);
void AnnotateIgnoreWritesEnd(const char* file, int line);
}
#define TSAN_IGNORE(what) AnnotateIgnore##what(__FILE__, __LINE__)
#endif
#endif
#ifndef TSAN_IGNORE
#define TSAN_IGNORE(what) static_cast<void>(0)
#endif

namespace tsan_blind {

// Hides what orders threads: locks and descriptors.
class ToOrder {
  public:
    ToOrder() { TSAN_IGNORE(SyncBegin); }
    ~ToOrder() { TSAN_IGNORE(SyncEnd); }
    ToOrder(const ToOrder&) = delete;
    ToOrder& operator=(const ToOrder&) = delete;
};

// Hide what orders threads, and memory accesses.
inline void begin() {
    TSAN_IGNORE(SyncBegin);
    TSAN_IGNORE(ReadsBegin);
    TSAN_IGNORE(WritesBegin);
}
inline void end() {
    TSAN_IGNORE(WritesEnd);
    TSAN_IGNORE(ReadsEnd);
    TSAN_IGNORE(SyncEnd);
}

}  // namespace tsan_blind
