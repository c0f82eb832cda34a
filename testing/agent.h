// agent.h -- the sample Quorvel web agent: a real TCP server on 127.0.0.1 that speaks
// the agent message format, for tests, the demo and the benchmarks.
//
// Message format (both directions; every integer an unsigned 32-bit big-endian word):
//   message: magic 0xDEADBEEF | entry count | total length (header included) | entries
//   entry:   magic 0xDEADBEEF | entry length (these 8 bytes included) | name | contents
// name and contents NUL-terminated and padded with NULs to a multiple of 4. The gateway
// sends one entry (empty name, the query); the agent answers with files (named pairs)
// and the page (the empty name, with its own "Content-type" header).
//
// Each connection is answered by the next script queued (the last one repeats), so one
// test can script a bad reply, then a good one. The agent is independent of the
// gateway's code: it has its own encoder and decoder.
//
// The program `sample_agent` wraps this library:
//   sample_agent [--port P | --offset N] [--mode MODE] [--files N] [--size BYTES]
//                [--pair NAME=CONTENTS]... [--drip BYTES] [--count K] [--port-file PATH]
//
//   --port P      listen on 127.0.0.1:P; 0 picks a free port (always >= 3726 on Linux)
//   --offset N    listen on 3726 + N (the number the gateway's query carries as dn=host:N)
//                 (default: --offset 0, port 3726)
//   --mode MODE   demo (default): a page showing the request, plus tmp/demo-picture.svg
//                 files: --files N files tmp/file-<i>.txt of --size BYTES each, plus a page
//                 pairs: exactly the --pair entries (NAME may be empty: the page)
//                 bad-magic, oversize (total 0x100001), long-name (name of 257 bytes),
//                 extra-bytes (four bytes past the announced total), close (closes
//                 without answering), silent (never answers), drip (the demo reply a
//                 few bytes per write, --drip BYTES, default 7), no-read (never reads)
//                 calendar: the calendar views of the database at --database ROOT
//                 (calendar_view.h), chosen by the query's keys:
//                   view=day|week|month  user=NAME  date=YYYY-MM-DD or YYYY-MM  as=NAME
//                 e.g. view=month&user=ann&date=2026-11&as=bob: ann's November read
//                 with bob's rights; a page plus tmp/overview-<user>-<yyyy>-<mm>.svg
//   --database R  calendar mode: the installation root holding db/users and db/database
//   --count K     serve K connections, then exit 0 (default: until killed)
//   --port-file F write the port number and a line end to F once listening
//
// Once listening it prints one line on standard output and flushes it:
//   sample_agent: listening on 127.0.0.1 port <P> offset <P-3726>
// and, for each request served, a line "sample_agent: request <query>" on stderr.
#pragma once

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace quorvel::webagent {

inline constexpr int AGENT_BASE_PORT = 3726;
inline constexpr uint32_t AGENT_MAGIC_WORD = 0xDEADBEEF;

struct AgentPair {
  std::string name;      // "" for the page
  std::string contents;  // sent NUL-terminated and padded
  bool operator==(const AgentPair &) const = default;
};

enum class AgentMode {
  Demo,        // a page showing the request, referencing tmp/demo-picture.svg, + the picture
  Pairs,       // exactly script.pairs
  Files,       // script.fileCount files of script.fileSize bytes, then a page
  BadMagic,    // script.pairs (or the demo reply) behind the magic 0xDEADBEEE
  Oversize,    // a header announcing 0x100001 bytes, nothing behind it
  LongName,    // one pair whose name of 257 bytes needs 260 padded bytes, plus the page
  ExtraBytes,  // the pairs, then four bytes more than the header announced, in one write
  CloseEarly,  // reads the request and closes without answering
  Silent,      // reads the request and never answers (holds until the peer closes)
  Drip,        // the pairs (or the demo reply) script.dripBytes bytes per write
  Raw,         // exactly script.raw, whatever it holds
  NoRead,      // never reads, never answers (holds until stopped): the sender stalls
  Calendar,    // the calendar view the query asks for, from the database at script.database
};

struct AgentScript {
  AgentMode mode = AgentMode::Demo;
  std::vector<AgentPair> pairs;  // Pairs, BadMagic, ExtraBytes, Drip
  int fileCount = 0;             // Files
  size_t fileSize = 0;           // Files
  size_t dripBytes = 7;          // Drip
  unsigned dripPauseMicros = 500;  // Drip: the pause after each piece
  std::string raw;               // Raw
  std::string database;          // Calendar: the installation root of the database
  AgentScript(AgentMode m = AgentMode::Demo, std::vector<AgentPair> p = {}) : mode(m), pairs(p) {}
};

// A running agent. Start it, queue scripts, run requests against port, stop it.
struct SampleAgent {
  int listenFd = -1;             // bound to 127.0.0.1:port
  bool announce = false;         // print "sample_agent: request <query>" on stderr
  int receiveBuffer = 0;         // set before agentListen: SO_RCVBUF of connections (0 = default)
  int port = 0;                  // the TCP port actually bound
  int stopPipe[2] = {-1, -1};    // a byte here ends every wait of the serving thread
  std::thread thread;            // runs agentServe when started by agentStart
  std::mutex lock;               // guards the fields below
  std::vector<AgentScript> scripts;   // one per connection; the last repeats
  size_t nextScript = 0;
  std::vector<std::string> requests;  // the query of every request received
};

// One whole message of the given pairs, with magic as the header's first word.
std::string encodeAgentMessage(const std::vector<AgentPair> &pairs,
                               uint32_t magic = AGENT_MAGIC_WORD);
// The demo page for query, with its own response header.
std::string demoPage(const std::string &query);
// The agent's picture, an SVG document (text, so it survives the gateway's "%s" copy).
std::string demoPicture();
// Binds 127.0.0.1:port (0 = a free port) and listens. Returns 0 or errno.
int agentListen(SampleAgent *agent, int port);
// Serves connections one after another until stopped or, when maxConnections > 0,
// until that many are served.
void agentServe(SampleAgent *agent, int maxConnections);
// agentListen, then agentServe on a thread of its own.
int agentStart(SampleAgent *agent, int port);
// Ends the serving thread (if any) and closes the sockets.
void agentStop(SampleAgent *agent);
// Queues one script (each connection takes the next; the last repeats).
void agentPush(SampleAgent *agent, const AgentScript &script);
// The queries received so far, in order.
std::vector<std::string> agentRequests(SampleAgent *agent);
// The number the gateway's query carries for this agent: port - 3726, taken in 16 bits.
int agentOffset(const SampleAgent *agent);
// sample_agent's command line; returns its exit status.
int sampleAgentMain(int argc, char **argv);

}  // namespace quorvel::webagent
