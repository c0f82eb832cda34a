// remote.cpp -- the remote calls: request elements, the one worker that sends a request
// and waits out busy and lost replies, and a thin function per call that names its
// code and writes its elements in order.
#include "core/net/remote.h"

#include <arpa/inet.h>

#include <cstdio>
#include <cstring>

#include "core/base/base.h"
#include "core/net/calset.h"
#include "core/net/itemcodec.h"

namespace quorvel {

/* ==== Request elements ===================================================================== */

static uint32_t kindTag(int kind) { return static_cast<uint32_t>(kind) << 24; }

// An element without payload: its tag word alone.
static void putEmpty(Buf *buf, int kind) {
  uint32_t word = htonl(kindTag(kind));
  StuffBuf(buf, &word, 4, 1, BUF_UNTAGGED);
}

// Opens a field whose payload other writers append; returns where its tag word is.
static size_t openField(Buf *buf) {
  putEmpty(buf, 0);
  return bufUsed(buf) - 4;
}

// Closes a field opened at `at`: its tag word gets the kind and the payload's length.
static bool closeField(Buf *buf, size_t at, int kind) {
  size_t length = bufUsed(buf) - at - 4;
  if (length > BUF_MAX_FIELD) return false;
  uint32_t word = htonl(kindTag(kind) | static_cast<uint32_t>(length));
  memcpy(bufAt(buf, at), &word, 4);
  return true;
}

static bool putBytes(Buf *buf, int kind, int emptyKind, RemBytes bytes) {
  if (!bytes.data || bytes.length == 0) {
    putEmpty(buf, emptyKind);
    return true;
  }
  if (bytes.length > BUF_MAX_FIELD) return false;
  StuffBuf(buf, bytes.data, bytes.length, 1, kindTag(kind));
  return true;
}

static bool putItem(ServerLink *link, const Item *item) {
  Buf *buf = link->req;
  if (!item) {
    putEmpty(buf, FIELD_ITEM);
    return true;
  }
  if (!link->noExtended && itemNeedsExtended(item)) buf->extended = 1;
  size_t at = openField(buf);
  writeEventChain(buf, item);
  return closeField(buf, at, FIELD_ITEM);
}

static bool putItemList(ServerLink *link, const Item *head) {
  Buf *buf = link->req;
  if (!head) {
    putEmpty(buf, FIELD_ITEM_LIST);
    return true;
  }
  if (!link->noExtended && listNeedsExtended(buf, head)) buf->extended = 1;
  size_t at = openField(buf);
  writeEventList(buf, head);
  return closeField(buf, at, FIELD_ITEM_LIST);
}

static void putTagged(Buf *buf, char letter, int32_t value) {
  StuffBuf(buf, &value, 4, 4, bufTag(letter));
}

// A query block: its group of tagged fields written in place. No query asks for
// everything: an empty set, an open range, all kinds, no text.
static bool putQuery(Buf *buf, const ItemQuery *query) {
  static const ItemQuery all{nullptr, NO_TIME, NO_TIME, 0, nullptr};
  const ItemQuery *q = query ? query : &all;
  char bits[NETBITS_MAX];
  int n = writenetbits(bits, sizeof bits, q->calendars);
  StuffBuf(buf, bits, static_cast<size_t>(n > 0 ? n : 0), 1, bufTag('W'));
  putTagged(buf, 's', q->start);
  putTagged(buf, 'e', q->end);
  putTagged(buf, 'k', q->kinds);
  if (!q->text) return true;
  size_t length = strlen(q->text) + 1;
  if (length > BUF_MAX_FIELD) return false;
  StuffBuf(buf, q->text, length, 1, bufTag('t'));
  return true;
}

/* ==== The worker ============================================================================= */

namespace {
struct Call {
  const char *name;  // for diagnostics
  int code;          // request code; the normal reply is code + 100
  bool takes218;     // a 218 reply updates the server value and ends the call
};
}  // namespace

static constexpr int ENDED_BY_218 = 1;

// Sends the request that `body` writes and reads the reply into *reply. Returns 0,
// ENDED_BY_218, or -1. The body runs again for every resend.
template <class Body>
static int remoteCall(ServerLink *link, Call call, RemReply *reply, Body body) {
  int budget = 2;
  int busyWaits = 0;
  for (;;) {
    startRequest(link, call.code);
    if (!body(link->req)) {
      fprintf(stderr, "%s: request too large\n", call.name);
      return -1;
    }
    finishMessage(link->req);
    int r = exchangeWithServer(link);
    if (r == LINK_LOST_REPLY && budget > 0) {
      budget--;
      continue;
    }
    if (r != 0) {
      reportLinkLoss(link, r);
      return -1;
    }
    if (readReplyFields(link->req, reply) != 0) {
      fprintf(stderr, "%s: malformed reply\n", call.name);
      return -1;
    }
    int code = reply->fields[0].number;
    if (code == REPLY_BUSY) {
      if (noWaitMode()) return -1;
      // A server that stays busy must not hold the client forever: after the last
      // wait the call fails as a lost connection does.
      if (busyWaits == REMOTE_BUSY_WAITS) {
        fprintf(stderr, "%s: server still busy after %d waits\n", call.name, busyWaits);
        return -1;
      }
      busyWaits++;
      pauseSeconds(REMOTE_RETRY_WAIT);
      continue;
    }
    if (code == REPLY_SERVER_VALUE && call.takes218) {
      takeServerValue(link, reply);
      return ENDED_BY_218;
    }
    if (code != call.code + 100) {
      fprintf(stderr, "%s: unexpected reply %d\n", call.name, code);
      return -1;
    }
    return 0;
  }
}

// The common shape for calls that only hand the reply to the caller.
template <class Body>
static int simpleCall(ServerLink *link, Call call, RemReply *reply, Body body) {
  RemReply own;
  int r = remoteCall(link, call, reply ? reply : &own, body);
  return r < 0 ? -1 : 0;
}

static bool noElements(Buf *) { return true; }

/* ==== Users, groups, permissions and notices =================================================== */

int RemGetUsers(ServerLink *link, const char *name, ServerLink *named, RemReply *reply) {
  RemReply own;
  RemReply *out = reply ? reply : &own;
  int32_t value = noWaitMode() ? -1 : link->serverValue;
  int r = remoteCall(link, {"RemGetUsers", 104, true}, out, [&](Buf *b) {
    putNumber(b, value);
    putText(b, name);
    return true;
  });
  if (r != 0) return r < 0 ? -1 : 0;
  const std::vector<RemField> &f = out->fields;
  if (f.size() < 3 || (f[1].kind != 2 && f[1].kind != 8) || f[2].kind != FIELD_NUMBER) {
    fputs("RemGetUsers: bad reply\n", stderr);
    return -1;
  }
  if (f[1].kind == 2) {
    ServerLink *target = named ? named : link;
    target->changed = f[2].number != target->serverValue;
    target->serverValue = f[2].number;
  }
  return 0;
}

int RemLoadUserGroups(ServerLink *link, RemReply *reply) {
  return simpleCall(link, {"RemLoadUserGroups", 105, false}, reply, noElements);
}

int RemReadDatPerms(ServerLink *link, int32_t which, const char *name, const uint16_t *only,
                    RemReply *reply) {
  return simpleCall(link, {"RemReadDatPerms", 106, true}, reply, [&](Buf *b) {
    putNumber(b, which);
    putText(b, name);
    if (only) {
      char bits[NETBITS_MAX];
      int n = writenetbits(bits, sizeof bits, only);
      StuffBuf(b, bits, static_cast<size_t>(n > 0 ? n : 0), 1, kindTag(FIELD_DATA));
    }
    return true;
  });
}

int RemCheckNotifyDelete(ServerLink *link, RemReply *reply) {
  return simpleCall(link, {"RemCheckNotifyDelete", 107, false}, reply, noElements);
}

int RemCheckNotifyByMail(ServerLink *link, RemReply *reply) {
  return simpleCall(link, {"RemCheckNotifyByMail", 108, false}, reply, noElements);
}

// The one sender of the three settings calls: a calendar name and its data.
static int sendSettings(ServerLink *link, Call call, const char *name, RemBytes data,
                        RemReply *reply) {
  return simpleCall(link, call, reply, [&](Buf *b) {
    putText(b, name);
    return putBytes(b, FIELD_DATA, FIELD_DATA, data);
  });
}

int RemWriteDatPerms(ServerLink *link, const char *name, RemBytes data, RemReply *reply) {
  return sendSettings(link, {"RemWriteDatPerms", 109, false}, name, data, reply);
}

int RemSetNotifyDelete(ServerLink *link, const char *name, RemBytes data, RemReply *reply) {
  return sendSettings(link, {"RemSetNotifyDelete", 110, false}, name, data, reply);
}

int RemSetNotifyByMail(ServerLink *link, const char *name, RemBytes data, RemReply *reply) {
  return sendSettings(link, {"RemSetNotifyByMail", 111, false}, name, data, reply);
}

int RemAddNewUser(ServerLink *link, const char *login, const char *name, const char *mail,
                  const char *extra, RemReply *reply) {
  return simpleCall(link, {"RemAddNewUser", 123, false}, reply, [&](Buf *b) {
    putText(b, login);
    putText(b, name);
    putText(b, mail);
    putText(b, extra);
    return true;
  });
}

// A text and a number: the shape of the two remote checks.
static int textAndNumber(ServerLink *link, Call call, const char *text, int32_t n,
                         RemReply *reply) {
  return simpleCall(link, call, reply, [&](Buf *b) {
    putText(b, text);
    putNumber(b, n);
    return true;
  });
}

int RemCheckRemoteUsers(ServerLink *link, const char *names, int32_t flags, RemReply *reply) {
  return textAndNumber(link, {"RemCheckRemoteUsers", 130, false}, names, flags, reply);
}

int RemPutPasswdEntry(ServerLink *link, int32_t index, const char *login, const char *entry,
                      int32_t uid, int32_t gid, int32_t flags, RemReply *reply) {
  return simpleCall(link, {"RemPutPasswdEntry", 128, true}, reply, [&](Buf *b) {
    putNumber(b, index);
    putText(b, login);
    putText(b, entry);
    putNumber(b, uid);
    putNumber(b, gid);
    putNumber(b, flags);
    return true;
  });
}

/* ==== Items ====================================================================================== */

// A query block followed by three numbers: the shape of the two range searches.
static int queryAndThree(ServerLink *link, Call call, const ItemQuery *query, int32_t a,
                         int32_t b, int32_t c, RemReply *reply) {
  return simpleCall(link, call, reply, [&](Buf *buf) {
    bool ok = putQuery(buf, query);
    putNumber(buf, a);
    putNumber(buf, b);
    putNumber(buf, c);
    return ok;
  });
}

int RemGetEventsWith(ServerLink *link, const ItemQuery *query, int32_t a, int32_t b,
                     int32_t c, RemReply *reply) {
  return queryAndThree(link, {"RemGetEventsWith", 101, true}, query, a, b, c, reply);
}

int RemGetHotDays(ServerLink *link, const ItemQuery *query, int32_t a, int32_t b, int32_t c,
                  RemReply *reply) {
  return queryAndThree(link, {"RemGetHotDays", 125, true}, query, a, b, c, reply);
}

int RemDbChange(ServerLink *link, const Item *first, const Item *second, int32_t a, int32_t b,
                RemReply *reply) {
  return simpleCall(link, {"RemDbChange", 102, true}, reply, [&](Buf *buf) {
    bool ok = putItemList(link, first) && putItemList(link, second);
    putNumber(buf, a);
    putNumber(buf, b);
    return ok;
  });
}

int RemDbChevent(ServerLink *link, const Item *oldItem, const Item *newItem, int32_t a,
                 int32_t b, RemReply *reply) {
  return simpleCall(link, {"RemDbChevent", 103, true}, reply, [&](Buf *buf) {
    bool ok = putItem(link, oldItem) && putItem(link, newItem);
    putNumber(buf, a);
    putNumber(buf, b);
    return ok;
  });
}

int RemGetUnfinishedEvents(ServerLink *link, const ItemQuery *query, const char *name,
                           int32_t flags, RemReply *reply) {
  return simpleCall(link, {"RemGetUnfinishedEvents", 122, true}, reply, [&](Buf *buf) {
    bool ok = putQuery(buf, query);
    putText(buf, name);
    putNumber(buf, flags);
    return ok;
  });
}

int RemPutUnfinishedEvents(ServerLink *link, const ItemQuery *query, const char *name,
                           const Item *items, int32_t flags, RemReply *reply) {
  return simpleCall(link, {"RemPutUnfinishedEvents", 129, true}, reply, [&](Buf *buf) {
    bool ok = putQuery(buf, query);
    putText(buf, name);
    ok = putItemList(link, items) && ok;
    putNumber(buf, flags);
    return ok;
  });
}

int RemGetFoundEvents(ServerLink *link, const ItemQuery *query, int32_t a, int32_t b,
                      const char *text, int32_t c, int32_t d, RemReply *reply) {
  return simpleCall(link, {"RemGetFoundEvents", 135, true}, reply, [&](Buf *buf) {
    bool ok = putQuery(buf, query);
    putNumber(buf, a);
    putNumber(buf, b);
    putText(buf, text);
    putNumber(buf, c);
    putNumber(buf, d);
    return ok;
  });
}

int RemSendMail(ServerLink *link, const Item *item, const Item *other, int32_t a, int32_t b,
                int32_t c, int32_t d, RemReply *reply) {
  return simpleCall(link, {"RemSendMail", 131, false}, reply, [&](Buf *buf) {
    bool ok = putItem(link, item) && putItem(link, other);
    putNumber(buf, a);
    putNumber(buf, b);
    putNumber(buf, c);
    putNumber(buf, d);
    return ok;
  });
}

/* ==== Popup notes and default alarms ================================================================ */

int RemGetPopupNote(ServerLink *link, const char *name, int32_t index, RemReply *reply) {
  return textAndNumber(link, {"RemGetPopupNote", 112, false}, name, index, reply);
}

int RemPutPopupNote(ServerLink *link, const char *name, const Item *note, const char *text,
                    const char *extra, RemReply *reply) {
  return simpleCall(link, {"RemPutPopupNote", 113, false}, reply, [&](Buf *buf) {
    putText(buf, name);
    bool ok = putItem(link, note);
    putText(buf, text);
    putText(buf, extra);
    return ok;
  });
}

int RemCreatePopupNoteFile(ServerLink *link, const Item *note, RemReply *reply) {
  return simpleCall(link, {"RemCreatePopupNoteFile", 116, false}, reply,
                    [&](Buf *) { return putItem(link, note); });
}

int RemGetDefaultAlarm(ServerLink *link, int32_t which, RemReply *reply) {
  return simpleCall(link, {"RemGetDefaultAlarm", 114, false}, reply, [&](Buf *buf) {
    putNumber(buf, which);
    return true;
  });
}

int RemPutDefaultAlarm(ServerLink *link, RemBytes record, RemReply *reply) {
  return simpleCall(link, {"RemPutDefaultAlarm", 115, false}, reply, [&](Buf *buf) {
    return putBytes(buf, FIELD_ALARM_DEFAULT, FIELD_ALARM_DEFAULT, record);
  });
}

/* ==== Address books ================================================================================== */

int RemReadRoloFile(ServerLink *link, int32_t a, int32_t b, int32_t c, RemReply *reply) {
  return simpleCall(link, {"RemReadRoloFile", 119, true}, reply, [&](Buf *buf) {
    putNumber(buf, a);
    putNumber(buf, b);
    putNumber(buf, c);
    return true;
  });
}

int RemChangeRoloList(ServerLink *link, int32_t which, RemBytes added, RemBytes removed,
                      RemReply *reply) {
  return simpleCall(link, {"RemChangeRoloList", 120, true}, reply, [&](Buf *buf) {
    putNumber(buf, which);
    return putBytes(buf, FIELD_BOOK, FIELD_BOOK_EMPTY, added) &&
           putBytes(buf, FIELD_BOOK, FIELD_BOOK_EMPTY, removed);
  });
}

/* ==== Domains, workdays, files ======================================================================= */

int RemGetDomains(ServerLink *link, RemReply *reply) {
  return simpleCall(link, {"RemGetDomains", 121, false}, reply, noElements);
}

int RemCheckRemoteDom(ServerLink *link, const char *domain, int32_t flags, RemReply *reply) {
  return textAndNumber(link, {"RemCheckRemoteDom", 124, false}, domain, flags, reply);
}

int RemGetUserWorkdays(ServerLink *link, RemReply *reply) {
  return simpleCall(link, {"RemGetUserWorkdays", 134, false}, reply, noElements);
}

// One or two texts: the shape of the file calls.
static int texts(ServerLink *link, Call call, const char *first, const char *second,
                 bool two, RemReply *reply) {
  return simpleCall(link, call, reply, [&](Buf *buf) {
    putText(buf, first);
    if (two) putText(buf, second);
    return true;
  });
}

int RemReadArray(ServerLink *link, const char *name, RemReply *reply) {
  return texts(link, {"RemReadArray", 126, false}, name, nullptr, false, reply);
}

int RemWriteArray(ServerLink *link, const char *name, const char *contents, RemReply *reply) {
  return texts(link, {"RemWriteArray", 127, false}, name, contents, true, reply);
}

int RemMvDir(ServerLink *link, const char *from, const char *to, RemReply *reply) {
  return texts(link, {"RemMvDir", 132, false}, from, to, true, reply);
}

int RemMkDir(ServerLink *link, const char *path, RemReply *reply) {
  return texts(link, {"RemMkDir", 133, false}, path, nullptr, false, reply);
}

}  // namespace quorvel
