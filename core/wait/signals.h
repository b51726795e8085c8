// sms_sig: what the library itself asks of the signal service.
#pragma once

namespace halvo {

// Makes what init_sig() would make, where nobody has: the key, and the handler if the program has
// left SIGUSR2 alone, which would end it otherwise.
void start_signal_service() noexcept;

// Makes a key anew; what getSignal() reports under the one before is gone. False when there is none to
// be had.
bool make_signal_key() noexcept;

// Clears what getSignal() reports for the calling thread.
void forget_signal() noexcept;

} // namespace halvo
