// userlist.cpp -- user lists (growth in steps of 64, copies, comparison) and the field
// splitter of users-file lines.
#include "core/base/base.h"
#include "core/people/users.h"

#include <cstring>

namespace quorvel {

namespace {

constexpr int kListStep = 64;  // entries added to a full list at a time

char *copyText(const char *s) {
  if (!s) return nullptr;
  size_t n = strlen(s) + 1;
  char *c = static_cast<char *>(allocMem(nullptr, n));
  if (!c) outOfMem("AddUser");
  memcpy(c, s, n);
  return c;
}

void growList(UserList *list) {
  int32_t cap = list->capacity + kListStep;
  if (cap > list->allocated) {
    int32_t block = list->allocated < kListStep ? kListStep : list->allocated * 2;
    void *p = allocMem(list->entries, sizeof(UserEntry) * block);
    if (!p) outOfMem("AddUser");
    list->entries = static_cast<UserEntry *>(p);
    list->allocated = block;
  }
  for (int32_t i = list->capacity; i < cap; i++) {
    list->entries[i] = UserEntry{};
    list->entries[i].id = -1;
  }
  list->capacity = cap;
}

bool sameField(const char *a, const char *b) { return !a || !b || strcmp(a, b) == 0; }

}  // namespace

UserList *newUserList() {
  UserList *list = static_cast<UserList *>(allocMem(nullptr, sizeof(UserList)));
  if (!list) outOfMem("AddUser");
  *list = UserList{nullptr, 0, 0, 0};
  return list;
}

int addUserEntry(UserList *list, const char *name, const char *login, const char *mail,
                 const char *display, int32_t plusFlag) {
  if (list->count == list->capacity) growList(list);
  UserEntry &e = list->entries[list->count];
  e.name = copyText(name);
  e.login = copyText(login);
  e.mailAddress = copyText(mail);
  e.displayName = copyText(display);
  e.plusFlag = plusFlag;
  e.id = -1;
  return list->count++;
}

UserList *copyUserList(const UserList *list) {
  if (!list) return nullptr;
  UserList *c = newUserList();
  for (int32_t i = 0; i < list->count; i++) {
    const UserEntry &e = list->entries[i];
    int at = addUserEntry(c, e.name, e.login, e.mailAddress, e.displayName, e.plusFlag);
    c->entries[at].id = e.id;
  }
  return c;
}

void freeUserList(UserList *list) {
  if (!list) return;
  for (int32_t i = 0; i < list->count; i++) {
    UserEntry &e = list->entries[i];
    freeMem(e.name);
    freeMem(e.login);
    freeMem(e.mailAddress);
    freeMem(e.displayName);
  }
  freeMem(list->entries);
  freeMem(list);
}

int userListsEqual(const UserList *a, const UserList *b) {
  if (!a && !b) return 1;
  if (!a || !b || a->count != b->count) return 0;
  for (int32_t i = 0; i < a->count; i++) {
    const UserEntry &x = a->entries[i], &y = b->entries[i];
    if (!sameField(x.name, y.name) || !sameField(x.login, y.login) ||
        !sameField(x.mailAddress, y.mailAddress) ||
        !sameField(x.displayName, y.displayName))
      return 0;
  }
  return 1;
}

char *nextUserField(char **rest) {
  char *field = *rest;
  if (!field) return nullptr;
  char *from = field;
  for (;;) {
    char *comma = strchr(from, ',');
    if (!comma) break;
    char *open = strchr(from, '"');
    char *close = open ? strchr(open + 1, '"') : nullptr;
    if (close && open < comma && comma < close) {
      *open = ' ';  // a quoted comma belongs to the field; the quotes become blanks
      *close = ' ';
      from = close + 1;
      continue;
    }
    *comma = '\0';
    *rest = comma + 1;
    return field;
  }
  char *nl = strchr(from, '\n');
  if (!nl) return nullptr;  // a field needs a comma or a newline behind it
  *nl = '\0';
  *rest = nl + 1;
  return field;
}

}  // namespace quorvel
