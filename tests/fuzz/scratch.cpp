#include "tests/fuzz/scratch.h"

#include <unistd.h>

#include <cstdlib>
#include <filesystem>

#include "core/posix.h"

namespace halvo::fuzz {

namespace {

struct Scratch {
    std::string path;
    Scratch() {
        const bool shared_memory = access("/dev/shm", W_OK) == 0;
        path = std::string(shared_memory ? "/dev/shm" : "/tmp") + "/halvo-fuzz-XXXXXX";
        if (!mkdtemp(path.data())) std::abort();
    }
    ~Scratch() {
        std::error_code ignored;
        std::filesystem::remove_all(path, ignored);
    }
};

} // namespace

const std::string &scratch_directory() {
    static const Scratch scratch;
    return scratch.path;
}

std::string scratch_file(const std::string &name) { return scratch_directory() + "/" + name; }

void write_scratch(const std::string &path, const std::string &content) {
    const Descriptor file = open_file(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC);
    if (write(file.get(), content.data(), content.size()) != static_cast<ssize_t>(content.size()))
        std::abort();
}

} // namespace halvo::fuzz
