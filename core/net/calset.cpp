// calset.cpp -- calendar sets: the bit set (allocbits, setbit, comparisons) and its
// names and bits encodings inside server messages.
#include "core/net/calset.h"

#include <arpa/inet.h>

#include <bit>
#include <cstdio>
#include <cstring>
#include <string>

#include "core/base/base.h"
#include "core/net/namelookup.h"

namespace quorvel {

namespace {

int wordsFor(int n) { return (n + 15) / 16; }
int bytesFor(int n) { return wordsFor(n) * 2 + 2; }

// Word w (0-based after the count) with the bits at and above the count cleared: a set
// read from the wire keeps whatever the sender had there, and those bits are no members.
uint16_t memberWord(const uint16_t *set, int w) {
  int n = set[0];
  uint16_t word = set[1 + w];
  if (w == wordsFor(n) - 1 && n % 16 != 0) word &= uint16_t((1u << (n % 16)) - 1);
  return word;
}

uint16_t getWord16(const char *in) {
  uint16_t v;
  memcpy(&v, in, 2);
  return ntohs(v);
}

}  // namespace

/* ---- The bit set -------------------------------------------------------------- */

void allocbits(CalSet *set, int n) {
  if (n <= 0) {
    freeMem(*set);
    *set = nullptr;
    return;
  }
  if (n > 0xFFFF) n = 0xFFFF;  // the bit count is a 16-bit word
  int old = setBitCount(*set);
  int oldBytes = setByteSize(*set);
  int bytes = bytesFor(n);
  if (bytes != oldBytes) {
    auto *grown = static_cast<uint16_t *>(allocMem(*set, size_t(bytes)));
    if (grown == nullptr) outOfMem("allocbits");
    if (bytes > oldBytes) memset(reinterpret_cast<char *>(grown) + oldBytes, 0, size_t(bytes - oldBytes));
    *set = grown;
  }
  if (n < old && n % 16 != 0) (*set)[1 + n / 16] &= uint16_t((1u << (n % 16)) - 1);
  // Growing inside the old last word: the bits taken in start clear, also when the set
  // came from the wire with bits beyond its count.
  if (n > old && old % 16 != 0) (*set)[1 + old / 16] = memberWord(*set, old / 16);
  (*set)[0] = uint16_t(n);
}

void setbit(CalSet *set, int i, int on) {
  if (i < 0 || i >= 0xFFFF) return;  // the bit count is a 16-bit word
  if (i >= setBitCount(*set)) allocbits(set, i + 1);
  uint16_t mask = uint16_t(1u << (i % 16));
  if (on)
    (*set)[1 + i / 16] |= mask;
  else
    (*set)[1 + i / 16] &= uint16_t(~mask);
}

void freebits(CalSet *set) { allocbits(set, 0); }

void copybits(CalSet *dst, const uint16_t *src) {
  int n = setBitCount(src);
  allocbits(dst, n);
  if (n > 0) memcpy(*dst, src, size_t(bytesFor(n)));
}

int setBitCount(const uint16_t *set) { return set == nullptr ? 0 : set[0]; }
int setByteSize(const uint16_t *set) { return set == nullptr ? 0 : bytesFor(set[0]); }

int setMembers(const uint16_t *set) {
  int members = 0;
  for (int w = 0; w < wordsFor(setBitCount(set)); w++) members += std::popcount(memberWord(set, w));
  return members;
}

bool testbit(const uint16_t *set, int i) {
  if (i < 0 || i >= setBitCount(set)) return false;
  return (set[1 + i / 16] >> (i % 16)) & 1;
}

bool setsEqual(const uint16_t *a, const uint16_t *b) {
  int wa = wordsFor(setBitCount(a)), wb = wordsFor(setBitCount(b));
  for (int w = 0; w < (wa > wb ? wa : wb); w++) {
    uint16_t x = w < wa ? memberWord(a, w) : 0, y = w < wb ? memberWord(b, w) : 0;
    if (x != y) return false;
  }
  return true;
}

bool setIsEmpty(const uint16_t *set) { return setMembers(set) == 0; }

/* ---- Every calendar ----------------------------------------------------------- */

bool holdsEveryCalendar(const uint16_t *set) {
  int n = calendarCount();
  if (n == 0 || setMembers(set) != n) return false;
  for (int i = 0; i < n; i++)
    if (!testbit(set, i)) return false;
  return true;
}

void addEveryCalendar(CalSet *set) {
  for (int i = calendarCount() - 1; i >= 0; i--) setbit(set, i, 1);
}

/* ---- Names encoding ----------------------------------------------------------- */

int netcharsSize(const uint16_t *set) {
  if (set == nullptr) return 4;
  int total = 4 + 1 + 1;  // length word, opening backquote, closing NUL
  if (holdsEveryCalendar(set)) return total + int(strlen(ALL_NAMES)) + 1;
  for (int i = 0; i < setBitCount(set); i++) {
    const char *name = testbit(set, i) ? calendarName(i) : nullptr;
    if (name != nullptr) total += int(strlen(name)) + 1;
  }
  return total;
}

int writenetchars(char *out, size_t cap, const uint16_t *set) {
  int total = netcharsSize(set);
  if (size_t(total) > cap) return -1;
  if (set == nullptr) {
    memset(out, 0, 4);
    return 4;
  }
  char *at = out + 4;
  *at++ = '`';
  auto put = [&at](const char *name) {
    size_t n = strlen(name);
    memcpy(at, name, n);
    at += n;
    *at++ = '`';
  };
  if (holdsEveryCalendar(set)) {
    put(ALL_NAMES);
  } else {
    for (int i = 0; i < setBitCount(set); i++) {
      const char *name = testbit(set, i) ? calendarName(i) : nullptr;
      if (name != nullptr) put(name);
    }
  }
  *at++ = '\0';
  putWord32(out, uint32_t(total));
  return total;
}

int readnetchars(char *in, size_t len, CalSet *set) {
  if (len < 4) return 4;
  uint32_t total = getWord32(in);
  if (total == 0) return 4;
  if (total > uint32_t(NETCHARS_MAX) || total > len) {
    fprintf(stderr, "readnetchars: nbytes too large %d\n", int(total));
    return 4;
  }
  char *text = in + 4;
  size_t n = total > 4 ? total - 4 : 0;
  for (size_t p = 0; p + 1 < n; p++) {
    if (text[p] != '`') continue;
    size_t end = p + 1;
    while (end < n && text[end] != '`' && text[end] != '\0') end++;
    std::string name(text + p + 1, end - p - 1);
    text[p] = '\0';
    if (name == ALL_NAMES)
      addEveryCalendar(set);
    else if (!name.empty())
      setbit(set, calendarIndex(name.c_str()), 1);
    p = end - 1;  // the closing backquote opens the next name
  }
  return int(total);
}

/* ---- Bits encoding ------------------------------------------------------------ */

int writenetbits(char *out, size_t cap, const uint16_t *set) {
  if (cap < 4) return -1;
  int bytes = setByteSize(set);
  if (bytes == 0 || setIsEmpty(set)) {  // no capacity or no members
    memset(out, 0, 4);
    return 4;
  }
  if (bytes > NETBITS_MAX) {
    memset(out, 0, 4);
    fprintf(stderr, "writenetbits: nbytes too large %d\n", bytes);
    return 4;
  }
  if (size_t(bytes) > cap) return -1;
  for (int w = 0; w < bytes / 2; w++) {
    uint16_t v = htons(set[w]);
    memcpy(out + 2 * w, &v, 2);
  }
  return bytes;
}

int readnetbits(const char *in, size_t len, CalSet *set) {
  if (len < 2) return 4;
  int n = getWord16(in);
  if (n == 0) return 4;
  int bytes = bytesFor(n);
  if (bytes > NETBITS_MAX || size_t(bytes) > len) {
    fprintf(stderr, "readnetbits: nbytes too large %d\n", bytes);
    return 4;
  }
  allocbits(set, n);
  // The words are copied whole, bits beyond n included, so that the set goes out again
  // as it came in; the set's routines count only the bits below n as members.
  for (int w = 1; w < bytes / 2; w++) (*set)[w] = getWord16(in + 2 * w);
  return bytes;
}

int readnetset(char *in, size_t len, CalSet *set, int asNames) {
  return asNames ? readnetchars(in, len, set) : readnetbits(in, len, set);
}

}  // namespace quorvel
