// domains.h -- the domains file "db/domains" (resolved against the installation root):
// the calendar domains this installation knows and the host serving each.
//
// Lines of at most 1024 characters; lines starting with "#" and empty lines are
// skipped. A line holds up to three fields separated by commas: domain name, host,
// label (optional; it runs to the end of the line, commas included). A field may be
// enclosed in double quotes, which protect the commas inside and become blanks; every
// field is trimmed. A line with a domain and a host is an entry; a host that is this
// machine ("localhost", or a name or address that resolves to this machine's address)
// is kept as "localhost". The file is accepted when it has two or more entries and
// exactly one of them is local; only then does it replace the table in force. The
// file's modification time when last read is kept, and an unchanged file is not read
// again. Every rejection is reported as a warning naming the file.
//
// Results: ReadDomains returns *ok (1 a new table is in force or the calendar is
// reached through its server, 0 otherwise); lookups give null for "none".
#pragma once

#include <cstdint>
#include <string>

namespace quorvel {

struct DbHandle;

/* ---- Reading --------------------------------------------------------------------------- */

// Reads and judges the domains file, or, for a calendar reached through its server,
// asks the server (RemGetDomains) instead: its reply's text fields, taken three at a
// time as domain, host and label, become the table when there are any. `address` is
// this machine's IPv4 address in network byte order. Sets and returns *ok.
int ReadDomains(DbHandle *calendar, int *ok, uint32_t address);

/* ---- The table in force ----------------------------------------------------------------- */

// The label of entry index when not empty, else its domain name when not empty, else
// null; null beyond the count or without a table.
const char *DomainLabel(int index);
// The domain name of the first entry whose label equals label, or null.
const char *DomainByLabel(const char *label);
// The number of entries (0 without a table), and an entry's fields (null beyond).
int DomainCount();
const char *DomainName(int index);
const char *DomainHost(int index);

/* ---- The line form (the reader's own splitter) ------------------------------------------ */

// Splits one line (its newline, if any, ends it) into up to three trimmed fields;
// returns the number of fields found (1 to 3).
int SplitDomainLine(const char *line, std::string fields[3]);
// Whether host names this machine: "localhost", or it resolves to address.
bool IsThisHost(const char *host, uint32_t address);

// Forgets the table and the kept time (tests).
void resetDomains();

}  // namespace quorvel
