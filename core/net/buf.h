// buf.h -- the growable message buffer every calendar-server message is built in and
// read from, and the tagged fields it carries.
//
// A Buf owns `data` (`size` bytes) and keeps a cursor into it. A tagged field is a
// 32-bit big-endian word, type tag in the top 8 bits and payload length in the low 24,
// then the payload, then NULs up to the next multiple of 4. The tag BUF_UNTAGGED passed
// to StuffBuf writes the payload bare (still padded to 4). Payloads are copied by
// granularity: 1 bytes as they are, 2 and 4 integers converted to/from network order.
// Storage grows in blocks of 3996 bytes; one growth is at most 16,000,000 bytes, a
// larger one is ignored. The cursor never moves past the end of the storage.
//
// Results: 0 success, -1 a malformed or overflowing field (with its one-line report on
// standard error); ReadBuf returns the field's tag. Out of memory does not return.
#pragma once

#include <cstddef>
#include <cstdint>

namespace quorvel {

struct Buf {
  uint8_t *data;           // start of the storage (owned); null until the first growth
  uint8_t *cursor;         // next byte to write or read; null in a new buffer
  uint32_t size;           // bytes allocated at data
  int32_t markA;           // kept for the callers; BUF_NO_MARK initially and on rewind
  int32_t markB;           // likewise
  int32_t unused1;         // zero, not used here
  int32_t status;          // last status recorded by the callers (setBufStatus)
  int32_t owner;           // a value the callers attach
  int32_t unused2;         // zero, not used here
  int32_t unused3;         // zero, not used here
  int32_t guard;           // handed to the (empty) initialisation hook at creation
  int32_t count;           // counter kept for the callers; zeroed on rewind
  uint16_t statusRepeats;  // how many non-zero statuses were recorded in a row
  uint16_t limitA;         // initially 3000
  uint16_t limitB;         // initially 1024
  uint8_t peerMajor;       // other side's protocol version, first number (0 unknown)
  uint8_t peerMinor;       // other side's protocol version, second number
  uint8_t extended;        // the message being built needs the extended header
};

inline constexpr uint32_t BUF_UNTAGGED = 0x68000000;  // StuffBuf: write no tag word
inline constexpr int32_t BUF_NO_MARK = INT32_MIN;     // marks after creation and rewind
inline constexpr uint32_t BUF_BLOCK = 3996;            // growth step
inline constexpr uint32_t BUF_MAX_GROWTH = 16000000;  // largest single growth
inline constexpr uint32_t BUF_MAX_FIELD = 0xFFFFFF;   // largest length a tag word holds

// The tag word of a field: letter in the top byte, e.g. bufTag('T') == 0x54000000.
constexpr uint32_t bufTag(char letter) { return uint32_t(uint8_t(letter)) << 24; }

/* ---- Life cycle --------------------------------------------------------------- */

Buf *NewBuf();                        // out of memory reports "NewBuf"
void clearBuf(Buf *buf);              // releases data; back to an empty buffer
void freeBuf(Buf *buf);               // clearBuf, then the Buf itself; null is fine
void rewindBuf(Buf *buf);             // cursor to data, count 0, marks BUF_NO_MARK
void zeroBuf(Buf *buf, size_t n);     // zeroes the first n bytes (at most size)
void seekBuf(Buf *buf, size_t offset);  // cursor to data + offset when offset < size

/* ---- Growth ------------------------------------------------------------------- */

// Grows by n bytes (zeroed), keeping the cursor's offset; ignored when n is 0 or more
// than BUF_MAX_GROWTH. Out of memory reports "growBuf".
void growBuf(Buf *buf, size_t n);
// When n exceeds size, grows by n rounded up to a multiple of BUF_BLOCK.
void reserveBuf(Buf *buf, size_t n);

/* ---- Positions and accessors -------------------------------------------------- */

size_t bufUsed(const Buf *buf);               // cursor - data; 0 while cursor is null
size_t bufSize(const Buf *buf);
uint8_t *bufData(const Buf *buf);
uint8_t *bufAt(const Buf *buf, size_t offset);  // data + offset
uint8_t *bufPosition(const Buf *buf);         // the cursor, or data while it is null

void setBufStatus(Buf *buf, int32_t value);  // non-zero counts statusRepeats up, 0 resets
int32_t bufStatus(const Buf *buf);
uint16_t bufStatusRepeats(const Buf *buf);
bool bufFailed(const Buf *buf);              // status is non-zero

int32_t bufCount(const Buf *buf);
void setBufCount(Buf *buf, int32_t value);
int32_t bufOwner(const Buf *buf);
void setBufOwner(Buf *buf, int32_t value);
int32_t bufMarkA(const Buf *buf);
void setBufMarkA(Buf *buf, int32_t value);
int32_t bufMarkB(const Buf *buf);
void setBufMarkB(Buf *buf, int32_t value);

/* ---- Fields ------------------------------------------------------------------- */

// Appends one field of nbytes from src (tag BUF_UNTAGGED for a bare payload). nbytes 0
// writes nothing; a size that breaks the granularity prints
// "StuffBuf: bad size: %d, granularity: %d" and writes nothing. A field the buffer
// cannot grow to hold (beyond the growth cap) is not written either.
void StuffBuf(Buf *buf, const void *src, size_t nbytes, int granularity, uint32_t tag);

// The tag (top 8 bits, in place) of the word at the cursor, its low 24 bits in *length;
// the cursor does not move. -1 (length 0) when fewer than 4 bytes remain.
int32_t peekTag(const Buf *buf, uint32_t *length);

// Reads one field into dst (capacity nbytes). Tagged: the length comes from the tag
// word; untagged: it is nbytes. Length 0 returns 0 without moving. The fit test asks
// for 4 bytes beyond the payload even for untagged fields (kept on purpose): when it
// fails, "ReadBuf: overflowed buffer" is printed, the cursor advances 4, and -1 is
// returned; a tagged length beyond nbytes fails the same way. A length that breaks the
// granularity prints "ReadBuf: bad size: %d, granularity: %d" and returns -1.
// Success returns the tag (tagged) or 0 and moves past the padded field.
int32_t ReadBuf(Buf *buf, void *dst, size_t nbytes, int granularity, int tagged);

// Skips n bytes (rounded up to 4) when they lie within the storage and returns 0;
// otherwise advances 4 and returns -1.
int skipField(Buf *buf, size_t n);

}  // namespace quorvel
