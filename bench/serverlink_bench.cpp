// serverlink_bench.cpp -- remote calls over loopback against the fake calendar server:
// the cost of one small request/reply, and of receiving large replies through the
// receive loop's reads of at most limitB bytes.
#include <benchmark/benchmark.h>

#include <string>

#include "core/net/remote.h"
#include "testing/calserver.h"

using namespace quorvel;

namespace {

struct Peer {
  CalServer server;
  ServerLink *link = nullptr;
  Peer() {
    startCalServer(&server);
    link = newServerLink(calAddress(&server).c_str());
  }
  ~Peer() {
    freeServerLink(link);
    stopCalServer(&server);
  }
};

void BM_RemoteCallRoundTrip(benchmark::State &state) {
  Peer peer;
  for (auto _ : state) {
    if (RemGetDomains(peer.link, nullptr) != 0) state.SkipWithError("call failed");
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_RemoteCallRoundTrip);

void BM_ReceiveLargeReply(benchmark::State &state) {
  Peer peer;
  peer.link->req->limitB = static_cast<uint16_t>(state.range(1));
  std::string text(static_cast<size_t>(state.range(0)), 'r');
  CalStep step = calReply({calText(text)});
  RemReply reply;
  for (auto _ : state) {
    state.PauseTiming();
    calScript(&peer.server, {step});
    state.ResumeTiming();
    if (RemReadArray(peer.link, "big", &reply) != 0) state.SkipWithError("call failed");
  }
  state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_ReceiveLargeReply)
    ->Args({64 << 10, 1024})
    ->Args({1 << 20, 1024})
    ->Args({1 << 20, 16384})
    ->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
