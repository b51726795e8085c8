// halvo-mon replay: a record as text in UTF-8.
#pragma once

#include <string>

#include "tools/mon/record/record.h"

namespace halvo::mon {

// Which channel was in which trouble from when to when, and when there was no segment.
std::string story_of(RecordSource &record);
// The columns of the live screen at one time.
std::string table_of(const Sample &sample);
// One channel's figures at each look. Throws ToolError for a name that is in none.
std::string course_of(RecordSource &record, const std::string &channel);

// "02:30[:15]", the last one up to `latest`, or "2026-01-31 02:30[:15]". Throws ToolError.
int64_t time_of_words(const std::string &words, int64_t latest);

} // namespace halvo::mon
