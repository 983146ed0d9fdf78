// What the lines of a message's head are.
#pragma once

#include <kestal_ulx/http_line.h>

namespace kestal {

// Finds out what kind of line a raw node is and sets its texts and numbers. False when a text found no memory.
bool classify_http_line(kestal_http_node_t &node);

// Prints what became of a node.
void trace_http_line(const kestal_http_node_t &node);

} // namespace kestal
