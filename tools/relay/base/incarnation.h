// Which making of a segment or file queue this is: a number that differs after a removal and a new
// making, and after every start of the machine. What a state file says of places holds in one alone.
#pragma once

#include <cstdint>
#include <string>

#include "halvo/segment.h"

namespace halvo::relay {

uint64_t incarnation_of_channel(const halvo_channel *q, int number);
uint64_t incarnation_of_file(const std::string &path); // a file that lives as long as the queue

} // namespace halvo::relay
