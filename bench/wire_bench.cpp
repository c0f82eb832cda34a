// wire_bench.cpp -- speed of the server wire encoding: one large tagged field written
// and read back against plain memcpy of the same bytes, and whole calendar items
// through the item codec against Protocol Buffers carrying the same content.
#include <benchmark/benchmark.h>

#include <cstring>
#include <string>
#include <vector>

#include "core/items/item.h"
#include "core/net/buf.h"
#include "core/net/calset.h"
#include "core/net/itemcodec.h"
#include "wire.pb.h"

namespace quorvel {
namespace {

/* ---- Large fields ---------------------------------------------------------------- */

std::vector<uint8_t> pattern(size_t n) {
  std::vector<uint8_t> bytes(n);
  for (size_t i = 0; i < n; i++) bytes[i] = uint8_t(i * 131 + 7);
  return bytes;
}

// One field of n bytes into a reused buffer and back out (granularity 1).
void BM_TaggedField(benchmark::State &state) {
  size_t n = size_t(state.range(0));
  std::vector<uint8_t> src = pattern(n), dst(n);
  Buf *buf = NewBuf();
  for (auto _ : state) {
    rewindBuf(buf);
    StuffBuf(buf, src.data(), n, 1, bufTag('T'));
    rewindBuf(buf);
    if (ReadBuf(buf, dst.data(), n, 1, 1) == -1) state.SkipWithError("ReadBuf failed");
    benchmark::DoNotOptimize(dst.data());
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(n));
  freeBuf(buf);
}

// The same, with a new buffer per message, so that its growth is paid every time.
void BM_TaggedFieldNewBuf(benchmark::State &state) {
  size_t n = size_t(state.range(0));
  std::vector<uint8_t> src = pattern(n), dst(n);
  for (auto _ : state) {
    Buf *buf = NewBuf();
    StuffBuf(buf, src.data(), n, 1, bufTag('T'));
    rewindBuf(buf);
    if (ReadBuf(buf, dst.data(), n, 1, 1) == -1) state.SkipWithError("ReadBuf failed");
    benchmark::DoNotOptimize(dst.data());
    freeBuf(buf);
  }
  state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(n));
}

// Granularity 4: the words converted to network order on the way in and out.
void BM_TaggedFieldWords(benchmark::State &state) {
  size_t n = size_t(state.range(0));
  std::vector<uint8_t> src = pattern(n), dst(n);
  Buf *buf = NewBuf();
  for (auto _ : state) {
    rewindBuf(buf);
    StuffBuf(buf, src.data(), n, 4, bufTag('T'));
    rewindBuf(buf);
    if (ReadBuf(buf, dst.data(), n, 4, 1) == -1) state.SkipWithError("ReadBuf failed");
    benchmark::DoNotOptimize(dst.data());
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(n));
  freeBuf(buf);
}

// The floor: one memcpy of the field.
void BM_Memcpy(benchmark::State &state) {
  size_t n = size_t(state.range(0));
  std::vector<uint8_t> src = pattern(n), dst(n);
  for (auto _ : state) {
    memcpy(dst.data(), src.data(), n);
    benchmark::DoNotOptimize(dst.data());
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(n));
}

// The same traffic as a write and a read: into a middle area, then out of it.
void BM_MemcpyInAndOut(benchmark::State &state) {
  size_t n = size_t(state.range(0));
  std::vector<uint8_t> src = pattern(n), mid(n), dst(n);
  for (auto _ : state) {
    memcpy(mid.data(), src.data(), n);
    benchmark::ClobberMemory();
    memcpy(dst.data(), mid.data(), n);
    benchmark::DoNotOptimize(dst.data());
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(n));
}

// Large bytes through Protocol Buffers, for comparison.
void BM_ProtobufBlob(benchmark::State &state) {
  size_t n = size_t(state.range(0));
  std::vector<uint8_t> src = pattern(n);
  quorvelbench::Blob blob;
  blob.set_data(src.data(), n);
  std::string wire;
  for (auto _ : state) {
    blob.SerializeToString(&wire);
    quorvelbench::Blob back;
    if (!back.ParseFromString(wire)) state.SkipWithError("parse failed");
    benchmark::DoNotOptimize(back.data().data());
  }
  state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(n));
}

BENCHMARK(BM_TaggedField)->Arg(64 << 10)->Arg(1 << 20);
BENCHMARK(BM_TaggedFieldNewBuf)->Arg(64 << 10)->Arg(1 << 20);
BENCHMARK(BM_TaggedFieldWords)->Arg(64 << 10)->Arg(1 << 20);
BENCHMARK(BM_Memcpy)->Arg(64 << 10)->Arg(1 << 20);
BENCHMARK(BM_MemcpyInAndOut)->Arg(64 << 10)->Arg(1 << 20);
BENCHMARK(BM_ProtobufBlob)->Arg(64 << 10)->Arg(1 << 20);

/* ---- Whole items ------------------------------------------------------------------- */

CalSet setOf(std::initializer_list<int> members) {
  CalSet set = nullptr;
  for (int i : members) setbit(&set, i, 1);
  return set;
}

char *dup(const char *text) {
  char *copy = static_cast<char *>(allocMem(nullptr, strlen(text) + 1));
  strcpy(copy, text);
  return copy;
}

// A meeting as a group calendar holds it: title, database name, a few dozen
// calendars, two popup notes, two alarms, two visits, two labels.
Item *sampleItem() {
  Item *it = evnew();
  evsetDbName(it, "engineering");
  evsetTitle(it, "Weekly planning: release 4.2 scope and staffing");
  it->owner = 7;
  it->calendars = setOf({1, 3, 5, 7, 11, 13, 17, 19, 23, 29, 31, 37, 41});
  it->timeValue = {{1700000000, 1, 0}, {1700005400, 1, 0}};
  CalSet *sets[] = {&it->setY, &it->setN, &it->setS, &it->setR, &it->setC, &it->setX, &it->setM};
  for (int i = 0; i < 7; i++) *sets[i] = setOf({i, 9 + i, 30 + i});
  const char *notes[] = {"Bring the burn-down chart", "Room changed to 4.12"};
  const char *alarms[] = {"Planning in 15 minutes", "Planning starts now"};
  for (int i = 0; i < 2; i++) {
    Popup *p = addPopup(it);
    p->title = dup(notes[i]);
    p->mask = 0x11 << i;
    p->number = i;
    p->setS = setOf({1, 3, 5});
    p->setR = setOf({7});
    Alarm *a = addAlarmEntry(it);
    a->user = 7;
    a->start = 15u - 15u * unsigned(i);
    a->freq = 5;
    a->string = dup(alarms[i]);
    UserTime *u = addUserTime(it);
    u->user = 3 + i;
    u->when = {1699990000 + i * 60, 0, 0};
    LabelSet *l = addLabelSet(it);
    l->label = dup(i == 0 ? "projector" : "video link");
    l->set = setOf({2, 4});
  }
  it->value8 = {1699900000, 2, 0};
  it->hNumber = 42;
  it->aNumber = 1;
  it->gNumber = 2;
  return it;
}

std::string setBytes(const uint16_t *set) {
  return std::string(reinterpret_cast<const char *>(set), size_t(setByteSize(set)));
}

void fillDateTime(quorvelbench::DateTime *out, const DateTime &dt) {
  out->set_time(dt.time);
  out->set_q1(dt.q1);
  out->set_q2(dt.q2);
}

// The same content as a Protocol Buffers message.
void toProto(const Item *it, quorvelbench::Item *m) {
  m->set_db_name(it->dbName);
  m->set_db_flag(it->dbFlag != 0);
  m->set_d_word(it->dWord);
  m->set_u_word(it->uWord);
  m->set_title(it->title);
  m->set_owner(it->owner);
  m->set_calendars(setBytes(it->calendars));
  fillDateTime(m->mutable_start(), it->timeValue.start);
  fillDateTime(m->mutable_end(), it->timeValue.end);
  m->set_set_y(setBytes(it->setY));
  m->set_set_n(setBytes(it->setN));
  m->set_set_s(setBytes(it->setS));
  m->set_set_r(setBytes(it->setR));
  m->set_set_c(setBytes(it->setC));
  m->set_set_x(setBytes(it->setX));
  m->set_set_m(setBytes(it->setM));
  for (int i = 0; i < it->popupCount; i++) {
    quorvelbench::Popup *p = m->add_popups();
    p->set_title(it->popups[i].title);
    p->set_m1(it->popups[i].mask);
    p->set_m2(it->popups[i].number);
    p->set_set1(setBytes(it->popups[i].setS));
    p->set_set2(setBytes(it->popups[i].setR));
  }
  for (int i = 0; i < it->listBCount; i++) {
    quorvelbench::Alarm *a = m->add_alarms();
    a->set_user(it->listB[i].user);
    a->set_freq(int32_t(it->listB[i].freq));
    a->mutable_start()->set_time(int32_t(it->listB[i].start));
    a->set_text(it->listB[i].string);
  }
  fillDateTime(m->mutable_value8(), it->value8);
  for (int i = 0; i < it->listCCount; i++) {
    quorvelbench::Visit *v = m->add_visits();
    v->set_user(it->listC[i].user);
    fillDateTime(v->mutable_when(), it->listC[i].when);
  }
  for (int i = 0; i < it->listDCount; i++) {
    quorvelbench::Label *l = m->add_labels();
    l->set_label(it->listD[i].label);
    l->set_set(setBytes(it->listD[i].set));
  }
  m->set_random_id(it->randomId);
  m->set_h_number(it->hNumber);
  m->set_a_number(it->aNumber);
  m->set_g_number(it->gNumber);
  m->set_f_number(it->fNumber);
  m->set_e_number(it->eNumber);
  m->set_g_flag(it->gFlag);
  m->set_k_flag(it->kFlag);
  m->set_link_byte(it->linkByte);
}

// Encode into a reused buffer, decode into a new item (as a reply is read).
void BM_ItemCodec(benchmark::State &state) {
  Item *item = sampleItem();
  Buf *buf = NewBuf();
  buf->peerMajor = 1;
  buf->peerMinor = 6;
  size_t bytes = 0;
  for (auto _ : state) {
    rewindBuf(buf);
    writeEvent(buf, item);
    bytes = bufUsed(buf);
    rewindBuf(buf);
    Item *back = evnew();
    if (readEvent(buf, back) != 0) state.SkipWithError("readEvent failed");
    benchmark::DoNotOptimize(back->title);
    evfree(back);
  }
  state.counters["wire_bytes"] = double(bytes);
  state.SetItemsProcessed(int64_t(state.iterations()));
  freeBuf(buf);
  evfree(item);
}

// Serialise into a reused string, parse into a new message.
void BM_ProtobufItem(benchmark::State &state) {
  Item *item = sampleItem();
  quorvelbench::Item msg;
  toProto(item, &msg);
  std::string wire;
  for (auto _ : state) {
    msg.SerializeToString(&wire);
    quorvelbench::Item back;
    if (!back.ParseFromString(wire)) state.SkipWithError("parse failed");
    benchmark::DoNotOptimize(back.title().data());
  }
  state.counters["wire_bytes"] = double(wire.size());
  state.SetItemsProcessed(int64_t(state.iterations()));
  evfree(item);
}

// Protocol Buffers at its most favourable: the parsed message is reused too, so its
// strings and sub-messages keep their storage from one round to the next.
void BM_ProtobufItemReused(benchmark::State &state) {
  Item *item = sampleItem();
  quorvelbench::Item msg, back;
  toProto(item, &msg);
  std::string wire;
  for (auto _ : state) {
    msg.SerializeToString(&wire);
    if (!back.ParseFromString(wire)) state.SkipWithError("parse failed");
    benchmark::DoNotOptimize(back.title().data());
  }
  state.SetItemsProcessed(int64_t(state.iterations()));
  evfree(item);
}

// The two halves apart: writing only, and reading only (into a new record each time).
void BM_ItemWrite(benchmark::State &state) {
  Item *item = sampleItem();
  Buf *buf = NewBuf();
  buf->peerMajor = 1;
  buf->peerMinor = 6;
  for (auto _ : state) {
    rewindBuf(buf);
    writeEvent(buf, item);
    benchmark::DoNotOptimize(buf->data);
  }
  state.SetItemsProcessed(int64_t(state.iterations()));
  freeBuf(buf);
  evfree(item);
}

void BM_ItemRead(benchmark::State &state) {
  Item *item = sampleItem();
  Buf *buf = NewBuf();
  buf->peerMajor = 1;
  buf->peerMinor = 6;
  writeEvent(buf, item);
  for (auto _ : state) {
    rewindBuf(buf);
    Item *back = evnew();
    if (readEvent(buf, back) != 0) state.SkipWithError("readEvent failed");
    benchmark::DoNotOptimize(back->title);
    evfree(back);
  }
  state.SetItemsProcessed(int64_t(state.iterations()));
  freeBuf(buf);
  evfree(item);
}

void BM_ProtobufSerialize(benchmark::State &state) {
  Item *item = sampleItem();
  quorvelbench::Item msg;
  toProto(item, &msg);
  std::string wire;
  for (auto _ : state) {
    msg.SerializeToString(&wire);
    benchmark::DoNotOptimize(wire.data());
  }
  state.SetItemsProcessed(int64_t(state.iterations()));
  evfree(item);
}

void BM_ProtobufParse(benchmark::State &state) {
  Item *item = sampleItem();
  quorvelbench::Item msg;
  toProto(item, &msg);
  std::string wire = msg.SerializeAsString();
  for (auto _ : state) {
    quorvelbench::Item back;
    if (!back.ParseFromString(wire)) state.SkipWithError("parse failed");
    benchmark::DoNotOptimize(back.title().data());
  }
  state.SetItemsProcessed(int64_t(state.iterations()));
  evfree(item);
}

// A reply of 100 items: a whole list message built and read back.
void BM_ItemListMessage(benchmark::State &state) {
  Item head;
  evlistInit(&head);
  for (int i = 0; i < 100; i++) evlistAppend(&head, sampleItem());
  Buf *buf = NewBuf();
  buf->peerMajor = 1;
  buf->peerMinor = 6;
  for (auto _ : state) {
    buildItemListMessage(buf, 101, &head);
    Item back;
    evlistInit(&back);
    if (readItemMessage(buf, &back, nullptr) != 100) state.SkipWithError("read failed");
    evlistFree(&back);
  }
  state.SetItemsProcessed(int64_t(state.iterations()) * 100);
  freeBuf(buf);
  evlistFree(&head);
}

void BM_ProtobufItemList(benchmark::State &state) {
  Item *item = sampleItem();
  quorvelbench::ItemList list;
  for (int i = 0; i < 100; i++) toProto(item, list.add_items());
  std::string wire;
  for (auto _ : state) {
    list.SerializeToString(&wire);
    quorvelbench::ItemList back;
    bool ok = back.ParseFromString(wire) && back.items_size() == 100;
    if (!ok) state.SkipWithError("parse failed");
  }
  state.SetItemsProcessed(int64_t(state.iterations()) * 100);
  evfree(item);
}

BENCHMARK(BM_ItemCodec);
BENCHMARK(BM_ProtobufItem);
BENCHMARK(BM_ProtobufItemReused);
BENCHMARK(BM_ItemWrite);
BENCHMARK(BM_ProtobufSerialize);
BENCHMARK(BM_ItemRead);
BENCHMARK(BM_ProtobufParse);
BENCHMARK(BM_ItemListMessage);
BENCHMARK(BM_ProtobufItemList);

}  // namespace
}  // namespace quorvel

BENCHMARK_MAIN();
