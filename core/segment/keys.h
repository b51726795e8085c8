// The rule by which a segment and its semaphores are found: System V keys of a key file and of two
// files beside it, by ftok(), which uses the low 8 bits of a number alone.
#pragma once

#include <cstddef>
#include <cstring>

namespace halvo {

constexpr const char *kPostSuffix = ".post";   // of the file for the semaphores that wake readers
constexpr const char *kRequestSuffix = ".req"; // and for those that wake writers

constexpr int kSegmentProject = 1; // of the key file itself
constexpr int kReadLockProject = 201;
constexpr int kWriteLockProject = 202;
// Of the two other files: a channel's post and request semaphores.
constexpr int channel_project(int channel) { return channel + 1; }

constexpr size_t kKeyPathSize = 2048; // bytes for the longest of the three paths, ended by NUL

// The key file's path with a suffix; empty when it does not fit, so that ftok finds no such file.
struct KeyPath {
    char text[kKeyPathSize] = {};
    KeyPath(const char *keyfile, const char *suffix) {
        if (std::strlen(keyfile) + std::strlen(suffix) < sizeof text) {
            std::strcpy(text, keyfile);
            std::strcat(text, suffix);
        }
    }
};

} // namespace halvo
