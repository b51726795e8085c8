// Java binding: owners of what a native holds for the length of one call.
#pragma once

#include <jni.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "core/ring/end.h"
#include "halvo/segment.h"

namespace halvo {

struct FreeMemory {
    void operator()(void *memory) const noexcept { std::free(memory); }
};
template <class T>
using Memory = std::unique_ptr<T, FreeMemory>;

// A zero-filled block, or null. Room for a byte even when size is 0, so that null means failure.
template <class T>
Memory<T> zeroed(size_t size) noexcept {
    return Memory<T>(static_cast<T *>(std::calloc(size > 0 ? size : 1, 1)));
}

// Memory for a message: within itself when it is not large. Not cleared, except a large one that is to
// be zeros, which takes no more memory than is looked at.
class Block {
public:
    static constexpr int kInside = 2048; // bytes

    explicit Block(size_t size, bool zeros_if_large = false) noexcept
        : memory_(size <= sizeof inside_ ? nullptr : allocate(size, zeros_if_large)),
          begin_(size <= sizeof inside_ ? inside_ : memory_.get()) {}
    Block(const Block &) = delete;
    Block &operator=(const Block &) = delete;
    char *get() const noexcept { return begin_; } // null: there is no memory

private:
    static char *allocate(size_t size, bool zeros) noexcept {
        return static_cast<char *>(zeros ? std::calloc(size, 1) : std::malloc(size));
    }

    alignas(qmsg) char inside_[kInside];
    Memory<char> memory_;
    char *begin_;
};

// The characters of a Java string in the VM's UTF-8, given back at the end of the call.
//
//     StringChars name(env, string);
//     if (!name) return -8;
class StringChars {
public:
    // A null string has no characters; the VM would not survive the question.
    StringChars(JNIEnv *env, jstring string) noexcept
        : env_(env), string_(string),
          chars_(string ? env->GetStringUTFChars(string, nullptr) : nullptr) {}
    ~StringChars() {
        if (chars_) env_->ReleaseStringUTFChars(string_, chars_);
    }
    StringChars(const StringChars &) = delete;
    StringChars &operator=(const StringChars &) = delete;

    explicit operator bool() const noexcept { return chars_ != nullptr; }
    const char *get() const noexcept { return chars_; }

    // Leaves the characters with the VM for good.
    void keep() noexcept { chars_ = nullptr; }

private:
    JNIEnv *env_;
    jstring string_;
    const char *chars_;
};

// A reference to a class that lives as long as the scope.
class LocalClass {
public:
    LocalClass(JNIEnv *env, const char *name) noexcept : env_(env), class_(env->FindClass(name)) {}
    ~LocalClass() { env_->DeleteLocalRef(class_); }
    LocalClass(const LocalClass &) = delete;
    LocalClass &operator=(const LocalClass &) = delete;
    jclass get() const noexcept { return class_; }

private:
    JNIEnv *env_;
    jclass class_;
};

// Room for an image of one slot of a channel, whose header is zeros at first; false when there is no
// memory. It is filled by the calls of core/ring/read.h that compare its size with the slots'.
class SlotImage {
public:
    explicit SlotImage(const halvo_channel *q) noexcept
        : size_(slot_size(q)), block_(std::max<size_t>(size_, sizeof(qmsg))) {
        if (block_.get()) std::memset(block_.get(), 0, sizeof(qmsg));
    }
    explicit operator bool() const noexcept { return block_.get() != nullptr; }
    qmsg *get() const noexcept { return reinterpret_cast<qmsg *>(block_.get()); }
    uint32_t size() const noexcept { return size_; } // bytes of a slot when this was made

private:
    uint32_t size_;
    Block block_;
};

} // namespace halvo
