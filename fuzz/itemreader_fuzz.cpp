// itemreader_fuzz.cpp -- arbitrary bytes as an item message for the item reader.
// Whatever the reader accepts must also survive the way back: written again as a list
// message for the same peer version, it reads back as the same items in the same order,
// chained copies included, each with the fields it was written with (a field the peer's
// version does not carry may change which items count as copies, never the items).
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "core/items/item.h"
#include "core/net/buf.h"
#include "core/net/itemcodec.h"
#include "core/net/namelookup.h"

namespace {

const char *const kNames[] = {"alice", "bob", "carol"};
int countNames(void *) { return 3; }
const char *nameAt(void *, int i) { return i >= 0 && i < 3 ? kNames[i] : nullptr; }
int indexOfName(void *, const char *name) {
  for (int i = 0; i < 3; i++) {
    if (strcmp(kNames[i], name) == 0) return i;
  }
  return -1;
}
const quorvel::NameLookup kLookup = {nullptr, countNames, nameAt, indexOfName};

// The bytes as a received message: the storage ends where the input does.
quorvel::Buf *messageOf(const uint8_t *data, size_t size) {
  quorvel::Buf *buf = quorvel::NewBuf();
  quorvel::StuffBuf(buf, data, size, 1, quorvel::BUF_UNTAGGED);
  if (buf->data != nullptr) buf->size = uint32_t(size);
  return buf;
}

// The items of a list in message order: each list item, then its chain.
std::vector<const quorvel::Item *> inOrder(const quorvel::Item *head) {
  std::vector<const quorvel::Item *> items;
  for (const quorvel::Item *it = head->next; it != head; it = it->next) {
    for (const quorvel::Item *c = it; c != nullptr; c = c->chain) items.push_back(c);
  }
  return items;
}

// One item's fields as written for the peer and header flag of `like`.
std::string fieldsOf(const quorvel::Item *item, const quorvel::Buf *like) {
  quorvel::Buf *buf = quorvel::NewBuf();
  buf->peerMajor = like->peerMajor;
  buf->peerMinor = like->peerMinor;
  buf->extended = like->extended;
  quorvel::writeEvent(buf, item);
  std::string bytes(reinterpret_cast<const char *>(buf->data), quorvel::bufUsed(buf));
  quorvel::freeBuf(buf);
  return bytes;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  using namespace quorvel;
  setNameLookup(&kLookup);
  Buf *in = messageOf(data, size);
  Item head;
  evlistInit(&head);
  int code = 0;
  int count = readItemMessage(in, &head, &code);
  if (count >= 0) {
    std::vector<const Item *> items = inOrder(&head);
    Buf *out = NewBuf();
    out->peerMajor = in->peerMajor;
    out->peerMinor = in->peerMinor;
    buildItemListMessage(out, code, &head);
    // (the header names our version; the fields were written for the peer's)
    out->data[2] = in->peerMajor;
    out->data[3] = in->peerMinor;
    Item again;
    evlistInit(&again);
    if (readItemMessage(out, &again, nullptr) < 0) abort();
    // Every item the writer made reads back as it was written.
    std::vector<const Item *> back = inOrder(&again);
    if (back.size() != items.size()) abort();
    for (size_t i = 0; i < items.size(); i++) {
      if (fieldsOf(back[i], out) != fieldsOf(items[i], out)) abort();
    }
    evlistFree(&again);
    freeBuf(out);
  }
  evlistFree(&head);
  freeBuf(in);
  return 0;
}
