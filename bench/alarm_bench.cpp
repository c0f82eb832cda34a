// alarm_bench.cpp -- the alarm queue rebuilt for a day of items: CheckAlarmlists on a
// local calendar whose record file holds 1,000 or 10,000 items of one day, each with
// alarms (every fourth one taking the user's default), the file already loaded.
#include <benchmark/benchmark.h>
#include <sys/stat.h>

#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <string>

#include "core/alarm/alarm.h"
#include "core/base/base.h"
#include "core/db/context.h"
#include "core/db/record.h"
#include "core/people/identity.h"
#include "core/people/users.h"

namespace quorvel {
namespace {

constexpr time_t DAY = 1904947200;  // 2030-05-14 00:00 UTC
time_t benchNow() { return DAY + 30; }

// A temporary root with alice's calendar of n items between 1:00 and 23:59.
struct Day {
  std::string root;
  DbHandle *db = nullptr;
  explicit Day(int n) {
    char tmpl[] = "/tmp/qvalarmbenchXXXXXX";
    root = mkdtemp(tmpl);
    std::filesystem::create_directories(root + "/db/database/events");
    std::filesystem::create_directories(root + "/db/database/locks");
    setenv("QUORVELPATH", root.c_str(), 1), setenv("TZ", "UTC0", 1), tzset();
    resetBase(), setClockHook(benchNow);
    db = newDbHandle((root + "/db/database").c_str(), nullptr, 0);
    setMainDb(db), setCurrentDb(db);
    UserList *users = newUserList();
    addUserEntry(users, "alice", "alice", "", "", 0), addUserEntry(users, "bob", "bob", "", "", 0);
    installUserList(db, users);
    setOwnCalendar(0);
    std::ofstream(root + "/db/database/events/alice") << itemsText(n);
    std::ofstream(root + "/db/database/alarm.def") << "\n#A\t15,15\n#V\talice\n";
  }
  static std::string itemsText(int n) {
    Item list;
    evlistInit(&list);
    for (int i = 0; i < n; i++) {
      Item *it = evnew();
      evsetTitle(it, ("item " + std::to_string(i)).c_str());
      it->timeValue.start.time = int32_t(DAY + 3600 + int64_t(i) * 82740 / n);
      setbit(&it->calendars, 0, 1);
      AddAlarm(it, 1, 60, 5, nullptr);
      if (i % 4 != 0) AddAlarm(it, 0, 30, 10, "note");
      evlistAppend(&list, it);
    }
    std::string text;
    writeList(&text, &list);
    freeListHead(&list);
    return text;
  }
  ~Day() {
    resetAlarms(), releaseUsers(db), resetDbContexts(), resetIdentity(), resetUsers(), resetBase();
    std::filesystem::remove_all(root);
  }
};

void BM_RebuildQueue(benchmark::State &state) {
  Day day(int(state.range(0)));
  CheckAlarmlists(day.db, 0);  // loads the record file into the cache
  int entries = 0;
  for (auto _ : state) {
    forgetAlarmParse();
    benchmark::DoNotOptimize(CheckAlarmlists(day.db, 0));
    alarmQueue(&entries, nullptr);
  }
  state.counters["entries"] = entries;
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_RebuildQueue)->Arg(1000)->Arg(10000)->Unit(benchmark::kMicrosecond);

}  // namespace
}  // namespace quorvel

BENCHMARK_MAIN();
