// itemcodec.h -- calendar items on the server wire.
//
// An item travels as a run of tagged fields (see buf.h) in a fixed order, closed by the
// end field "z":
//
//   J|j text  database name (only when present and not empty; "j" when dbFlag is set)
//   D short, U short, T text
//   f text (owner's calendar name) when the peer is x.3+ and the message is extended,
//          else O number (owner's calendar number)
//   W set, then the start/end time value (two date-times, untagged)
//   Y N S R C X M   one set each
//   per popup:      p text, m number, m number, b set, and (peer x.2+) a second b set
//   per alarm (listB): a 12 bytes (user, start, freq as numbers), e text (the string;
//                    a single NUL when there is none)
//   value8          one date-time, untagged
//   per listC entry: q 12 bytes (user number, then the date-time)
//   per listD entry (peer x.2+): c text, b set
//   I number, H number, then (peer x.2+) A G F E numbers, (peer x.4+) g k bytes
//   L number (only when the link byte is set), z number (the link byte, or 0)
//
// The reader is strict about order once "W" is read: the time value right behind it,
// the seven sets in their order, the popup groups, the alarm groups, value8, then
// tagged fields in any order up to "z". Before "W" the fields may come in any order.
// "i", "d", "r" and "l" (written by older peers) are stepped over wherever a tagged
// field must stand: before "W", between the seven sets, inside a popup or alarm group
// and behind value8. Between groups value8 may stand instead, and its 8 bytes could
// read as such a field, so there they are not taken. An empty field (length 0, which
// StuffBuf never writes) is refused.
//
// No count travels for the popup and alarm groups, and value8 is 8 bytes of any value,
// so how many groups stand before value8 is decided by structure, never by the value a
// word holds: the group shapes in a row give the places where value8 may stand, and
// the reader takes the last one behind which a whole item tail in this writer's form
// follows (entries, then I, H and the fields the peer's version carries, then L when
// set and z carrying it). Only when no place fits the writer's form are older peers'
// fields and any tail order allowed. So every item this writer makes reads back.
// An item is refused (not the process ended) when one of its four lists would exceed
// ITEM_LIST_MAX entries, the most its 16-bit count holds.
//
// Sets travel in the bit encoding (writenetbits) as bytes. Version gates read the
// peer's version kept in the buffer; a gate on the second number also needs the first
// to be non-zero. The title, database name, owner name and popup titles read back are
// limited to 256 bytes with their NUL; longer ones are refused.
//
// Item messages: a header with the request code, then the items, each followed at
// once by its chained item (and that one's chain). Chained items are copies of their
// item in other databases, and the reader tells them as the record files do: an item
// with the I and F numbers (I not negative) and the title of the list item before it,
// when not both have an owner (>= 0), joins that item's chain. A single-item message is
// extended when the item has a chained item or the type letter 'd'; without an item
// it is a header alone with code 55. A list message is extended only when the peer is
// x.4+ and some item has a chained item or the type letter 'd'.
//
// Results: 0 on success, -1 when a field is missing, malformed or does not fit; the
// reason is printed on standard error, one line prefixed "readEvent: " (or the buffer
// routine's own text).
#pragma once

#include <cstdint>

namespace quorvel {

struct Buf;
struct Item;

// The code of a single-item message that carries no item.
inline constexpr int NO_ITEM_CODE = 55;

// Texts (title, database name, owner name, popup title) are refused above this many
// bytes on the wire, their NUL included.
inline constexpr int WIRE_TEXT_MAX = 256;

/* ---- Writing ------------------------------------------------------------------ */

// Appends the fields of one item (its chain not included) at the buffer's cursor.
// The owner name for "f" comes from the installed calendar-name lookup (namelookup.h).
void writeEvent(Buf *out, const Item *item);

// Appends an item followed by its chained items.
void writeEventChain(Buf *out, const Item *item);

// Appends every item of an item list (head excluded), each with its chain.
void writeEventList(Buf *out, const Item *head);

// Whether a single item (with its chain) needs the extended message.
bool itemNeedsExtended(const Item *item);

// Whether a list of items needs the extended message for the buffer's peer.
bool listNeedsExtended(const Buf *out, const Item *head);

/* ---- Whole messages ----------------------------------------------------------- */

// Builds a complete message in a rewound buffer: header with `code`, the item and its
// chain, header rewritten with the final length. A null item gives a header alone with
// code 55. The extended flag is set from the rules above before any item is written.
void buildItemMessage(Buf *out, int code, const Item *item);

// The same for an item list (head excluded).
void buildItemListMessage(Buf *out, int code, const Item *head);

/* ---- Reading ------------------------------------------------------------------ */

// Reads one item's fields up to and including "z" into `item` (a fresh item from
// evnew), with the gates of the peer version kept in the buffer. Returns 0, or -1 with
// the item partly filled (the caller frees it).
int readEvent(Buf *in, Item *item);

// Reads items until the cursor reaches byte offset `end` of the buffer, appending
// them to the list at `head`; a copy of the list item before it (see above) is hung on
// that one's chain instead. Returns the number of list items read
// or -1 (the items read before the failure stay in the list; the caller frees them).
int readEventList(Buf *in, Item *head, uint32_t end);

// Reads a whole item message (header included) into the list at `head`: the body
// runs to the length given in the header, whose version (the sender's) is kept in the
// buffer as the peer's and decides which gated fields the items carry. The code goes
// to *code when given. Returns the number of items, or -1.
int readItemMessage(Buf *in, Item *head, int *code);

}  // namespace quorvel
