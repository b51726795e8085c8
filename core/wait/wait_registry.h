// sms_sig: the registry of waiting threads.
#pragma once

namespace halvo {

// Empties the registry. Threads that wait at that moment lose their time limit.
void clear_wait_registry() noexcept;

// One pass of the timeout monitor: refreshes the segment's clock and ends overdue waits.
int monitor_pass() noexcept;

} // namespace halvo
