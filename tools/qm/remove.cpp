// halvo-qm remove: the segment, its semaphores and key files.
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "tools/frame/text.h"
#include "tools/qm/objects.h"
#include "tools/qm/segment.h"

namespace halvo::qm {

using namespace tools;

namespace {

// Key files of ours are empty; one with content belongs to somebody else and stays.
bool remove_file(const std::string &path, std::string &failure) {
    struct stat state {};
    if (lstat(path.c_str(), &state) < 0 || !S_ISREG(state.st_mode) || state.st_size != 0)
        return false;
    if (unlink(path.c_str()) < 0 && errno != ENOENT && failure.empty())
        failure = system_text("cannot remove key file %s", path.c_str());
    return true;
}

} // namespace

bool remove(const std::string &key_file) {
    const Keys keys(key_file);
    const KeyLock turn(keys, false);
    std::string failure;
    bool found = remove_objects(keys, failure);
    // Without their files the objects could not be found again.
    if (failure.empty())
        for (const std::string *path : {&keys.request_file(), &keys.post_file(), &keys.file()})
            found |= remove_file(*path, failure);
    if (!failure.empty()) throw Error(failure);
    return found;
}

} // namespace halvo::qm
