// agentlink.h -- the link between the gateway and the Quorvel web agent.
//
// One TCP connection per request, one message each way. Both messages are a counted
// list of (name, contents) string pairs behind a fixed header; every integer is an
// unsigned 32-bit big-endian word:
//
//   message: magic 0xDEADBEEF | entry count | total length (header included) | entries
//   entry:   magic 0xDEADBEEF | entry length (these 8 bytes included) | name | contents
//
// The name and the contents are NUL-terminated and padded with NULs to a multiple of 4
// (an exact multiple gains nothing). On receipt the total and every entry length must be
// at most 0x100000 and a padded name at most 256 bytes; the sender enforces no limit.
// The agent listens on TCP port 3726 plus the number given in the query (16-bit sum).
//
// Results: 0 success; -1 time-out, reset, refused connection or overlong send; -3 a
// malformed message or pair list; a positive errno passed up from the socket layer
// (the request cycle tests only for negative results). Diagnostics go to stderr.
#pragma once

#include <cstdint>

namespace quorvel::gateway {

/* ---- Pair lists ----------------------------------------------------------------- */

// One (name, contents) pair; a list ends with a pair whose name is null.
struct NamePair {
  char *name;      // owned, NUL-terminated; "" for the page, a path below ../htdocs/ else
  char *contents;  // owned bytes, NUL-terminated as far as the gateway is concerned
};

// n pairs, every field null; out of memory ends the process ("newPairList").
NamePair *newPairList(int n);
// Releases every name and contents, then the array. Null is allowed.
void freePairList(NamePair *pairs);
// The number of pairs: the index of the first pair with a null name.
int countPairs(const NamePair *pairs);

/* ---- Message buffers ------------------------------------------------------------- */

struct AgentMsg {
  char *bytes;  // owned, allocMem'd
  long size;    // bytes allocated
};

// Enlarges msg by extra bytes; an allocation failure prints perror("growMsg") and is
// retried until it succeeds.
void growMsg(AgentMsg *msg, long extra);

inline constexpr uint32_t AGENT_MAGIC = 0xDEADBEEF;
inline constexpr int AGENT_PORT_BASE = 3726;       // the query's port is an offset from this
inline constexpr long AGENT_MAX_TOTAL = 0x100000;  // receipt limit of a message and an entry
inline constexpr long AGENT_MAX_NAME = 256;        // receipt limit of a padded name

/* ---- Connection ------------------------------------------------------------------- */

// Connects to the agent at host (dotted address or name), TCP port 3726 + port taken in
// 16 bits. Up to 21 attempts one second apart while connect fails with EAGAIN or
// ETIMEDOUT; any other failure gives -1 at once. Returns a non-blocking socket or -1.
int makeConnection(const char *host, int port);

// True when text starts with a decimal digit and so is taken as a dotted address.
bool isDottedAddress(const char *text);
// Turns O_NONBLOCK on or off; returns 0, or -1 after perror("fcntl").
int setNonBlocking(int fd, bool on);
// Closes fd (nothing for -1), retrying a failed close up to three times a second apart.
void closeSocket(int fd);

/* ---- Sending ------------------------------------------------------------------------ */

// Builds one message from the pair list and sends it: 0, -3 for an empty list or a pair
// without contents, or what doWebSockWrite returns.
int WebSockWrite(int sock, int timeoutSeconds, const NamePair *pairs);
// The send loop: 8192 bytes a write, select waits of timeoutSeconds, ten stalls at most.
// Returns 0 (also after ten stalls, with "doWebSockWrite: EWOULDBLOCK" on stderr), -1 for
// an overlong write, 110, or a positive errno.
int doWebSockWrite(int sock, int timeoutSeconds, const char *bytes, long length);

/* ---- Receiving ------------------------------------------------------------------------ */

// Receives one whole message into a new allocMem'd buffer (*buffer) and sets *count to
// the header's entry count. wait = 0 refuses to wait for the first bytes. Returns 0, -3
// (bad magic or total length, more bytes than announced), -1 (time-out, reset, select
// failure, peer gone) or a positive errno.
int WebSockRead(int sock, int timeoutSeconds, char **buffer, int *count, int wait);

// WebSockRead, then decoding into a new pair list of *count pairs plus the terminator.
// Releases the received buffer itself (*buffer is null afterwards). On failure *pairs is
// left null and the first failure is returned (-3 for a malformed entry).
int readAgentReply(int sock, int timeoutSeconds, char **buffer, int *count, NamePair **pairs,
                   int wait);

// Decodes a whole message already in memory (header included) into a new pair list;
// the decoding half of readAgentReply. Returns 0 or -3.
int decodeAgentMessage(const char *msg, long length, int count, NamePair **pairs);

}  // namespace quorvel::gateway
