// A segment in private memory, with nothing readable before and behind it, and an attachment to it
// that can be begun anew. The System V calls of a program that links this are replaced: they find
// this segment, and a wait for a semaphore is interrupted at once.
#pragma once

#include <cstdint>

#include "tests/support/files.h"

namespace halvo::fuzz {

constexpr uint32_t kChannels = 3; // of a sound segment: "MT01", "FQ01" and "XCN1"

uint32_t sound_size();              // bytes of a sound segment
uint32_t sound_channel(uint32_t n); // where its channel n lies

// Places a sound segment of which only the first `size` bytes are there; a multiple of 4, at most
// sound_size(). Nothing is attached afterwards.
void place_segment(uint32_t size);
uint32_t placed_size();
char *placed(); // its first byte

void attach(); // init_shm()
// In attach_again.cpp, which holds core/attach.cpp: it attaches once in the life of a process.
void forget_attachment();

// For the files of a target; in memory where that can be.
const test::TestDirectory &scratch();

} // namespace halvo::fuzz
