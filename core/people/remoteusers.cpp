// remoteusers.cpp -- the users of a server-attached context: asking the server whether
// they changed (RemGetUsers) and carrying a change into the client.
#include "core/db/context.h"
#include "core/net/link.h"
#include "core/net/remote.h"
#include "core/people/users.h"

namespace quorvel {

int refreshRemoteUsers(DbHandle *ctx, int *changed, const char *name) {
  *changed = 0;
  if (!isServerAttached(ctx)) return -1;
  // The answer lands on the named calendar's connection when it has one of its own.
  DbHandle *named = name ? findDbByName(name) : nullptr;
  ServerLink *namedLink = named && named->server ? named->server : nullptr;
  ServerLink *target = namedLink ? namedLink : ctx->server;
  DbHandle *changedCtx = named ? named : ctx;
  target->changed = false;
  RemReply reply;
  int r = RemGetUsers(ctx->server, name, namedLink, &reply);
  if (r != 0) return r;
  // Only an answer of kind 2 judges the users: an equal number clears the mark of the
  // calendar's context, a different one sets it. Kind 8 leaves the mark alone.
  if (reply.fields.size() > 1 && reply.fields[1].kind == 2)
    changedCtx->changed = target->changed;
  if (!target->changed) return r;
  *changed = 1;
  DbHandle *main = mainDb();
  if (!main || main->kind != DB_KIND_LOCAL) EffectUserChanges(main, changedCtx);
  return r;
}

}  // namespace quorvel
