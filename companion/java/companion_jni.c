// SPDX-License-Identifier: Apache-2.0
// The native methods of uafd.Companion. Arrays are copied: what is too short throws in Java.
#include <errno.h>
#include <jni.h>
#include <stdint.h>
#include <uafd_companion.h>

#define COPIED_FRAMES 4096
#define METHOD(type, name) JNIEXPORT type JNICALL Java_uafd_Companion_##name

static uafd_companion* companion_of(jlong handle) {
    // NOLINTNEXTLINE(performance-no-int-to-ptr): Java has no pointer to keep
    return (uafd_companion*)(intptr_t)handle;
}

// Done, lost because no daemon takes it, or failed.
static jint done_or_lost(int result) {
    if (result == -EAGAIN || result == -EPIPE || result == -ECONNREFUSED) {
        return 0;
    }
    return result < 0 ? result : 1;
}

// Null for null, and where there is no memory, of which Java then knows.
static const char* begin_text(JNIEnv* env, jstring text) {
    return text == NULL ? NULL : (*env)->GetStringUTFChars(env, text, NULL);
}

static void end_text(JNIEnv* env, jstring text, const char* bytes) {
    if (bytes != NULL) {
        (*env)->ReleaseStringUTFChars(env, text, bytes);
    }
}

METHOD(jint, nativeOpen)
(JNIEnv* env, jclass class, jstring directory, jint parts, jstring group, jint mode,
 jlongArray handle) {
    (void)class;
    uafd_options options = UAFD_OPTIONS_INIT;
    options.parts = (unsigned)parts;
    options.mode = (unsigned)mode;
    options.directory = begin_text(env, directory);
    options.group = begin_text(env, group);
    uafd_companion* companion = NULL;
    const int result =
        (*env)->ExceptionCheck(env) ? -ENOMEM : uafd_companion_open_with(&options, &companion);
    end_text(env, group, options.group);
    end_text(env, directory, options.directory);
    const jlong opened = (jlong)(intptr_t)companion;
    (*env)->SetLongArrayRegion(env, handle, 0, 1, &opened);
    return result;
}

METHOD(void, nativeClose)(JNIEnv* env, jclass class, jlong handle) {
    (void)env, (void)class;
    uafd_companion_close(companion_of(handle));
}

METHOD(jint, nativeSpeakerFd)(JNIEnv* env, jclass class, jlong handle) {
    (void)env, (void)class;
    return uafd_companion_speaker_fd(companion_of(handle));
}

METHOD(jint, nativeMicFd)(JNIEnv* env, jclass class, jlong handle) {
    (void)env, (void)class;
    return uafd_companion_mic_fd(companion_of(handle));
}

METHOD(jint, nativeEventsFd)(JNIEnv* env, jclass class, jlong handle) {
    (void)env, (void)class;
    return uafd_companion_events_fd(companion_of(handle));
}

METHOD(jint, nativeAwait)(JNIEnv* env, jclass class, jlong handle, jint timeout_ms) {
    (void)env, (void)class;
    const int result = uafd_companion_wait_for(companion_of(handle), timeout_ms);
    return result == -EINTR ? 0 : result;
}

METHOD(void, nativeWake)(JNIEnv* env, jclass class, jlong handle) {
    (void)env, (void)class;
    uafd_companion_wake(companion_of(handle));
}

METHOD(jint, nativeRead)
(JNIEnv* env, jclass class, jlong handle, jshortArray samples, jint frames) {
    (void)class;
    int16_t copy[UAFD_CHANNELS * COPIED_FRAMES];
    const jint room = (*env)->GetArrayLength(env, samples) / UAFD_CHANNELS;
    if (frames < 0 || frames > room) {
        return -EINVAL;
    }
    const int got = uafd_companion_read(companion_of(handle), copy,
                                        (size_t)(frames < COPIED_FRAMES ? frames : COPIED_FRAMES));
    if (got > 0) {
        (*env)->SetShortArrayRegion(env, samples, 0, UAFD_CHANNELS * got, copy);
    }
    return got;
}

METHOD(jint, nativeWrite)(JNIEnv* env, jclass class, jlong handle, jshortArray samples) {
    (void)class;
    int16_t copy[UAFD_CHANNELS * UAFD_BLOCK_FRAMES];
    (*env)->GetShortArrayRegion(env, samples, 0, UAFD_CHANNELS * UAFD_BLOCK_FRAMES, copy);
    if ((*env)->ExceptionCheck(env)) {
        return 0;
    }
    return done_or_lost(uafd_companion_write(companion_of(handle), copy));
}

METHOD(jint, nativeSync)(JNIEnv* env, jclass class, jlong handle) {
    (void)env, (void)class;
    return done_or_lost(uafd_companion_sync(companion_of(handle)));
}

METHOD(jint, nativeSetSpeakerVolume)(JNIEnv* env, jclass class, jlong handle, jshort volume) {
    (void)env, (void)class;
    return done_or_lost(uafd_companion_set_speaker_volume(companion_of(handle), volume));
}

METHOD(jint, nativeSetSpeakerMute)(JNIEnv* env, jclass class, jlong handle, jboolean muted) {
    (void)env, (void)class;
    return done_or_lost(uafd_companion_set_speaker_mute(companion_of(handle), muted));
}

METHOD(jint, nativeNextEvent)
(JNIEnv* env, jclass class, jlong handle, jintArray type_and_value) {
    (void)class;
    uafd_event event;
    const int result = uafd_companion_next_event(companion_of(handle), &event);
    if (result == 1) {
        const jint copy[] = {(jint)event.type, event.value};
        (*env)->SetIntArrayRegion(env, type_and_value, 0, 2, copy);
    }
    return result;
}

METHOD(void, nativeCounts)(JNIEnv* env, jclass class, jlong handle, jlongArray values) {
    (void)class;
    uafd_counts counts;
    uafd_companion_counts(companion_of(handle), &counts);
    const jlong copy[] = {
        (jlong)counts.frames_read,   (jlong)counts.blocks_taken,    (jlong)counts.blocks_refused,
        (jlong)counts.blocks_unread, (jlong)counts.events,          (jlong)counts.datagrams_bad,
        (jlong)counts.messages_sent, (jlong)counts.messages_failed,
    };
    (*env)->SetLongArrayRegion(env, values, 0, sizeof copy / sizeof *copy, copy);
}

METHOD(jstring, nativeReasonOf)(JNIEnv* env, jclass class, jint result) {
    (void)class;
    return (*env)->NewStringUTF(env, uafd_companion_error_text(result));
}

METHOD(jstring, nativeVersion)(JNIEnv* env, jclass class) {
    (void)class;
    return (*env)->NewStringUTF(env, uafd_companion_version());
}
