// calserver.h -- a fake calendar server for tests: a real TCP server on 127.0.0.1 that
// speaks the calendar server's framing.
//
// Every message is a 12-byte header (16-bit code, two version bytes, 32-bit length,
// 32-bit magic, network order) followed by tagged fields (top byte the kind, low 24 bits
// the length, payload padded with NULs to 4 bytes). The server accepts connections one
// after another, reads each request, records it (header and elements) and answers it by
// the next step of its script; once the script is used up it gives normal replies
// (request code + 100, no fields). Steps can send busy (217) and server-value (218)
// replies, close without replying, stay silent, or send bad magic, other versions, and
// truncated or overlong replies. Results: 0 or -1 (with errno) from startCalServer.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace quorvel {

/* ---- Fields, requests and script steps ----------------------------------------- */

struct CalField {
  int kind = 0;                  // the field's tag byte (51 number, 56 text, ...)
  std::vector<uint8_t> payload;  // the payload as it travels, unpadded
};

CalField calNumber(int32_t value);               // kind 51, one network-order word
CalField calText(const std::string &text);       // kind 56, the text and its NUL
CalField calBytes(int kind, std::string bytes);  // any kind, bytes as given
int32_t calFieldNumber(const CalField &f);       // first word of the payload, or 0
std::string calFieldText(const CalField &f);     // payload up to its first NUL

struct CalRequest {
  int code = 0;                  // request code from the header
  int major = 0, minor = 0;      // version bytes of the header
  uint32_t length = 0;           // length the header announces
  uint32_t magic = 0;            // magic of the header
  std::vector<CalField> fields;  // the body as tagged fields, in order
  bool wellFormed = false;       // the body parsed exactly into whole fields
};

enum CalAction {
  CAL_REPLY,      // send a reply (code, version, magic and fields below)
  CAL_CLOSE,      // read the request, then close the connection without a reply
  CAL_SILENT,     // read the request and never answer (until the client closes)
  CAL_TRUNCATE,   // send only `cutBytes` bytes of the reply, then close
  CAL_OVERLONG,   // send the reply followed by `extraBytes` bytes it does not announce
  CAL_REFUSE,     // close the connection before reading anything
  CAL_RESET,      // read the request, then reset the connection (RST, no reply)
};

struct CalStep {
  CalAction action = CAL_REPLY;
  int code = 0;                  // reply code; 0 means request code + 100
  int major = 1, minor = 6;      // version bytes of the reply header
  uint32_t magic = 0xDEADBEEF;   // magic of the reply header
  bool zeroLength = false;       // announce a length of 0 in the header
  std::vector<CalField> fields;  // the reply's fields behind the header
  std::vector<uint8_t> raw;      // bytes sent as they are behind the fields (counted)
  int cutBytes = 6;              // CAL_TRUNCATE: bytes actually sent
  int extraBytes = 8;            // CAL_OVERLONG: bytes sent beyond the length
  int delayMs = 0;               // wait this long before answering
  int stallReadMs = 0;           // wait this long before reading the request
};

CalStep calReply(std::vector<CalField> fields = {}, int code = 0);
CalStep calBusy();                    // reply code 217
CalStep calServerValue(int32_t v);    // reply 218 whose seventh field (code first) is v
CalStep calAction(CalAction action);  // a step with just an action

/* ---- The server ------------------------------------------------------------------ */

struct CalServer {
  int listenFd = -1;
  int port = 0;                        // TCP port it listens on
  std::thread thread;
  std::mutex lock;                     // guards everything below
  std::condition_variable changed;
  std::vector<CalStep> script;         // steps still to play, front first
  std::vector<CalRequest> requests;    // requests received, in order
  int connections = 0;                 // connections accepted so far
  std::atomic<bool> stopping{false};
};

// Listens on an ephemeral loopback port and serves from a thread.
int startCalServer(CalServer *server);
// Stops the thread and closes every socket.
void stopCalServer(CalServer *server);

// Appends steps to the script (thread-safe).
void calScript(CalServer *server, std::vector<CalStep> steps);
// Copies of what the server has seen so far.
std::vector<CalRequest> calRequests(CalServer *server);
int calConnections(CalServer *server);

// The server address a client gives to reach this server ("127.0.0.1:<n>"), where n is
// the offset from the calendar server's base port 3751.
std::string calAddress(const CalServer *server);

// Splits a message body into tagged fields; false when it does not parse exactly.
bool calParseFields(const uint8_t *body, size_t length, std::vector<CalField> *out);

}  // namespace quorvel
