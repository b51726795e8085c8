// smsqm_print: the status documents in a growing text, for callers without a buffer of their own.
#pragma once

#include "print/text.h"

namespace halvo {

// What q_statprint_json() and q_statprint_xml() copy out. Adds to the text. Several threads may call
// these two at once: they take turns.
void json_document(Text &out) noexcept;
void xml_document(Text &out, char mode) noexcept;

} // namespace halvo
