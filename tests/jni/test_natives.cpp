// Natives of the Java tests alone: signals that are not the library's, and the bytes of the segment.
#include <jni.h>
#include <pthread.h>
#include <signal.h>
#include <sys/ipc.h>
#include <sys/sem.h>

#include "core/segment/segment.h"

#define TEST_NATIVE(type, name)                                                                    \
    extern "C" JNIEXPORT type JNICALL Java_com_morvesk_halvo_ipc_TestSegment_##name

TEST_NATIVE(jlong, thisThread)(JNIEnv *, jclass) { return static_cast<jlong>(pthread_self()); }

TEST_NATIVE(jint, interrupt)(JNIEnv *, jclass, jlong thread) {
    const int foreign = SIGRTMIN + 5; // neither the VM nor the library knows it
    struct sigaction action {};
    action.sa_handler = [](int) {}; // without restart
    sigaction(foreign, &action, nullptr);
    return pthread_kill(static_cast<pthread_t>(thread), foreign);
}

TEST_NATIVE(jstring, vmString)(JNIEnv *env, jclass, jbyteArray bytes) {
    char chars[100]{}; // more than any text of the library
    env->GetByteArrayRegion(bytes, 0, env->GetArrayLength(bytes), reinterpret_cast<jbyte *>(chars));
    return env->ExceptionCheck() ? nullptr : env->NewStringUTF(chars);
}

// A channel header and what follows it, or the segment for a negative number.
TEST_NATIVE(jobject, memoryOf)(JNIEnv *env, jclass, jint channel) {
    void *start = channel < 0 ? static_cast<void *>(q_0()) : q_chnnl2q(channel);
    return env->NewDirectByteBuffer(start, 1 << 20);
}

// The value of a channel's semaphore in the sets of a key file, that with .post or .req; then it is 0.
TEST_NATIVE(jint, takePosts)(JNIEnv *env, jclass, jstring key_file, jint channel) {
    const char *path = env->GetStringUTFChars(key_file, nullptr);
    const int set = semget(ftok(path, channel + 1), 1, 0);
    env->ReleaseStringUTFChars(key_file, path);
    const int posts = semctl(set, 0, GETVAL);
    semctl(set, 0, SETVAL, 0);
    return posts;
}

// Every entry of the registry of waiting threads, with this thread in it; and empty again.
TEST_NATIVE(void, fillRegistry)(JNIEnv *, jclass) {
    while (reg_wait_thread(1000000) >= 0) continue;
}
TEST_NATIVE(void, emptyRegistry)(JNIEnv *, jclass) {
    while (unreg_wait_thread() >= 0) continue;
}
