// halvo-mon: the library's XML and JSON documents, made fit for parsers.
#pragma once

#include <string>

#include "tools/qm/view.h"

namespace halvo::mon {

// The library writes names and types as they stand in the segment. These put in place what the format
// asks for: entities and escapes; control characters, which XML cannot hold, become '?'. The rest of
// the document is as it was. `view` is of the segment that the document is of.
std::string escaped_xml(const std::string &document, const qm::SegmentView &view);
std::string escaped_json(const std::string &document, const qm::SegmentView &view);

} // namespace halvo::mon
