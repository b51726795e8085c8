#include "tools/qm/keys.h"

#include "core/segment/keys.h"
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

key_t Keys::segment() const { return key_of(file_, kSegmentProject); }
key_t Keys::read_locks() const { return key_of(file_, kReadLockProject); }
key_t Keys::write_locks() const { return key_of(file_, kWriteLockProject); }
key_t Keys::post(int channel) const { return key_of(post_file_, channel_project(channel)); }
key_t Keys::request(int channel) const { return key_of(request_file_, channel_project(channel)); }

} // namespace halvo::qm
