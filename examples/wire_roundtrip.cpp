// wire_roundtrip -- builds a calendar item, encodes it as a calendar-server message with
// the core's wire codec, decodes the message again and prints both sides, so that a
// client author sees the codec at work. Exit status 0 when the item came back whole.
//
//   wire_roundtrip [title]
#include <cstdio>
#include <cstring>

#include "core/items/item.h"
#include "core/net/buf.h"
#include "core/net/itemcodec.h"

using namespace quorvel;

int main(int argc, char **argv) {
  const char *title = argc > 1 ? argv[1] : "Team meeting";
  Item *item = evnew();
  evsetTitle(item, title);
  item->dWord = 1;  // an event
  item->timeValue.start.time = 1795000000;
  item->timeValue.end.time = 1795003600;
  item->randomId = 4242;

  Buf *buf = NewBuf();
  buildItemMessage(buf, 1, item);
  printf("sent: \"%s\" %d..%d id %d\n", item->title, item->timeValue.start.time,
         item->timeValue.end.time, item->randomId);

  rewindBuf(buf);
  Item head;
  evlistInit(&head);
  int code = 0;
  int n = readItemMessage(buf, &head, &code);
  if (n != 1) {
    fprintf(stderr, "wire_roundtrip: the message read back as %d items\n", n);
    return 1;
  }
  const Item *back = head.next;
  printf("read: \"%s\" %d..%d id %d (code %d)\n", back->title, back->timeValue.start.time,
         back->timeValue.end.time, back->randomId, code);
  bool same = strcmp(back->title, item->title) == 0 &&
              back->timeValue.start.time == item->timeValue.start.time &&
              back->timeValue.end.time == item->timeValue.end.time &&
              back->randomId == item->randomId;
  evlistFree(&head);
  evfree(item);
  freeBuf(buf);
  puts(same ? "round trip: same item" : "round trip: DIFFERENT");
  return same ? 0 : 1;
}
