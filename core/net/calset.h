// calset.h -- calendar sets: the bit set over calendar numbers and its two encodings
// inside server messages.
//
// A set is an array of 16-bit words: word 0 holds the bit count n, words 1..(n+15)/16
// the bits, bit i in word 1 + i/16 at position i % 16 (least significant first); it
// occupies ((n+15)/16)*2 + 2 bytes. A null set is the empty set. "Every calendar" means
// exactly calendars 0..calendarCount()-1 of the installed name lookup, and at least one.
//
// Net encodings, written into and read from plain byte areas (callers carry them in
// Buf fields as bytes):
//  - names: a 32-bit network-order total T, then "`", then either "__ALL__`" or each
//    member's name followed by "`", then a NUL; T counts all of it. Not padded.
//  - bits: the bit count and the words, each a 16-bit network-order value; at most
//    NETBITS_MAX bytes (2032 bits).
// An absent set is four zero bytes in both; so is a set without members as bits.
// Readers refuse oversize fields with their one-line report and count them as a 4-byte
// empty field.
// Results: byte counts as stated; -1 when an output area is too small.
#pragma once

#include <cstddef>
#include <cstdint>

namespace quorvel {

using CalSet = uint16_t *;  // owned word array, or null for the empty set

inline constexpr int NETCHARS_MAX = 30720;  // largest name field readnetchars accepts
inline constexpr int NETBITS_MAX = 256;     // largest bit field (bytes)
inline constexpr const char *ALL_NAMES = "__ALL__";

/* ---- The bit set -------------------------------------------------------------- */

// Resizes *set to n bits (at most 65535, what word 0 holds): n 0 frees it (null); added
// bits are zero (also inside the old last word); shrinking clears the bits of the last
// word from n % 16 up. Out of
// memory reports "allocbits".
void allocbits(CalSet *set, int n);
// Sets (on != 0) or clears bit i, growing the set to i + 1 bits when needed; i < 0
// does nothing.
void setbit(CalSet *set, int i, int on);
void freebits(CalSet *set);
// Replaces *dst by a copy of src (same bit count; null src frees *dst).
void copybits(CalSet *dst, const uint16_t *src);

int setBitCount(const uint16_t *set);   // word 0, or 0 for null
int setByteSize(const uint16_t *set);   // bytes occupied, 0 for null
int setMembers(const uint16_t *set);    // number of set bits
bool testbit(const uint16_t *set, int i);  // false beyond the set and for i < 0
bool setsEqual(const uint16_t *a, const uint16_t *b);  // same members, lengths aside
bool setIsEmpty(const uint16_t *set);  // no members

/* ---- Every calendar ----------------------------------------------------------- */

bool holdsEveryCalendar(const uint16_t *set);
void addEveryCalendar(CalSet *set);  // adds calendars 0..calendarCount()-1

/* ---- Names encoding ----------------------------------------------------------- */

// Bytes writenetchars needs for set (4 for an absent set).
int netcharsSize(const uint16_t *set);
// Writes set as names into out (cap bytes); returns T, or -1 when cap is short.
int writenetchars(char *out, size_t cap, const uint16_t *set);
// Adds the names of the field at in (len bytes available) to *set; unknown names add
// nothing. Writes a NUL over each name's opening backquote. Returns T (4 when empty
// or refused with "readnetchars: nbytes too large %d").
int readnetchars(char *in, size_t len, CalSet *set);

/* ---- Bits encoding ------------------------------------------------------------ */

// Writes set as bits into out (cap bytes); returns the set's byte size, 4 for an
// empty field (also after "writenetbits: nbytes too large %d"), -1 when cap is short.
int writenetbits(char *out, size_t cap, const uint16_t *set);
// Replaces *set by the field at in (len bytes available); returns its byte size, or 4
// for an empty or refused field ("readnetbits: nbytes too large %d"). The words are
// copied whole: bits beyond the count come along and go out again with writenetbits,
// but no routine here counts them as members.
int readnetbits(const char *in, size_t len, CalSet *set);

// readnetchars when asNames is non-zero, else readnetbits.
int readnetset(char *in, size_t len, CalSet *set, int asNames);

}  // namespace quorvel
