// sms_fq: the data files of a queue that are there.
#pragma once

#include "fq/files/format.h"

namespace halvo::fq {

// `directory`: what a relative path counts from, AT_FDCWD for the working directory.

// As fq_find_forder_first. `searched`: whether the directory could be read to its end.
int find_first_order(int directory, const char *path, bool &searched) noexcept;
// As fq_find_forder_last.
int find_last_order(int directory, const char *path) noexcept;
// The nearest file order that comes after one; -1 when there is none.
int find_next_order(int directory, const char *path, int32_t order) noexcept;

} // namespace halvo::fq
