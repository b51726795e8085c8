#include "tools/qm/keys.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "core/segment/keys.h"
#include "tools/frame/clock.h"
#include "tools/frame/text.h"
#include "tools/qm/segment.h"

namespace halvo::qm {

using namespace tools;

namespace {

key_t key_of(const std::string &path, int id) {
    const key_t key = ftok(path.c_str(), id);
    if (key == -1) throw Error(system_text("key file %s", path.c_str()));
    // The kernel would make an object that nobody can find.
    if (key == IPC_PRIVATE) throw Error(text("key file %s gives the key 0", path.c_str()));
    return key;
}

// Whether a path still names an open file; another one may have been put in its place.
bool is_file_of(const std::string &path, int descriptor) {
    struct stat named {
    }, open{};
    return stat(path.c_str(), &named) == 0 && fstat(descriptor, &open) == 0 &&
           named.st_dev == open.st_dev && named.st_ino == open.st_ino;
}

Descriptor open_key_file(const std::string &path, bool make) {
    constexpr int kFlags = O_RDONLY | O_NONBLOCK;
    Descriptor file = open_file(path.c_str(), kFlags);
    if (file || !make || errno != ENOENT) return file;
    file = open_file(path.c_str(), kFlags | O_CREAT, 0644);
    if (!file) throw Error(system_text("cannot make key file %s", path.c_str()));
    return file;
}

} // namespace

Keys::Keys(const std::string &key_file)
    : file_(key_file), post_file_(key_file + kPostSuffix),
      request_file_(key_file + kRequestSuffix) {
    if (file_.empty()) throw Error("the path of the key file is empty");
    if (file_.find('\0') != std::string::npos)
        throw Error("the path of the key file has a NUL byte");
    if (post_file_.size() >= kKeyPathSize)
        throw Error(text("the path of the key file has %zu bytes; at most %zu can be attached by",
                         file_.size(), kKeyPathSize - 1 - (post_file_.size() - file_.size())));
}

KeyLock::KeyLock(const Keys &keys, bool make) {
    constexpr double kLongest = 10;     // seconds
    constexpr useconds_t kPause = 5000; // microseconds
    const std::string &path = keys.file();
    for (const double end = monotonic() + kLongest;; usleep(kPause)) {
        file_ = open_key_file(path, make);
        if (!file_) return;
        if (flock(file_.get(), LOCK_EX | LOCK_NB) != 0) {
            if (errno != EWOULDBLOCK) return; // a file system without such locks
        } else if (is_file_of(path, file_.get())) {
            return;
        }
        if (monotonic() > end)
            throw Error(
                text("key file %s: another program makes or removes its segment", path.c_str()));
    }
}

key_t Keys::segment() const { return key_of(file_, kSegmentProject); }
key_t Keys::read_locks() const { return key_of(file_, kReadLockProject); }
key_t Keys::write_locks() const { return key_of(file_, kWriteLockProject); }
key_t Keys::post(int channel) const { return key_of(post_file_, channel_project(channel)); }
key_t Keys::request(int channel) const { return key_of(request_file_, channel_project(channel)); }

} // namespace halvo::qm
