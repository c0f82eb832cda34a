// remoteusers.cpp -- the user list of a server-attached context, asked of the server.
#include "core/db/context.h"
#include "core/people/users.h"

namespace quorvel {

int refreshRemoteUsers(DbHandle *ctx, int *changed, const char *name) {
  (void)name;
  *changed = 0;
  if (!isServerAttached(ctx)) return -1;
  return -1;
}

}  // namespace quorvel
