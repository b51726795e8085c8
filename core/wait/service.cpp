// sms_sig: the start of the signal service, as a program asks for it.
#include <pthread.h>

#include "core/base/output.h"
#include "core/wait/signals.h"
#include "core/wait/wait_registry.h"
#include "halvo/queue.h"

namespace {

constexpr char kRule[] = "/*************************************************************/";
static_assert(sizeof kRule == 1 + 61 + 1 + 1);

} // namespace

void init_sig() noexcept {
    // Kept: every call makes a new key and wipes the registry; the old key is abandoned.
    if (!halvo::make_signal_key())
        halvo::print("pthread_key_create error at %dline in %s/\n", 255, "sms_sig");
    halvo::clear_wait_registry();
    install_handler();
    halvo::print("%s\n/*             Signal Service Initialized at #%d             */\n%s\n", kRule,
                 static_cast<int>(pthread_self()), kRule);
}
