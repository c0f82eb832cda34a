// remote.h -- the remote calls: one request to the calendar server, one reply, for
// every operation on a calendar held by a server.
//
// A request is the header (link.h) with the call's code, then the call's elements in
// a fixed order. Each element is one tagged field whose tag byte is its kind:
//   51 number (32-bit)         56 text (with its NUL; a null text: a bare tag word)
//   54 item (the item codec's fields, its chain included; no item: a bare tag word)
//   53 list of items (the item codec's fields of every item, chains included)
//   7  default-alarm record (bytes the alarm code encodes)
//   58 address-book list (bytes the address book encodes), 59 when it has no entries
//   50 data (bytes the caller encodes: permission records, calendar sets)
// Lists and data carry their kind and length like the others, so that two lists in one
// request stay apart. A query block is not wrapped: it is its group of tagged fields in
// place, "W" the calendar set (bit encoding), "s" and "e" the start and end time
// (numbers), "k" the item kinds wanted (number), and "t" the search text when one is
// given; a null query sends an empty set, an open range and all kinds.
//
// The reply is read as a list of typed fields, the reply code first (link.h). Every call
// has the same shape: up to 2 resends when a reply is lost (-100); a busy reply (217) is
// waited out 5 seconds at a time, at most REMOTE_BUSY_WAITS (24) times, two minutes in
// all: the busy reply after the last wait fails the call with
// "<call>: server still busy after 24 waits" (no-wait mode fails at the first busy
// reply); other failures show the loss message once and fail. Reply 218 carries a new server value (the seventh
// field) for the calls that handle it; they then succeed. Otherwise the reply code must
// be the request code plus 100.
//
// Results: 0 with *reply filled (reply may be null), or -1.
#pragma once

#include <cstddef>
#include <cstdint>

#include "core/net/link.h"

namespace quorvel {

struct Item;

inline constexpr int FIELD_DATA = 50;
inline constexpr int FIELD_ITEM_LIST = 53;
inline constexpr int FIELD_ITEM = 54;
inline constexpr int FIELD_ALARM_DEFAULT = 7;
inline constexpr int FIELD_BOOK = 58;
inline constexpr int FIELD_BOOK_EMPTY = 59;
inline constexpr int REMOTE_RETRY_WAIT = 5;   // seconds between busy replies
inline constexpr int REMOTE_BUSY_WAITS = 24;  // waits for one call before it gives up

// Which items a search asks for.
struct ItemQuery {
  const uint16_t *calendars;  // calendar set to search (null: the server's default)
  int32_t start;              // first time of the range, NO_TIME for open
  int32_t end;                // end of the range, NO_TIME for open
  int32_t kinds;              // item kinds wanted, bit per kind (0: all)
  const char *text;           // text to look for, or null
};

// Encoded bytes handed through unchanged (alarm records, address-book lists, data).
struct RemBytes {
  const void *data;
  size_t length;
};

/* ---- Users, groups, permissions and notices ----------------------------------------- */

// Sends the server value and the calendar name (empty when null). The reply must hold,
// behind the code, a field of kind 2 or 8 and then a number; with kind 2 the number is
// compared with the server value of `named` (the named calendar's connection; null: the
// link itself): equal clears its changed flag, different stores it there and sets it.
int RemGetUsers(ServerLink *link, const char *name, ServerLink *named, RemReply *reply);
int RemLoadUserGroups(ServerLink *link, RemReply *reply);
// A number and a calendar name; the calendar set follows when `only` is not null.
int RemReadDatPerms(ServerLink *link, int32_t which, const char *name,
                    const uint16_t *only, RemReply *reply);
int RemCheckNotifyDelete(ServerLink *link, RemReply *reply);
int RemCheckNotifyByMail(ServerLink *link, RemReply *reply);
// These three send a calendar name and the data for it.
int RemWriteDatPerms(ServerLink *link, const char *name, RemBytes data, RemReply *reply);
int RemSetNotifyDelete(ServerLink *link, const char *name, RemBytes data, RemReply *reply);
int RemSetNotifyByMail(ServerLink *link, const char *name, RemBytes data, RemReply *reply);
int RemAddNewUser(ServerLink *link, const char *login, const char *name,
                  const char *mail, const char *extra, RemReply *reply);
int RemCheckRemoteUsers(ServerLink *link, const char *names, int32_t flags,
                        RemReply *reply);
int RemPutPasswdEntry(ServerLink *link, int32_t index, const char *login,
                      const char *entry, int32_t uid, int32_t gid, int32_t flags,
                      RemReply *reply);

/* ---- Items ---------------------------------------------------------------------------- */

int RemGetEventsWith(ServerLink *link, const ItemQuery *query, int32_t a, int32_t b,
                     int32_t c, RemReply *reply);
// Two lists of items (heads excluded; null for none), then two numbers.
int RemDbChange(ServerLink *link, const Item *first, const Item *second, int32_t a,
                int32_t b, RemReply *reply);
int RemDbChevent(ServerLink *link, const Item *oldItem, const Item *newItem, int32_t a,
                 int32_t b, RemReply *reply);
int RemGetUnfinishedEvents(ServerLink *link, const ItemQuery *query, const char *name,
                           int32_t flags, RemReply *reply);
int RemPutUnfinishedEvents(ServerLink *link, const ItemQuery *query, const char *name,
                           const Item *items, int32_t flags, RemReply *reply);
int RemGetHotDays(ServerLink *link, const ItemQuery *query, int32_t a, int32_t b,
                  int32_t c, RemReply *reply);
int RemGetFoundEvents(ServerLink *link, const ItemQuery *query, int32_t a, int32_t b,
                      const char *text, int32_t c, int32_t d, RemReply *reply);
int RemSendMail(ServerLink *link, const Item *item, const Item *other, int32_t a,
                int32_t b, int32_t c, int32_t d, RemReply *reply);

/* ---- Popup notes and default alarms ---------------------------------------------------- */

int RemGetPopupNote(ServerLink *link, const char *name, int32_t index, RemReply *reply);
int RemPutPopupNote(ServerLink *link, const char *name, const Item *note,
                    const char *text, const char *extra, RemReply *reply);
int RemCreatePopupNoteFile(ServerLink *link, const Item *note, RemReply *reply);
int RemGetDefaultAlarm(ServerLink *link, int32_t which, RemReply *reply);
int RemPutDefaultAlarm(ServerLink *link, RemBytes record, RemReply *reply);

/* ---- Address books ------------------------------------------------------------------- */

int RemReadRoloFile(ServerLink *link, int32_t a, int32_t b, int32_t c, RemReply *reply);
// A number, then two address-book lists (an empty one travels as kind 59).
int RemChangeRoloList(ServerLink *link, int32_t which, RemBytes added, RemBytes removed,
                      RemReply *reply);

/* ---- Domains, workdays, files ------------------------------------------------------------ */

int RemGetDomains(ServerLink *link, RemReply *reply);
int RemCheckRemoteDom(ServerLink *link, const char *domain, int32_t flags, RemReply *reply);
int RemGetUserWorkdays(ServerLink *link, RemReply *reply);
int RemReadArray(ServerLink *link, const char *name, RemReply *reply);
int RemWriteArray(ServerLink *link, const char *name, const char *contents,
                  RemReply *reply);
int RemMvDir(ServerLink *link, const char *from, const char *to, RemReply *reply);
int RemMkDir(ServerLink *link, const char *path, RemReply *reply);

}  // namespace quorvel
