// datetime.cpp -- date-time values: initial values, the 8-byte network-order wire
// form, and the record-file text form with its list-defaults rule.
#include "core/date/datetime.h"

#include <cstring>

namespace quorvel {

namespace {

void put32(uint8_t *out, uint32_t v) {
  out[0] = uint8_t(v >> 24);
  out[1] = uint8_t(v >> 16);
  out[2] = uint8_t(v >> 8);
  out[3] = uint8_t(v);
}

void put16(uint8_t *out, uint16_t v) {
  out[0] = uint8_t(v >> 8);
  out[1] = uint8_t(v);
}

uint32_t get32(const uint8_t *in) {
  return uint32_t(in[0]) << 24 | uint32_t(in[1]) << 16 | uint32_t(in[2]) << 8 | in[3];
}

uint16_t get16(const uint8_t *in) { return uint16_t(in[0] << 8 | in[1]); }

// The value of a hexadecimal digit, or -1. (Not isxdigit: record files are mostly
// hexadecimal date-times, and the locale-aware call costs more than the digit.)
int hexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  char lower = char(c | 0x20);
  return lower >= 'a' && lower <= 'f' ? lower - 'a' + 10 : -1;
}

// Reads "0x<hex>" at *text (after blanks), moving *text past it; false when absent
// or out of range for max. (Digits are taken by hand: strtoul would also take a
// second "0x" prefix, a sign or blanks after the first one.)
bool readHex(const char **text, uint64_t max, uint64_t *value) {
  const char *p = *text;
  while (*p == ' ' || *p == '\t') p++;
  if (p[0] != '0' || (p[1] != 'x' && p[1] != 'X')) return false;
  p += 2;
  if (hexDigit(*p) < 0) return false;
  uint64_t v = 0;
  for (int digit; (digit = hexDigit(*p)) >= 0; p++) {
    if (v > (max - uint64_t(digit)) / 16) return false;
    v = v * 16 + uint64_t(digit);
  }
  *value = v;
  *text = p;
  return true;
}

}  // namespace

/* ---- Values ------------------------------------------------------------------- */

DateTime initDateTime() { return DateTime{NO_TIME, 0, 0}; }
TimeRange initTimeRange() { return TimeRange{initDateTime(), initDateTime()}; }

bool sameDateTime(const DateTime &a, const DateTime &b) {
  return a.time == b.time && a.q1 == b.q1 && a.q2 == b.q2;
}

/* ---- Wire form ---------------------------------------------------------------- */

void putDateTime(uint8_t *out, const DateTime &dt) {
  put32(out, uint32_t(dt.time));
  put16(out + 4, dt.q1);
  put16(out + 6, dt.q2);
}

DateTime getDateTime(const uint8_t *in) {
  return DateTime{int32_t(get32(in)), get16(in + 4), get16(in + 6)};
}

void putTimeRange(uint8_t *out, const TimeRange &tr) {
  putDateTime(out, tr.start);
  putDateTime(out + DATETIME_WIRE, tr.end);
}

TimeRange getTimeRange(const uint8_t *in) {
  return TimeRange{getDateTime(in), getDateTime(in + DATETIME_WIRE)};
}

/* ---- Record-file text form ---------------------------------------------------- */

// Writes "0x" and the hexadecimal digits of v at out; returns the end. By hand, not
// through printf: record files are mostly date-time lines.
static char *putHex(char *out, uint32_t v) {
  char digits[8];
  int n = 0;
  do {
    digits[n++] = "0123456789abcdef"[v & 15];
    v >>= 4;
  } while (v != 0);
  *out++ = '0';
  *out++ = 'x';
  while (n > 0) *out++ = digits[--n];
  return out;
}

int formatDateTime(char *out, size_t cap, const DateTime &dt, const DateTime *defaults) {
  bool withQ1 = defaults == nullptr || dt.q1 != defaults->q1;
  bool withQ2 = withQ1 && (defaults == nullptr || dt.q2 != defaults->q2);
  char text[DATETIME_TEXT];  // the longest form is 28 bytes
  char *end = putHex(text, uint32_t(dt.time));
  if (withQ1) {
    *end++ = ' ';
    *end++ = '@';
    end = putHex(end, dt.q1);
  }
  if (withQ2) {
    *end++ = ' ';
    *end++ = '%';
    end = putHex(end, dt.q2);
  }
  size_t n = size_t(end - text);
  if (n >= cap) return -1;
  memcpy(out, text, n);
  out[n] = '\0';
  return int(n);
}

int parseDateTime(const char *text, DateTime *out, const DateTime *defaults) {
  const char *p = text;
  uint64_t time = 0, q1 = 0, q2 = 0;
  // The time is a 32-bit pattern; a writer that sign-extended it to 64 bits is accepted.
  if (!readHex(&p, UINT64_MAX, &time)) return -1;
  if (time > 0xFFFFFFFFu && time < 0xFFFFFFFF80000000u) return -1;
  DateTime dt{int32_t(uint32_t(time & 0xFFFFFFFFu)), defaults ? defaults->q1 : uint16_t(0),
              defaults ? defaults->q2 : uint16_t(0)};
  while (*p == ' ' || *p == '\t') p++;
  if (*p == '@') {
    p++;
    if (!readHex(&p, 0xFFFF, &q1)) return -1;
    dt.q1 = uint16_t(q1);
    while (*p == ' ' || *p == '\t') p++;
    if (*p == '%') {
      p++;
      if (!readHex(&p, 0xFFFF, &q2)) return -1;
      dt.q2 = uint16_t(q2);
    }
  }
  while (*p == ' ' || *p == '\t' || *p == '\n' || *p == '\r') p++;
  if (*p != '\0') return -1;
  *out = dt;
  return 0;
}

}  // namespace quorvel
