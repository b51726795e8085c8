// One of a thousand threads of a process.
#pragma once

#include <pthread.h>

#include <functional>
#include <utility>

namespace halvo::test {

// The address space of a 32-bit process does not hold a thousand stacks of the usual size.
class SmallThread {
public:
    explicit SmallThread(std::function<void()> work) : work_(std::move(work)) {
        pthread_attr_t small;
        pthread_attr_init(&small);
        pthread_attr_setstacksize(&small, kStack);
        started_ = pthread_create(&thread_, &small, run, this) == 0;
        pthread_attr_destroy(&small);
    }
    SmallThread(const SmallThread &) = delete;
    SmallThread &operator=(const SmallThread &) = delete;
    ~SmallThread() {
        if (started_) pthread_join(thread_, nullptr);
    }
    bool started() const { return started_; }

private:
    static constexpr size_t kStack = 256 * 1024;
    static void *run(void *self) {
        static_cast<SmallThread *>(self)->work_();
        return nullptr;
    }
    std::function<void()> work_;
    pthread_t thread_{};
    bool started_ = false;
};

} // namespace halvo::test
