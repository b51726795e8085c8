// Natives of the Java tests alone: signals that are not the library's, the library's symbols, and
// the bytes of the segment.
#include <dlfcn.h>
#include <jni.h>
#include <pthread.h>
#include <signal.h>
#include <sys/ipc.h>
#include <sys/sem.h>

#include <cstring>
#include <string>

#include "core/segment/segment.h"
#include "halvo/result.h"

#define TEST_NATIVE(type, name)                                                                    \
    extern "C" JNIEXPORT type JNICALL Java_com_morvesk_halvo_ipc_TestNatives_##name

namespace {

std::string text(JNIEnv *env, jstring string) {
    const char *chars = env->GetStringUTFChars(string, nullptr);
    std::string copy(chars);
    env->ReleaseStringUTFChars(string, chars);
    return copy;
}

// Bytes of a channel header and what follows it, or of the segment for a negative number.
jbyte *bytes_of(jint channel) {
    if (channel < 0) return reinterpret_cast<jbyte *>(q_0());
    return reinterpret_cast<jbyte *>(q_chnnl2q(channel));
}

} // namespace

TEST_NATIVE(jlong, thisThread)(JNIEnv *, jclass) { return static_cast<jlong>(pthread_self()); }

TEST_NATIVE(jint, interrupt)(JNIEnv *, jclass, jlong thread) {
    const int foreign = SIGRTMIN + 5; // neither the VM nor the library knows it
    struct sigaction action {};
    action.sa_handler = [](int) {}; // without restart
    sigaction(foreign, &action, nullptr);
    return pthread_kill(static_cast<pthread_t>(thread), foreign);
}

TEST_NATIVE(jint, variable)(JNIEnv *env, jclass, jstring name) {
    const void *value = dlsym(RTLD_DEFAULT, text(env, name).c_str()); // this one needs the library
    return value ? *static_cast<const int32_t *>(value) : 0;
}

TEST_NATIVE(jint, resultCode)(JNIEnv *env, jclass, jstring name) {
    const std::string wanted = text(env, name);
#define IF_WANTED(code, value, meaning)                                                            \
    if (wanted == #code) return value;
    HALVO_RESULT_CODES(IF_WANTED)
    return 1;
}

TEST_NATIVE(jstring, vmString)(JNIEnv *env, jclass, jbyteArray bytes) {
    char chars[100]{}; // more than any text of the library
    env->GetByteArrayRegion(bytes, 0, env->GetArrayLength(bytes), reinterpret_cast<jbyte *>(chars));
    return env->ExceptionCheck() ? nullptr : env->NewStringUTF(chars);
}

TEST_NATIVE(void, peek)(JNIEnv *env, jclass, jint channel, jint offset, jbyteArray into) {
    env->SetByteArrayRegion(into, 0, env->GetArrayLength(into), bytes_of(channel) + offset);
}

TEST_NATIVE(void, poke)(JNIEnv *env, jclass, jint channel, jint offset, jbyteArray from) {
    env->GetByteArrayRegion(from, 0, env->GetArrayLength(from), bytes_of(channel) + offset);
}

// The value of a channel's semaphore in the sets of a key file, that with .post or .req; then it is 0.
TEST_NATIVE(jint, takePosts)(JNIEnv *env, jclass, jstring key_file, jint channel) {
    const int set = semget(ftok(text(env, key_file).c_str(), channel + 1), 1, 0);
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
