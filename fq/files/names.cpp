// sms_fq: from a queue path to directory, base name and the data files that are there.
#include "fq/files/names.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <limits>

#include "core/base/posix.h"

using namespace halvo;
using namespace halvo::fq;

namespace {

int copy_part(const char *from, size_t length, char *to) {
    length = std::min<size_t>(length, FQ_NAME_SIZE - 1);
    std::memcpy(to, from, length);
    to[length] = '\0';
    return 1;
}

// The data files of one queue, by name: base name, ".0", anything. Compared as bytes, so that a
// base name with wildcard characters means itself.
class DataFiles {
public:
    explicit DataFiles(const char *path) {
        fq_nameof(path, prefix_);
        length_ = std::strlen(prefix_);
        std::memcpy(prefix_ + length_, ".0", 3);
        length_ += 2;
    }
    bool has(const char *name) const { return std::strncmp(name, prefix_, length_) == 0; }

private:
    char prefix_[FQ_NAME_SIZE + 3];
    size_t length_;
};

// Goes through the file orders found; `better` tells whether one replaces the running value.
// -1, and `searched` false, when the directory cannot be read.
template <class Better>
int find_order(int start, const char *path, int none, bool &searched, Better better) noexcept {
    searched = false;
    if (!usable_path(path)) return -1;
    char directory_name[FQ_NAME_SIZE];
    fq_dirof(path, directory_name);
    Directory directory(start, *directory_name ? directory_name : "/");
    if (!directory) return -1;
    const DataFiles files(path);
    int found = none;
    while (const char *name = directory.next()) {
        if (!files.has(name)) continue;
        const int order = fq_forderof(name);
        if (better(order, found)) found = order;
    }
    searched = !directory.failed();
    return searched ? found : -1;
}

} // namespace

int fq_dirof(const char *path, char *dir) noexcept {
    const char *slash = std::strrchr(path, '/');
    return slash ? copy_part(path, static_cast<size_t>(slash - path), dir) : copy_part(".", 1, dir);
}

int fq_nameof(const char *path, char *name) noexcept {
    const char *slash = std::strrchr(path, '/');
    const char *base = slash ? slash + 1 : path;
    return copy_part(base, std::strlen(base), name);
}

int fq_forderof(const char *filename) noexcept {
    const char *dot = std::strrchr(filename, '.');
    if (!dot) return 0;
    const long long number = std::strtoll(dot + 1, nullptr, 10);
    using Int = std::numeric_limits<int32_t>;
    return static_cast<int>(std::clamp<long long>(number, Int::min(), Int::max()));
}

// Kept: a data file of order 100000000 or above has no leading zero and is not found.
int halvo::fq::find_first_order(int directory, const char *path, bool &searched) noexcept {
    bool any = false;
    return find_order(directory, path, -1, searched, [&](int order, int lowest) {
        const bool first = !any;
        any = true;
        return first || order < lowest;
    });
}

int halvo::fq::find_last_order(int directory, const char *path) noexcept {
    bool searched = false;
    return find_order(directory, path, 0, searched,
                      [](int order, int highest) { return order > highest; });
}

int halvo::fq::find_next_order(int directory, const char *path, int32_t order) noexcept {
    bool searched = false;
    return find_order(directory, path, -1, searched, [order](int32_t found, int32_t nearest) {
        return comes_after(order, found) && (nearest == -1 || comes_after(found, nearest));
    });
}

int fq_find_forder_first(const char *path) noexcept {
    const CancellationOff whole_call;
    bool searched = false;
    return find_first_order(AT_FDCWD, path, searched);
}

int fq_find_forder_last(const char *path) noexcept {
    const CancellationOff whole_call;
    return find_last_order(AT_FDCWD, path);
}
