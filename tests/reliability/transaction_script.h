// The transactions of the crash-consistency and contention tests, shared by the test binary and
// the child program velfs_crash_writer: what transaction i does to a database root, and which
// rows the database holds after transactions 1 to n were committed.
//
// Transaction i (i >= 1), between velfsBeginTrans and velfsCommitTrans: writes t<i>/data.bin
// (pseudo-random bytes, 1 to 150,000 of them, in several writes) and t<i>/note.txt, copies the
// note to t<i>/copy.txt, renames that to t<i>/renamed.txt, moves that to moved/<i>.txt, replaces
// counter.txt by the decimal i (velfsResize to 0, then a write), and deletes the directory
// t<i-4>/ and the file moved/<i-4>.txt, so that the files of the last four transactions stay.
#ifndef VELFS_TESTS_RELIABILITY_TRANSACTION_SCRIPT_H
#define VELFS_TESTS_RELIABILITY_TRANSACTION_SCRIPT_H

#include <cstdint>
#include <map>
#include <string>

#include "velfs.h"

namespace velfs::reliability {

inline constexpr uint32_t kKeptTransactions = 4;

// Runs transaction `index` on the database root `dir`; true when every operation and the commit
// succeeded.
bool RunTransaction(DirHandle* dir, uint32_t index);

// The rows after transactions 1 to `last` were committed (none for 0), keyed by Path followed by
// FileName, valued by Content.
std::map<std::string, std::string> StateAfter(uint32_t last);

// The content transaction `index` writes to t<index>/data.bin.
std::string DataOf(uint32_t index);

}  // namespace velfs::reliability

#endif  // VELFS_TESTS_RELIABILITY_TRANSACTION_SCRIPT_H
