// sms_sig: the waiting threads and the monitor that ends their waits in time.
#pragma once

namespace halvo {

// Empties the registry. Threads that wait at that moment lose their time limit.
void clear_wait_registry() noexcept;

// Clears what getSignal() reports for the calling thread.
void forget_signal() noexcept;

// One pass of the timeout monitor: refreshes the segment's clock and ends overdue waits.
int monitor_pass() noexcept;

} // namespace halvo
