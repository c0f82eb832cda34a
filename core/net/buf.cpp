// buf.cpp -- the message buffer: creation, growth, the cursor and its accessors, and
// the tagged fields StuffBuf writes and ReadBuf reads. Payloads are copied in one pass
// (one memcpy for bytes, one converting loop over the words for integers).
#include "core/net/buf.h"

#include <arpa/inet.h>

#include <cstdio>
#include <cstring>

#include "core/base/base.h"

namespace quorvel {

namespace {

// The initialisation hook the guard word is handed to; nothing to do in this program.
void initGuard(int32_t *guard) { (void)guard; }

void resetMarks(Buf *buf) {
  buf->markA = BUF_NO_MARK;
  buf->markB = BUF_NO_MARK;
}

// Bytes from the cursor to the end of the storage (0 when a caller has cut the size
// below the cursor).
size_t bufRoom(const Buf *buf) {
  size_t used = bufUsed(buf);
  return buf->size > used ? buf->size - used : 0;
}

// Moves the cursor n bytes on, never past the end of the storage (and never while
// there is no storage at all).
void advance(Buf *buf, size_t n) {
  if (buf->data == nullptr) return;
  size_t room = bufRoom(buf);
  buf->cursor = bufPosition(buf) + (n < room ? n : room);
}

// Payload copies by granularity, converting integers to or from network order.
void copyOut(uint8_t *dst, const uint8_t *src, size_t n, int granularity) {
  if (granularity == 1) {
    memcpy(dst, src, n);
  } else if (granularity == 2) {
    for (size_t i = 0; i < n; i += 2) {
      uint16_t v;
      memcpy(&v, src + i, 2);
      v = htons(v);
      memcpy(dst + i, &v, 2);
    }
  } else if (granularity == 4) {
    for (size_t i = 0; i < n; i += 4) {
      uint32_t v;
      memcpy(&v, src + i, 4);
      v = htonl(v);
      memcpy(dst + i, &v, 4);
    }
  }
}

}  // namespace

/* ---- Life cycle --------------------------------------------------------------- */

Buf *NewBuf() {
  Buf *buf = static_cast<Buf *>(allocMem(nullptr, sizeof(Buf)));
  if (buf == nullptr) outOfMem("NewBuf");
  memset(buf, 0, sizeof(Buf));
  resetMarks(buf);
  buf->limitA = 3000;
  buf->limitB = 1024;
  initGuard(&buf->guard);
  return buf;
}

void clearBuf(Buf *buf) {
  freeMem(buf->data);
  buf->data = nullptr;
  buf->cursor = nullptr;
  buf->size = 0;
  buf->unused1 = buf->status = buf->owner = buf->unused2 = buf->unused3 = 0;
  buf->extended = 0;
  resetMarks(buf);
}

void freeBuf(Buf *buf) {
  if (buf == nullptr) return;
  clearBuf(buf);
  freeMem(buf);
}

void rewindBuf(Buf *buf) {
  buf->cursor = buf->data;
  buf->count = 0;
  resetMarks(buf);
}

void zeroBuf(Buf *buf, size_t n) {
  if (buf->data == nullptr) return;
  memset(buf->data, 0, n < buf->size ? n : buf->size);
}

void seekBuf(Buf *buf, size_t offset) {
  if (offset < buf->size) buf->cursor = buf->data + offset;
}

/* ---- Growth ------------------------------------------------------------------- */

// Grows by n bytes, zeroing the new ones except those below `written` (an offset the
// caller is about to fill), so that a large field is not written twice.
static void growZeroingFrom(Buf *buf, size_t n, size_t written) {
  if (n == 0 || n > BUF_MAX_GROWTH) return;
  if (uint64_t(buf->size) + n > UINT32_MAX) return;  // size is a 32-bit count
  size_t used = bufUsed(buf);
  uint8_t *data = static_cast<uint8_t *>(allocMem(buf->data, buf->size + n));
  if (data == nullptr) outOfMem("growBuf");
  size_t from = written > buf->size ? written : buf->size;
  if (from < buf->size + n) memset(data + from, 0, buf->size + n - from);
  buf->data = data;
  buf->size += uint32_t(n);
  buf->cursor = data + used;
}

void growBuf(Buf *buf, size_t n) { growZeroingFrom(buf, n, 0); }

void reserveBuf(Buf *buf, size_t n) {
  if (n > buf->size) growBuf(buf, size_t(roundUp(long(n), BUF_BLOCK)));
}

/* ---- Positions and accessors -------------------------------------------------- */

size_t bufUsed(const Buf *buf) {
  return buf->cursor == nullptr ? 0 : size_t(buf->cursor - buf->data);
}
size_t bufSize(const Buf *buf) { return buf->size; }
uint8_t *bufData(const Buf *buf) { return buf->data; }
uint8_t *bufAt(const Buf *buf, size_t offset) {
  return buf->data == nullptr ? nullptr : buf->data + offset;
}
uint8_t *bufPosition(const Buf *buf) {
  return buf->cursor == nullptr ? buf->data : buf->cursor;
}

void setBufStatus(Buf *buf, int32_t value) {
  buf->status = value;
  buf->statusRepeats = value != 0 ? uint16_t(buf->statusRepeats + 1) : 0;
}
int32_t bufStatus(const Buf *buf) { return buf->status; }
uint16_t bufStatusRepeats(const Buf *buf) { return buf->statusRepeats; }
bool bufFailed(const Buf *buf) { return buf->status != 0; }

int32_t bufCount(const Buf *buf) { return buf->count; }
void setBufCount(Buf *buf, int32_t value) { buf->count = value; }
int32_t bufOwner(const Buf *buf) { return buf->owner; }
void setBufOwner(Buf *buf, int32_t value) { buf->owner = value; }
int32_t bufMarkA(const Buf *buf) { return buf->markA; }
void setBufMarkA(Buf *buf, int32_t value) { buf->markA = value; }
int32_t bufMarkB(const Buf *buf) { return buf->markB; }
void setBufMarkB(Buf *buf, int32_t value) { buf->markB = value; }

/* ---- Fields ------------------------------------------------------------------- */

void StuffBuf(Buf *buf, const void *src, size_t nbytes, int granularity, uint32_t tag) {
  // (nothing past the growth cap can ever be held; also keeps the sums below in range)
  if (nbytes == 0 || nbytes > UINT32_MAX) return;
  bool tagged = tag != BUF_UNTAGGED;
  size_t need = size_t(roundUp(long(nbytes) + (tagged ? 4 : 0), 4));
  bool badSize = granularity <= 0 || nbytes % size_t(granularity) != 0;
  if (need > bufRoom(buf)) {
    // (the tag word and payload are written right after; the pad bytes are zeroed)
    bool copies = !badSize && (granularity == 1 || granularity == 2 || granularity == 4);
    size_t written = copies ? bufUsed(buf) + (tagged ? 4 : 0) + nbytes : 0;
    growZeroingFrom(buf, size_t(roundUp(long(need), BUF_BLOCK)), written);
  }
  if (badSize) {
    fprintf(stderr, "StuffBuf: bad size: %d, granularity: %d\n", int(nbytes), granularity);
    return;
  }
  // (the growth is refused beyond its cap: then the field is dropped, not overrun)
  if (need > bufRoom(buf)) return;
  uint8_t *at = bufPosition(buf);
  if (tagged) {
    uint32_t word = htonl(uint32_t(nbytes & BUF_MAX_FIELD) | tag);
    memcpy(at, &word, 4);
    at += 4;
  }
  copyOut(at, static_cast<const uint8_t *>(src), nbytes, granularity);
  buf->cursor = bufPosition(buf) + need;
}

int32_t peekTag(const Buf *buf, uint32_t *length) {
  *length = 0;
  if (buf->data == nullptr || bufUsed(buf) + 4 > buf->size) return -1;
  uint32_t word;
  memcpy(&word, bufPosition(buf), 4);
  word = ntohl(word);
  *length = word & BUF_MAX_FIELD;
  return int32_t(word & ~BUF_MAX_FIELD);
}

int32_t ReadBuf(Buf *buf, void *dst, size_t nbytes, int granularity, int tagged) {
  size_t length = nbytes;
  int32_t tag = 0;
  if (tagged) {
    uint32_t word = 0;
    tag = peekTag(buf, &word);
    length = tag == -1 ? 1 : word;  // no tag word to read: fails the fit test below
  }
  if (length == 0) return 0;
  size_t space = size_t(roundUp(long(length) + (tagged ? 4 : 0), 4));
  // (size < used + length + 4, written so that a huge untagged length cannot wrap)
  size_t room = bufRoom(buf);
  if (length > room || room - length < 4 || (tagged && length > nbytes)) {
    fprintf(stderr, "ReadBuf: overflowed buffer\n");
    advance(buf, 4);
    return -1;
  }
  if (granularity <= 0 || length % size_t(granularity) != 0) {
    fprintf(stderr, "ReadBuf: bad size: %d, granularity: %d\n", int(length), granularity);
    return -1;
  }
  copyOut(static_cast<uint8_t *>(dst), bufPosition(buf) + (tagged ? 4 : 0), length,
          granularity);
  advance(buf, space);
  return tag;
}

int skipField(Buf *buf, size_t n) {
  if (n <= bufRoom(buf)) {
    advance(buf, size_t(roundUp(long(n), 4)));
    return 0;
  }
  advance(buf, 4);
  return -1;
}

}  // namespace quorvel
