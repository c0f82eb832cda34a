// link.h -- the connection to the calendar server and the framing of its messages.
//
// Every request and reply starts with a 12-byte header, all network order:
//   0  2  message code (request code, or reply code)
//   2  1  protocol version, first number  (ours: 1 of "1.6")
//   3  1  protocol version, second number (ours: 6)
//   4  4  message length, header included (12 while the message is being built)
//   8  4  magic: 0xDEADBEEF, or 0xBABEFACE when the buffer is marked extended
// The body is a run of tagged fields (buf.h). A reply is accepted when its first version
// number is within 2 of ours and its magic is one of the two; the second number does
// not matter. The server listens on TCP port 3751 plus the number behind the colon of
// its address ("host:n"; ":" followed by a non-digit stays part of the host name).
//
// A ServerLink is one connection: address, socket, the request buffer (replies are read
// into the same buffer), time-outs, the peer's version and the server value the server
// hands out in hand-shakes. No-wait mode (set from the client's main context) turns
// retries off and arms alarm() around server reads (150 s) and writes (450 s).
//
// Results: 0 success; the link's own failures as LINK_* below; positive errno values
// passed up (110 ETIMEDOUT for a time-out, 22 EINVAL for a reply longer than announced).
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "core/net/buf.h"

namespace quorvel {

/* ---- Protocol constants and results ------------------------------------------- */

inline constexpr const char *PROTOCOL_VERSION = "1.6";
inline constexpr uint32_t MSG_MAGIC = 0xDEADBEEF;
inline constexpr uint32_t MSG_MAGIC_EXTENDED = 0xBABEFACE;
inline constexpr int MSG_HEADER_SIZE = 12;
inline constexpr int SERVER_BASE_PORT = 3751;

inline constexpr int LINK_GENERAL = -1;       // "General error"
inline constexpr int LINK_BAD_VERSION = -2;   // "Incompatible client version"
inline constexpr int LINK_BAD_MAGIC = -3;     // "Bad magic number"
inline constexpr int LINK_NO_HEADER = -4;     // header unreadable, or a length of 0
inline constexpr int LINK_REFUSED = -10;      // the server refused the hand-shake
inline constexpr int LINK_LOST_REPLY = -100;  // connection closed before any reply byte
inline constexpr int LINK_NO_SERVER = -104;   // no connection could be made
inline constexpr int LINK_TIMEOUT = 110;      // ETIMEDOUT
inline constexpr int LINK_TRUNCATED = 22;     // EINVAL: more bytes than announced

inline constexpr int REQ_HANDSHAKE = 100;
inline constexpr int REPLY_HANDSHAKE = 200;
inline constexpr int REPLY_BUSY = 217;
inline constexpr int REPLY_SERVER_VALUE = 218;

// Field kinds (tag bytes) of typed reply and request fields.
inline constexpr int FIELD_NUMBER = 51;
inline constexpr int FIELD_TEXT = 56;

/* ---- The connection context ----------------------------------------------------- */

struct WithReq {  // a request record: five words, all zero when made
  int32_t words[5];
};

struct ServerLink {
  char *server;             // server address "host[:n]" (owned), null when unknown
  int sock;                 // connected socket, -1 while closed
  Buf *req;                 // request buffer, also receives the reply (owned)
  int timeout;              // seconds: connect wait, pause between connect attempts
  int waitMs;               // each wait of the send/receive loops; 0: timeout * 1000
  int retries;              // further connect attempts after the first
  uint8_t peerMajor;        // peer's protocol version, 0.0 while unknown
  uint8_t peerMinor;
  bool noExtended;          // peer too old for extended messages: never send them
  bool connectedBefore;     // a connection has been made (and not lost since)
  bool lost;                // the connection was lost
  bool reportLoss;          // show a message when the server is lost (default on)
  bool lossShown;           // the loss message was shown for the current loss
  int32_t serverValue;      // value handed out by the server in hand-shakes
  bool changed;             // the server reported a change of this calendar's users
  WithReq **slots;          // reply slots (CreateWithCache), slotCount entries
  int slotCount;
};

// A fresh context for `address` (copied; may be null): socket -1, time-out 30 s,
// 2 connect retries, loss messages on (the client core sets its own values after).
// Out of memory reports "newServerLink".
ServerLink *newServerLink(const char *address);
// Closes the socket and frees the buffer, slots, address and the context; null is fine.
void freeServerLink(ServerLink *link);

/* ---- Addresses and connecting --------------------------------------------------- */

// Splits "host[:n]" into the host text and the number n (0 when absent).
void splitServerAddress(const char *address, std::string *host, int *number);
// The TCP port for an address: 3751 + n, taken in 16 bits.
int serverTcpPort(const char *address);
// Opens a non-blocking socket to the context's server; returns it or -1 (errno set).
// A pending connect counts as made once the socket is writable within the time-out.
int makeConnection(ServerLink *link);
// Whether `address` names this machine, given the port number the caller uses.
bool isLocalServer(const char *address, int port);
// Closes the socket when open and marks it -1.
void closeServerSocket(ServerLink *link);

/* ---- Framing -------------------------------------------------------------------- */

// Rewinds buf and writes the header for `code` (length 12).
void startMessage(Buf *buf, int code);
// Starts a request in the context's buffer: extended flag cleared, the peer's version
// copied into the buffer for the item codec's gates, then the header.
void startRequest(ServerLink *link, int code);
// Appends a number field (kind 51) or a text field (kind 56, with its NUL; a null
// text is an empty field, a bare tag word).
void putNumber(Buf *buf, int32_t value);
void putText(Buf *buf, const char *text);
// Rewrites the header with the length up to the cursor and the magic the extended
// flag asks for.
void finishMessage(Buf *buf);
// Reads the header at the start of buf, stores the peer version in the buffer and
// checks it: 0, LINK_BAD_VERSION, LINK_BAD_MAGIC or LINK_NO_HEADER. Code and length
// are stored when the pointers are given. The cursor is left behind the header.
int checkReplyHeader(Buf *buf, int *code, uint32_t *length);

/* ---- Sending and receiving ------------------------------------------------------- */

// Sends the request buffer, connecting first when no socket is open. Returns 0,
// LINK_GENERAL (no address, "Invalid buf size"), LINK_NO_SERVER, LINK_TIMEOUT or an
// errno; after a failure other than a time-out the socket is closed.
int SendMsgToServer(ServerLink *link);
// The send loop: writes len bytes of buf, waiting up to waitMs for room each time;
// ten stalls in a row (a second apart) give LINK_TIMEOUT after "doWrite: EWOULDBLOCK".
int doWrite(int sock, Buf *buf, size_t len, int waitMs);
// Reads one whole reply into the request buffer and checks its header: a length of 0
// gives "Zero buf size", one of 1 to 11 or above 16,000,000 "Unknown error<length>";
// a failed wait "read select: <error>". Twenty wake-ups in a row that find no data end
// the read (LINK_GENERAL); any read with data starts that count afresh. Returns 0,
// LINK_BAD_VERSION, LINK_BAD_MAGIC, LINK_NO_HEADER, LINK_GENERAL, LINK_LOST_REPLY,
// LINK_TIMEOUT, LINK_TRUNCATED or a read errno.
int ReadFromSocket(ServerLink *link, int waitMs);
// SendMsgToServer, then ReadFromSocket; closes the socket after a failure and learns
// the peer's version from the first reply.
int exchangeWithServer(ServerLink *link);

/* ---- Replies as typed fields ------------------------------------------------------ */

struct RemField {
  int kind;           // tag byte: 51 number, 56 text, or the kind of any other field
  int32_t number;     // the first word of the payload (numbers), else 0
  std::string bytes;  // the payload, unpadded
};

struct RemReply {
  std::vector<RemField> fields;  // fields[0] is the reply code, as a number
};

// Splits the reply in the request buffer into fields. 0, or -ESRCH when the body does
// not divide into whole fields.
int readReplyFields(const Buf *buf, RemReply *reply);
// Reply 218: when the seventh field (the reply code counted first) is a number it
// becomes the context's server value; then the client's refresh routine runs.
void takeServerValue(ServerLink *link, const RemReply *reply);

/* ---- The hand-shake ---------------------------------------------------------------- */

// Sends request 100 with the server value and waits out busy replies (217). Returns 0,
// LINK_REFUSED, or a negative failure; on failure the message area (when given)
// receives "failed connection\n". A text in the reply is copied there on success.
int GetConnection(ServerLink *link, char *message = nullptr, size_t cap = 0);

/* ---- Reply slots ---------------------------------------------------------------- */

WithReq *NewWithReq();                   // out of memory reports "NewWithReq"
void CreateWithCache(ServerLink *link, int n);  // n slots, 0 frees them

/* ---- Errors and loss messages ------------------------------------------------------ */

// The text of a link result, formatted into one static area the next call overwrites.
const char *linkErrorText(int code);
// Shows "lost connection to server %s\n" or "cannot connect to server %s\n" once per
// loss, for LINK_NO_SERVER only, when the context asks for loss messages.
void reportLinkLoss(ServerLink *link, int code);

/* ---- Process-wide settings (client core and tests) --------------------------------- */

using LinkMessageHook = void (*)(const char *text);  // the client's message display
using LinkBusyHook = void (*)(int on);               // the client's busy indication
using LinkRefreshHook = void (*)(ServerLink *link);  // runs after a 218 reply

void setNoWaitMode(bool on);
bool noWaitMode();
void setLinkDiagnostics(bool on);  // perror on read errors
LinkMessageHook setLinkMessageHook(LinkMessageHook hook);  // null: standard error
LinkBusyHook setLinkBusyHook(LinkBusyHook hook);
LinkRefreshHook setLinkRefreshHook(LinkRefreshHook hook);
void resetLink();  // no-wait off, diagnostics off, hooks removed

}  // namespace quorvel
