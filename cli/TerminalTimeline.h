// A search's rows drawn as block characters in a terminal.
#pragma once

#include <cstddef>
#include <ostream>

#include "client/Picture.h"

namespace recsearch {

using namespace rsclient;

// One line per row scaled to `columns`, a time line and a legend; plain ASCII unless `utf8`.
void drawTimeline(std::ostream& out, const Picture& picture, std::size_t columns, bool utf8);

}  // namespace recsearch
