// calserver.h -- a fake calendar server for tests: a real TCP server on 127.0.0.1 that
// speaks the calendar server's framing: a 12-byte header (16-bit code, two version bytes,
// 32-bit length, 32-bit magic, network order), then tagged fields (top byte the kind, low
// 24 bits the length, payload padded with NULs to 4 bytes). It accepts connections one
// after another, records each request and answers it by the next step of its script;
// once the script is used up it gives normal replies (request code + 100, no fields).
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace quorvel {

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
  uint32_t magic = 0;            // magic of the header
  std::vector<CalField> fields;  // the body as tagged fields, in order
  bool wellFormed = false;       // the body parsed exactly into whole fields
};

enum CalAction {
  CAL_REPLY,     // send a reply (code, version, magic and fields below)
  CAL_CLOSE,     // read the request, then close the connection without a reply
  CAL_SILENT,    // read the request and never answer (until the client closes)
  CAL_TRUNCATE,  // send only the first 6 bytes of the reply, then close
  CAL_OVERLONG,  // send the reply followed by 8 bytes it does not announce
  CAL_RESET,     // read the request, then reset the connection (RST, no reply)
};

struct CalStep {
  CalAction action = CAL_REPLY;
  int code = 0;                  // reply code; 0 means request code + 100
  int major = 1, minor = 6;      // version bytes of the reply header
  uint32_t magic = 0xDEADBEEF;   // magic of the reply header
  bool zeroLength = false;       // announce a length of 0 in the header
  int64_t announce = -1;         // announce this length instead of the true one (-1: true)
  std::vector<CalField> fields;  // the reply's fields behind the header
  std::vector<uint8_t> raw;      // bytes sent as they are behind the fields (counted)
  int delayMs = 0;               // wait this long before answering
  int stallReadMs = 0;           // wait this long before reading the request
};

CalStep calReply(std::vector<CalField> fields = {}, int code = 0);
CalStep calBusy();                    // reply code 217
CalStep calServerValue(int32_t v);    // reply 218 whose seventh field (code first) is v
CalStep calAction(CalAction action);  // a step with just an action

struct CalServer {
  int listenFd = -1, port = 0;       // the listening socket and its TCP port
  std::thread thread;
  std::mutex lock;                   // guards everything below
  std::vector<CalStep> script;       // steps still to play, front first
  std::vector<CalRequest> requests;  // requests received, in order
  int connections = 0;               // connections accepted so far
  std::atomic<bool> stopping{false};
};

// Listens on an ephemeral loopback port and serves from a thread: 0, or -1 with errno.
// Stopping ends the thread and closes every socket.
int startCalServer(CalServer *server);
void stopCalServer(CalServer *server);

// Appends steps to the script; copies of what the server has seen so far (thread-safe).
void calScript(CalServer *server, std::vector<CalStep> steps);
std::vector<CalRequest> calRequests(CalServer *server);
int calConnections(CalServer *server);

// The server address a client gives to reach this server ("127.0.0.1:<n>"), where n is
// the offset from the calendar server's base port 3751.
std::string calAddress(const CalServer *server);

}  // namespace quorvel
