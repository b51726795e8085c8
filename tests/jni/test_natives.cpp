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

#include "core/segment.h"
#include "halvo/result.h"

#define TEST_NATIVE(type, name)                                                                    \
    extern "C" JNIEXPORT type JNICALL Java_com_morvesk_halvo_ipc_TestNatives_##name

namespace {

// A signal that neither the VM nor the library knows.
int foreign_signal() { return SIGRTMIN + 5; }

void ignore(int) {}

std::string text(JNIEnv *env, jstring string) {
    const char *chars = env->GetStringUTFChars(string, nullptr);
    std::string copy(chars);
    env->ReleaseStringUTFChars(string, chars);
    return copy;
}

void *symbol(JNIEnv *env, jstring name) {
    void *library = dlopen("libhalvoipc.so.1", RTLD_NOW | RTLD_NOLOAD);
    return library ? dlsym(library, text(env, name).c_str()) : nullptr;
}

// Bytes of a channel header and what follows it, or of the segment for a negative number.
jbyte *bytes_of(jint channel) {
    if (channel < 0) return reinterpret_cast<jbyte *>(q_0());
    return reinterpret_cast<jbyte *>(q_chnnl2q(channel));
}

} // namespace

TEST_NATIVE(jlong, thisThread)(JNIEnv *, jclass) { return static_cast<jlong>(pthread_self()); }

TEST_NATIVE(jint, interrupt)(JNIEnv *, jclass, jlong thread) {
    struct sigaction action {};
    action.sa_handler = ignore; // without restart
    sigaction(foreign_signal(), &action, nullptr);
    return pthread_kill(static_cast<pthread_t>(thread), foreign_signal());
}

TEST_NATIVE(jboolean, exports)(JNIEnv *env, jclass, jstring name) {
    return symbol(env, name) != nullptr;
}

TEST_NATIVE(jint, variable)(JNIEnv *env, jclass, jstring name) {
    const void *value = symbol(env, name);
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
    std::string chars(static_cast<size_t>(env->GetArrayLength(bytes)), '\0');
    env->GetByteArrayRegion(bytes, 0, env->GetArrayLength(bytes),
                            reinterpret_cast<jbyte *>(chars.data()));
    return env->ExceptionCheck() ? nullptr : env->NewStringUTF(chars.c_str());
}

TEST_NATIVE(void, peek)(JNIEnv *env, jclass, jint channel, jint offset, jbyteArray into) {
    env->SetByteArrayRegion(into, 0, env->GetArrayLength(into), bytes_of(channel) + offset);
}

TEST_NATIVE(void, poke)(JNIEnv *env, jclass, jint channel, jint offset, jbyteArray from) {
    env->GetByteArrayRegion(from, 0, env->GetArrayLength(from), bytes_of(channel) + offset);
}

TEST_NATIVE(jint, semaphore)(JNIEnv *env, jclass, jstring key_file, jint channel) {
    const key_t key = ftok(text(env, key_file).c_str(), channel + 1);
    return semctl(semget(key, 1, 0), 0, GETVAL);
}

// Every entry of the registry of waiting threads, with this thread in it; and empty again.
TEST_NATIVE(void, fillRegistry)(JNIEnv *, jclass) {
    while (reg_wait_thread(1000000) >= 0) {
    }
}
TEST_NATIVE(void, emptyRegistry)(JNIEnv *, jclass) {
    while (unreg_wait_thread() >= 0) {
    }
}
