// The bus header as it travels between processes: every multi-byte field in
// network byte order (big-endian), whatever the CPU of the sender and the
// receiver.  The programs see the header in their own byte order; the bus
// converts at its sockets.
#pragma once

#include <cstddef>

namespace wcfg {

// Turns the header at the start of `msg` (`length` bytes: of a shorter
// message, the fields it holds whole) from host order into wire order, in
// place.
void headerToWire(void* msg, size_t length);
// Turns the header at the start of `msg` from wire order into host order.
void headerFromWire(void* msg, size_t length);

}  // namespace wcfg
