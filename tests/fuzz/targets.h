// What hostile input is fed to. Each target takes any bytes and must return: no crash, no read or
// write outside of what it may touch, no hang. They print on standard output.
#pragma once

#include <cstddef>
#include <cstdint>

namespace halvo::fuzz {

void segment(const uint8_t *data, size_t size);    // headers and slots under all operations
void file_queue(const uint8_t *data, size_t size); // data and position files
void options(const uint8_t *data, size_t size);    // a print-options file
void config(const uint8_t *data, size_t size);     // a queue manager's configuration

} // namespace halvo::fuzz
