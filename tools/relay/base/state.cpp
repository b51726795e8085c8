#include "tools/relay/base/state.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstddef>
#include <cstring>

#include "tools/relay/base/hash.h"

namespace halvo::relay {

struct StateContent {
    char magic[8];
    uint32_t version;
    uint32_t size;
    char identity[1008]; // NUL-terminated; a longer one is cut and told apart by its hash
    uint64_t identity_hash;
    uint64_t check; // over everything before
    alignas(64) Figures figures;
    alignas(64) Sending sendings[2];
    std::atomic<uint32_t> current; // which of them
    alignas(64) Arriving arriving;
    alignas(64) Window windows[kSources];
};
static_assert(sizeof(Figures) == 120 && offsetof(StateContent, sendings) % 64 == 0);
static_assert(sizeof(Identity) == 16 && sizeof(Place) == 80 && sizeof(Window) == 32 + kWindow / 8);

namespace {

constexpr char kMagic[8] = {'H', 'A', 'L', 'V', 'O', 'R', 'L', 'Y'};

uint64_t header_sum(const StateContent &content) {
    return hash_of(&content, offsetof(StateContent, check));
}

// A lock of the open file, not of the process; whether somebody has it can be asked without taking it.
bool lock_whole(int descriptor, int command, struct flock &lock) {
    lock = {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    return fcntl(descriptor, command, &lock) == 0;
}

bool is_locked(int descriptor) {
    struct flock lock {};
    return lock_whole(descriptor, F_OFD_GETLK, lock) && lock.l_type != F_UNLCK;
}

std::string system_text(const std::string &path) { return path + ": " + std::strerror(errno); }

[[noreturn]] void damaged(const std::string &path, const char *what) {
    throw StateError(path + ": the state file is damaged (" + what +
                     "); without it the route begins with a new source number, and messages that "
                     "were in flight may be doubled");
}

bool is_empty(const StateContent &content) {
    const char *bytes = reinterpret_cast<const char *>(&content);
    for (size_t i = 0; i < offsetof(StateContent, figures); ++i)
        if (bytes[i]) return false;
    return true;
}

void begin(StateContent &content, const std::string &identity) {
    content.version = 1;
    content.size = sizeof content;
    identity.copy(content.identity, sizeof content.identity - 1);
    content.identity_hash = hash_of(identity.data(), identity.size());
    std::memcpy(content.magic, kMagic, sizeof kMagic);
    content.check = header_sum(content);
}

void look_at_header(const std::string &path, const StateContent &content,
                    const std::string &identity) {
    if (std::memcmp(content.magic, kMagic, sizeof kMagic) != 0 || content.size != sizeof content ||
        content.check != header_sum(content))
        damaged(path, "its header");
    if (content.identity_hash != hash_of(identity.data(), identity.size()))
        throw StateError(
            path + ": the state file is foreign: it is of \"" +
            std::string(content.identity, strnlen(content.identity, sizeof content.identity)) +
            "\", not of \"" + identity + "\"");
}

void look_at_content(const std::string &path, const StateContent &content) {
    const uint32_t current = content.current;
    if (current > 1) damaged(path, "its index");
    const Sending &sending = content.sendings[current];
    if (sending.source != 0 && (sending.listed > kMostBatch || sending.count > sending.listed ||
                                sending.check != sending.sum()))
        damaged(path, "its numbers");
    if (content.arriving.count > kMostBatch) damaged(path, "its list");
}

} // namespace

const char *name_of(Phase phase) {
    static const char *const names[] = {"stopped", "connecting", "running",
                                        "blocked", "waiting",    "failed"};
    const auto index = static_cast<size_t>(phase);
    return index < std::size(names) ? names[index] : "?";
}

uint64_t Sending::sum() const {
    uint64_t hash = hash_of(this, offsetof(Sending, check));
    return hash_of(shard, listed <= kMostBatch ? listed : 0, hash);
}

void Unmap::operator()(StateContent *content) const { munmap(content, sizeof *content); }

namespace {

// A new file gets its size, so that a full disk shows now and not by a signal at a store.
void reserve(const std::string &path, int descriptor) {
    const int full = posix_fallocate(descriptor, 0, sizeof(StateContent));
    if (full == 0) return;
    if (ftruncate(descriptor, 0) != 0) throw StateError(system_text(path));
    throw StateError(path + ": " + std::strerror(full));
}

MappedState mapped(const std::string &path, const Descriptor &file, int protection) {
    struct stat info {};
    if (fstat(file.get(), &info) != 0) throw StateError(system_text(path));
    if (info.st_size != sizeof(StateContent)) damaged(path, "its size");
    void *at = mmap(nullptr, sizeof(StateContent), protection, MAP_SHARED, file.get(), 0);
    if (at == MAP_FAILED) throw StateError(system_text(path));
    return MappedState(static_cast<StateContent *>(at));
}

Descriptor locked_file(const std::string &path) {
    Descriptor file = open_file(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW, 0600);
    if (!file) throw StateError(system_text(path));
    struct flock lock {};
    if (lock_whole(file.get(), F_OFD_SETLK, lock)) return file;
    throw StateError(errno == EAGAIN || errno == EACCES ? path + ": another relay has it"
                                                        : system_text(path));
}

} // namespace

StateFile::StateFile(const std::string &path, const std::string &identity)
    : file_(locked_file(path)) {
    struct stat info {};
    if (fstat(file_.get(), &info) != 0) throw StateError(system_text(path));
    if (info.st_size == 0) reserve(path, file_.get());
    content_ = mapped(path, file_, PROT_READ | PROT_WRITE);
    if (is_empty(*content_)) begin(*content_, identity);
    look_at_header(path, *content_, identity);
    look_at_content(path, *content_);
}

const Sending &StateFile::sending() const { return content_->sendings[content_->current]; }

void StateFile::store(Sending &sending) {
    sending.check = sending.sum();
    const uint32_t other = 1 - content_->current;
    std::memcpy(&content_->sendings[other], &sending, offsetof(Sending, shard) + sending.listed);
    content_->current.store(other, std::memory_order_release);
}

Arriving &StateFile::arriving() { return content_->arriving; }
Windows StateFile::windows() { return Windows(content_->windows); }
Figures &StateFile::figures() { return content_->figures; }

std::unique_ptr<Figures> read_figures(const std::string &path, const std::string &identity,
                                      bool &running) {
    running = false;
    const Descriptor file = open_file(path.c_str(), O_RDONLY);
    if (!file && errno == ENOENT) return nullptr;
    if (!file) throw StateError(system_text(path));
    running = is_locked(file.get());
    const MappedState content = mapped(path, file, PROT_READ);
    look_at_header(path, *content, identity);
    auto figures = std::make_unique<Figures>();
    std::memcpy(static_cast<void *>(figures.get()), &content->figures, sizeof *figures);
    return figures;
}

} // namespace halvo::relay
