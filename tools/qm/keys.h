// The System V keys of a segment and its semaphores, all derived from one key file.
#pragma once

#include <sys/ipc.h>

#include <string>

#include "core/base/posix.h"

namespace halvo::qm {

// A key carries the low 8 bits of its number only: channels this far apart share their semaphores.
constexpr int kKeyPeriod = 256;

class Keys {
public:
    // Throws Error for a path that no process could attach by: empty, or too long.
    explicit Keys(const std::string &key_file);

    const std::string &file() const { return file_; }
    const std::string &post_file() const { return post_file_; }
    const std::string &request_file() const { return request_file_; }

    // Each throws Error when its file is missing.
    key_t segment() const;
    key_t read_locks() const;
    key_t write_locks() const;
    key_t post(int channel) const;
    key_t request(int channel) const;

private:
    std::string file_;
    std::string post_file_;
    std::string request_file_;
};

// Has those who make and remove what stands under one key file take turns, by a lock of that file.
class KeyLock {
public:
    // `make`: the key file, if there is none. Waits for some seconds; throws Error when another one
    // is still at work then. A file that this user may not read is not locked.
    KeyLock(const Keys &keys, bool make);

private:
    Descriptor file_;
};

} // namespace halvo::qm
